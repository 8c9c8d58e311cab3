// The input is what others do to the store in which the daemon lives: records and announcements, sound ones and any
// bytes, hashes that cannot be read, writes that are refused or lost, breaks of the connection, kills of the daemon.
//
// Whatever happens, the daemon's memory is whole, and it writes sound records of its own only. When all is well again,
// its handlers have been told what is stored, and what they wrote is stored.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "bytes.h"
#include "daemon_state.h"
#include "global_context.h"
#include "in_process.h"
#include "p_policy.pb-c.h"
#include "proc/lspan/ko_lspan.h"
#include "store/layout.h"
#include "u_bridge.pb-c.h"

using namespace ko_store;
using fuzz::must_hold;

namespace {

using records = std::map<std::string, std::string, std::less<>>;
std::map<const ProtobufCMessageDescriptor *, records> told;     // by set and delete events: packed key, packed record
std::map<const ProtobufCMessageDescriptor *, records> written;  // by the handlers, to the outputs

// The process's clock stands still, but for what an input makes of it.
timespec now = {1000, 0};
uint32_t late_in = 0;  // how many looks at it until one finds that a slice's time is over; 0: none

std::string packed(const ProtobufCMessage &message) {
  std::string out;
  append_packed(message, out);
  return out;
}

// Of whom the key is that the daemon would write: its own, or for a result that it takes away the forwarding side's.
bool has_owner(const change &what, const char *owner) {
  const auto key =
      unpack(*static_cast<const ProtobufCMessageDescriptor *>(key_field(*what.hash.type)->descriptor), what.key);
  return key != nullptr && owner_of(*key) == owner;
}

bool is_one_of(const std::vector<hash_id> &hashes, uint32_t db, const ProtobufCMessageDescriptor *type) {
  return std::any_of(hashes.begin(), hashes.end(), [=](const hash_id &at) { return at.db == db && at.type == type; });
}

void check_write(const change &what) {
  if (what.kind == change_kind::publish) {
    must_hold(what.hash.type == &u_bridge__udp_flushdyn__descriptor, "published what is no request");
  } else if (is_one_of(harness::input_hashes, what.hash.db, what.hash.type)) {
    must_hold(what.kind == change_kind::del && has_owner(what, ko_span_peer_name), "wrote to an input");
  } else if (what.kind == change_kind::del) {
    must_hold(has_owner(what, ko_lspan_app_name), "deleted what is not its own");
  } else {
    const auto record = unpack(*what.hash.type, what.record);
    must_hold(check_record(record.get(), what.key) == defect::none, "wrote what is not sound");
    must_hold(owner_of(*key_of(*record)) == ko_lspan_app_name, "wrote what is not its own");
  }
}

void note_event(uint32_t kind, const ProtobufCMessage &message, int32_t status) {
  if (message.descriptor == &u_monitor__mirror_result_info__descriptor) return;  // sets only
  if (message.descriptor == &p_policy__data_intf_conf__descriptor) {
    const auto &record = reinterpret_cast<const PPolicy__DataIntfConf &>(message);
    driver::note_membership(record.index->index, record.group_id, kind != VX_MOM_EVENT_SET, status);
  }
  records &known = told[message.descriptor];
  const std::string key = packed(*key_of(message));
  const std::string record = packed(message);
  if (kind == VX_MOM_EVENT_SET) {
    known.insert_or_assign(key, record);
    return;
  }
  const auto gone = known.find(key);
  must_hold(gone != known.end() && gone->second == record, "a delete of what was not told");
  known.erase(gone);
}

void note_write(uint32_t db, const ProtobufCMessage &message, bool is_del) {
  if (!is_one_of(harness::output_hashes, db, message.descriptor)) return;
  records &of_type = written[message.descriptor];
  if (is_del)
    of_type.erase(packed(*key_of(message)));
  else
    of_type.insert_or_assign(packed(*key_of(message)), packed(message));
}

class attempt {
 public:
  attempt(fuzz::bytes &input, harness::world &in) : input_(input), world_(in) {
    lspan_zlog_level = 1;
    late_in = 0;
    start();
  }
  attempt(const attempt &) = delete;
  attempt &operator=(const attempt &) = delete;
  ~attempt() {
    world_.kill(false);
    told.clear();
    written.clear();
  }

  void run() {
    while (!input_.empty()) {
      const uint8_t what = input_.next();
      act(what % 16);
      for (unsigned turns = what / 16 % 4; turns > 0; --turns) world_.step();
      must_hold(driver::broken());
    }
    settle();
  }

 private:
  void start() {
    world_.restart();
    told.clear();
    written.clear();
    refuse_ = 0;
    world_.tested().on_event = note_event;
    world_.store->on_write = [this](const change &what) {
      check_write(what);
      if (refuse_ == 0) return false;
      --refuse_;
      return true;
    };
  }

  void act(unsigned what) {
    harness::scrambler &wire = *world_.wire;
    switch (what) {
      case 0:
      case 1:
      case 2:
        return world_.put(any_record());
      case 3:
        return world_.put(any_record(), change_kind::del);
      case 4:
        return world_.put(any_stored(harness::input_hashes[input_.below(3)]), change_kind::del);
      case 5:  // announced, but not so
        return lie();
      case 6:
        wire.holds = !wire.holds;
        if (!wire.holds)
          wire.release([this](size_t bound) { return input_.below(static_cast<uint32_t>(bound)); }, false);
        return;
      case 7:
        return wire.is_cut() ? wire.join() : wire.cut();
      case 8:
        refuse_ = input_.below(8);
        return;
      case 9:
        wire.loses = !wire.loses;
        wire.every_second = input_.below(2) == 0;
        return;
      case 10:
        late_in = input_.next();
        return;
      case 11:
        now.tv_sec += input_.below(40);
        return;
      case 12:
        return spoil(harness::output_hashes[input_.below(7)]);
      case 13:
        wire.unreadable_next = true;
        return;
      case 14:
        wire.pieces = !wire.pieces;
        if (wire.full && !wire.is_cut())
          wire.relieve();
        else
          wire.full = !wire.full;
        return;
      default:
        lspan_zlog_level = input_.below(6);
        if (input_.below(4) == 0) start();
    }
  }

  harness::record any_record() {
    harness::record out;
    if (input_.below(4) == 3) {
      out = harness::membership(1 + input_.below(6), input_.below(5));
    } else {
      harness::member of{.session = 1 + input_.below(3), .s_ifx = input_.below(3), .d_ifx = 1 + input_.below(6)};
      const uint8_t more = input_.next();
      if (more % 2 != 0) of.module = 5, of.d_ifx = harness::group_target(of.d_ifx);
      of.mtp_switch = more / 2 % 2;
      of.apply = more / 4 % 4;
      of.dir = more / 16 % 2;
      of.acl = more / 32 % 2;
      constexpr size_t words[] = {1, 3, 128, 129, 200};
      if (input_.one_in(8)) of.vlans.assign(words[input_.below(5)], 7), of.sample = more;
      out = more < 192 ? harness::session(of) : harness::result(of, more % 3, more % 4);
    }
    if (input_.one_in(4)) mutate(out);
    return out;
  }

  // Flips, cuts, replaces or lengthens the record, or its key, or the key in both.
  void mutate(harness::record &what) {
    const uint8_t how = input_.next();
    const std::string key = what.key;
    std::string &bytes = how % 2 == 0 ? what.bytes : what.key;
    const size_t at = input_.below(static_cast<uint32_t>(bytes.size() + 1));
    switch (how / 2 % 4) {
      case 0:
        if (at < bytes.size()) bytes[at] = static_cast<char>(bytes[at] ^ 1 << how / 8 % 8);
        break;
      case 1:
        bytes.resize(at);
        break;
      case 2:
        bytes.replace(at, how / 8 % 4, input_.text(how / 32));
        break;
      default:
        bytes = input_.text(at);
    }
    if (how < 128 || what.key.size() > 127 || what.bytes.find(key) != 2) return;
    what.bytes[1] = static_cast<char>(what.key.size());
    what.bytes.replace(2, key.size(), what.key);
  }

  // One of the records there; without a key when there is none.
  harness::record any_stored(const hash_id &where) {
    const auto &stored = world_.store->records(where.db, where.type->name);
    if (stored.empty()) return {where.db, where.type, {}, {}};
    const auto known = std::next(stored.begin(), input_.below(static_cast<uint32_t>(stored.size())));
    return {where.db, where.type, known->first, known->second};
  }

  void lie() {
    const harness::record what = any_record();
    const change_kind kinds[] = {change_kind::set, change_kind::del, change_kind::publish};
    const uint32_t which = input_.below(4);
    const uint32_t to = input_.below(3);
    if (world_.wire->is_cut() || world_.tested().counts().reads == 0) return;
    if (which == 3) return world_.wire->garbage(to);
    world_.wire->lie(to, {harness::input_hashes[to], kinds[which], what.key, what.bytes});
  }

  // Somebody writes to an output: changes or deletes what is there, or adds something like it.
  void spoil(const hash_id &where) {
    harness::record what = any_stored(where);
    if (!what.key.empty() && input_.below(4) == 0) return world_.put(what, change_kind::del);
    mutate(what);
    world_.put(what);
  }

  // All is well again: the connection is made anew, and the daemon comes to rest.
  void settle() {
    harness::scrambler &wire = *world_.wire;
    wire.holds = wire.loses = wire.full = wire.unreadable_next = false;
    refuse_ = 0;
    late_in = 0;
    wire.cut(), wire.join();
    int turns = 0;
    for (int quiet = 0; quiet < 2; quiet = world_.tested().settled() ? quiet + 1 : 0) {
      must_hold(++turns < 1000, "it does not come to rest");
      world_.step();
    }
    must_hold(driver::broken());
    check_told(harness::input_hashes[0]);
    check_told(harness::input_hashes[1]);
    for (const hash_id &out : harness::output_hashes) check_written(out);
  }

  void check_told(const hash_id &in) {
    records sound;
    for (const auto &[key, bytes] : world_.store->records(in.db, in.type->name)) {
      const auto record = unpack(*in.type, bytes);
      if (check_record(record.get(), key) == defect::none) sound.emplace(key, packed(*record));
    }
    must_hold(sound == told[in.type], "told other than stored");
  }

  void check_written(const hash_id &out) {
    records own;
    for (const auto &[key, bytes] : world_.store->records(out.db, out.type->name))
      if (has_owner({{out.db, out.type}, change_kind::set, key, bytes}, ko_lspan_app_name)) own.emplace(key, bytes);
    must_hold(own == written[out.type], "stored other than written");
  }

  fuzz::bytes &input_;
  harness::world &world_;
  uint32_t refuse_ = 0;  // writes to come that are refused
};

}  // namespace

extern "C" {

// Takes the place of the C library's, for the event loop and the slices of long work.
int clock_gettime(clockid_t clock, timespec *time) {
  if (clock != CLOCK_MONOTONIC && clock != CLOCK_MONOTONIC_COARSE)
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (late_in != 0 && --late_in == 0) now.tv_sec += 1;
  *time = now;
  return 0;
}

// Likewise: there is nothing to wait for.
int epoll_wait(int, struct epoll_event *, int, int) { return 0; }

int32_t __real_vx_mom_set(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t);
int32_t __real_vx_mom_del(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t);

int32_t __wrap_vx_mom_set(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t) {
  note_write(db_id, *message, false);
  return __real_vx_mom_set(store, db_id, message, 0, 0);
}

int32_t __wrap_vx_mom_del(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t) {
  note_write(db_id, *message, true);
  return __real_vx_mom_del(store, db_id, message, 0, 0);
}

const char *__asan_default_options() {
  return "malloc_context_size=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=64";
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static harness::world &the_world = *new harness::world;
  if (the_world.runs == 0 && the_world.start() != 0) std::abort();
  fuzz::bytes input(data, size);
  attempt(input, the_world).run();
  return 0;
}

}  // extern "C"
