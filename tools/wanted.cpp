#include "wanted.h"

#include <algorithm>
#include <set>

#include "dry_daemon.h"
#include "p_policy.pb-c.h"
#include "proc/lspan/ko_lspan.h"

namespace lspanctl {
namespace {

struct input {
  uint32_t db;
  const ProtobufCMessageDescriptor *type;
};

// What the daemon reads, in the order in which it is given to it.
const input inputs[] = {
    {CONF_DB, &u_monitor__mirror_lspan_info__descriptor},
    {CONF_DB, &p_policy__data_intf_conf__descriptor},
    {UDP_DB, &u_monitor__mirror_result_info__descriptor},
};

bool is_input(const record_kind &kind) {
  return std::any_of(std::begin(inputs), std::end(inputs),
                     [&](const input &in) { return in.db == kind.db && in.type == kind.type; });
}

// The records of every kind that the daemon writes, and of those that it reads.
void load_stored(context &ctx, store_client &store, wanted_state &state) {
  for (const record_kind &kind : record_kinds()) {
    if (!kind.stored || is_input(kind)) continue;
    for (loaded_record &record : load_records(ctx, store, kind.db, *kind.type, state.bad))
      if (ko_store::owner_of(*ko_store::key_of(*record.message)) == ko_lspan_app_name)
        state.stored[{kind.db, kind.type->name, std::move(record.key)}] = std::move(record.bytes);
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

  void give(const input &in, const loaded_record &record) {
    touched_.clear();
    status_ = 0;
    daemon_.put({{in.db, in.type}, ko_store::change_kind::set, record.key, record.bytes});
    if (in.type == &u_monitor__mirror_lspan_info__descriptor) {
      const auto &message = *reinterpret_cast<const UMonitor__MirrorLspanInfo *>(record.message.get());
      state_.members.push_back({from_record(message), touched_, status_, false});
    } else if (in.type == &p_policy__data_intf_conf__descriptor) {
      const uint32_t group = reinterpret_cast<const PPolicy__DataIntfConf *>(record.message.get())->group_id;
      auto &of_group = groups_[group];
      of_group.insert(of_group.end(), touched_.begin(), touched_.end());
    }
  }

  // What is left in the end. What was done for the interfaces of a group belongs to the members that target it.
  void finish() {
    for (const record_kind &kind : record_kinds())
      if (kind.stored)
        for (const auto &[key, record] : daemon_.records(kind.db, kind.type->name))
          state_.wanted[{kind.db, kind.type->name, key}] = record;
    for (member_outcome &outcome : state_.members) {
      if (!outcome.what.targets_group()) continue;
      const auto group = groups_.find(ko_span_group_id(outcome.what.key.d_ifx));
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
    touched_.push_back({what.hash.db, what.hash.type->name, std::string(what.key)});
  }

  wanted_state &state_;
  std::vector<record_place> touched_;
  int32_t status_ = 0;
  std::map<uint32_t, std::vector<record_place>> groups_;
  dry_daemon daemon_;
};

}  // namespace

wanted_state load_wanted(context &ctx) {
  wanted_state state;
  store_client store = ctx.connect();
  std::vector<std::vector<loaded_record>> read;
  size_t total = 0;
  for (const input &in : inputs) {
    read.push_back(load_records(ctx, store, in.db, *in.type, state.bad));
    auto &records = read.back();
    // The order in which the daemon's store hands them over.
    std::sort(records.begin(), records.end(),
              [](const loaded_record &a, const loaded_record &b) { return a.key < b.key; });
    for (const loaded_record &record : records) state.stored[{in.db, in.type->name, record.key}] = record.bytes;
    total += records.size();
  }
  load_stored(ctx, store, state);

  progress_line progress = ctx.progress("computing", total);
  computation compute(ctx, state);
  size_t done = 0;
  for (size_t i = 0; i < read.size(); ++i) {
    for (const loaded_record &record : read[i]) {
      compute.give(inputs[i], record);
      if (++done % 1000 == 0) progress.show(done);
    }
  }
  compute.finish();
  return state;
}

finding compare(const wanted_state &state, const record_place &place) {
  const auto wanted = state.wanted.find(place);
  const auto stored = state.stored.find(place);
  if (wanted == state.wanted.end()) return stored == state.stored.end() ? finding::right : finding::left_over;
  if (stored == state.stored.end()) return finding::missing;
  return wanted->second == stored->second ? finding::right : finding::different;
}

}  // namespace lspanctl
