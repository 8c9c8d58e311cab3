#include "wanted.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <tuple>

#include "dry_daemon.h"
#include "p_policy.pb-c.h"
#include "proc/lspan/ko_lspan.h"
#include "request.h"
#include "values.h"

namespace lspanctl {
namespace {

// The daemon's inputs, in the order in which it reads them.
const std::array inputs = {session_members, group_memberships, results};

// The daemon's own records among all that it may write.
void load_stored(context &ctx, store_client &store, wanted_state &state) {
  for (const record_kind &kind : record_kinds()) {
    if (!kind.stored || std::find(inputs.begin(), inputs.end(), kind.hash) != inputs.end()) continue;
    for (decoded_record &record : load_records(ctx, store, kind.hash))
      if (ko_store::owner_of(*ko_store::key_of(*record.message)) == ko_lspan_app_name)
        state.stored[{kind.hash, std::move(record.stored.key)}] = std::move(record.stored.record);
  }
}

class computation {
 public:
  computation(context &ctx, wanted_state &state)
      : state_(state),
        daemon_(ctx.settings(), 0,
                {.log = {},
                 .write = [this](const ko_store::change &what) { note(what); },
                 .event = [this](int32_t status) { status_ = status; }}) {}

  void give(const decoded_record &record) {
    touched_.clear();
    status_ = 0;
    daemon_.put(record.stored);
    if (record.stored.hash == session_members) {
      state_.members.push_back({from_record(record.as<UMonitor__MirrorLspanInfo>()), touched_, status_, false});
    } else if (record.stored.hash == group_memberships) {
      auto &of_group = groups_[record.as<PPolicy__DataIntfConf>().group_id];
      of_group.insert(of_group.end(), touched_.begin(), touched_.end());
    }
  }

  // What is left in the end. What was done for the interfaces of a group belongs to the members that target it.
  void finish() {
    for (const record_kind &kind : record_kinds())
      if (kind.stored)
        for (const auto &[key, record] : daemon_.records(kind.hash)) state_.wanted[{kind.hash, key}] = record;
    for (member_outcome &outcome : state_.members) {
      if (!outcome.what.targets_group()) continue;
      const auto group = groups_.find(group_id_of(outcome.what.key.d_ifx));
      outcome.group_is_empty = group == groups_.end();
      if (!outcome.group_is_empty)
        outcome.touched.insert(outcome.touched.end(), group->second.begin(), group->second.end());
    }
    std::sort(state_.members.begin(), state_.members.end(),
              [](const member_outcome &a, const member_outcome &b) { return a.what.key < b.what.key; });
  }

 private:
  void note(const ko_store::change &what) {
    if (what.kind == ko_store::change_kind::publish) return;
    touched_.push_back({what.hash, std::string(what.key)});
  }

  wanted_state &state_;
  std::vector<record_place> touched_;
  int32_t status_ = 0;
  std::map<uint32_t, std::vector<record_place>> groups_;
  dry_daemon daemon_;
};

}  // namespace

std::strong_ordering record_place::operator<=>(const record_place &other) const {
  const auto ordered = [](const record_place &place) {
    return std::tuple(place.hash.db, std::string_view(place.hash.type->name), std::string_view(place.key));
  };
  return ordered(*this) <=> ordered(other);
}

wanted_state load_wanted(context &ctx) {
  wanted_state state;
  store_client store = ctx.connect();
  std::vector<decoded_record> read;
  for (const ko_store::hash_id &input : inputs) {
    std::vector<decoded_record> records = load_records(ctx, store, input);
    // The order in which the daemon's store hands them over.
    std::sort(records.begin(), records.end(),
              [](const decoded_record &a, const decoded_record &b) { return a.stored.key < b.stored.key; });
    for (const decoded_record &record : records) state.stored[{input, record.stored.key}] = record.stored.record;
    std::move(records.begin(), records.end(), std::back_inserter(read));
  }
  load_stored(ctx, store, state);
  state.daemon_listens = is_listening(store, daemon_program);

  progress_line progress = ctx.progress("computing", read.size());
  computation compute(ctx, state);
  size_t done = 0;
  for (const decoded_record &record : read) {
    progress.show(done++);
    compute.give(record);
  }
  compute.finish();
  return state;
}

const char *to_text(finding what) {
  constexpr std::array<const char *, n_findings> words = {"right", "missing", "different", "left over"};
  return words[static_cast<size_t>(what)];
}

finding compare(const wanted_state &state, const record_place &place) {
  const auto wanted = state.wanted.find(place);
  const auto stored = state.stored.find(place);
  if (wanted == state.wanted.end()) return stored == state.stored.end() ? finding::right : finding::left_over;
  if (stored == state.stored.end()) return finding::missing;
  return wanted->second == stored->second ? finding::right : finding::different;
}

bool all_right(const wanted_state &state) { return state.wanted == state.stored; }

}  // namespace lspanctl
