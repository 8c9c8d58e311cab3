#include "random_events.h"

#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"

namespace driver {
namespace {

constexpr uint32_t sessions = 3, interfaces = 6, groups = 4;

// What the daemon keeps of a member, null where that is not there. The physical ids are those of now.
struct kept {
  mirror_info *session;
  src_info *source = nullptr;
  dst_info *pair = nullptr;
  mtp_info *target = nullptr;

  kept(const member &of, uint32_t s_phyid, uint32_t d_phyid)
      : session(mirror_list_search_session_info(&lspan_global.session_list, of.session)) {
    if (session == nullptr) return;
    source = mirror_list_search_src_info(&session->src_list, of.dir, s_phyid, of.acl);
    pair = mirror_list_search_dst_info(&session->dst_list, of.dir, s_phyid, d_phyid, of.acl);
    target = mirror_list_search_mtp_info(&session->mtp_list, of.session);
  }
};

}  // namespace

void random_events::restart() {
  reset();
  recording::trace_on(false);
  members_.clear();
  phyids_ = {0};
  for (uint32_t ifx = 1; ifx <= interfaces; ++ifx) phyids_.push_back(ifx + 1000);
}

std::string random_events::step() {
  if (one_in(1000)) restart();
  if (one_in(500)) {
    lspan_zlog_level = below(6);
    lspan_global.zlog_category = one_in(4) ? nullptr : recording::category("ko_lspan");
  }
  if (one_in(40)) draining_ = !one_in(3);  // sessions have to come to their end, too
  if (one_in(1500)) {
    const uint32_t ifx = 1 + below(interfaces);
    const uint32_t strange[] = {ifx + 1000, 1 + below(interfaces), group_target(1 + below(groups))};
    phyids_[ifx] = strange[below(3)];
    recording::translate(ifx, phyids_[ifx]);
  }
  arm_failures();
  const uint64_t failures = recording::failure_count();
  const std::string wrong = event();
  const bool failed = recording::failure_count() != failures;
  failed_ += failed;
  disarm_failures();
  const std::string why = broken();
  return why.empty() && !failed ? wrong : why;
}

void random_events::arm_failures() {
  if (one_in(3)) recording::fail("", 1 + below(18), one_in(2) ? -5 : 9);
  if (one_in(4)) recording::alloc_fail_at(1 + below(4), one_in(2));
  if (one_in(40)) recording::translation_fails(1 + below(interfaces), -3);
}

void random_events::disarm_failures() {
  recording::fail_none();
  if (one_in(4))
    for (uint32_t ifx = 1; ifx <= interfaces; ++ifx) recording::translation_fails(ifx, 0);
}

const char *random_events::event() {
  const uint32_t kind = below(10);
  if (kind < 6) return one_in(draining_ ? 6 : 2) ? set_event(any_member()) : del_event(known_member());
  int32_t status = 0;
  if (kind < 9) {
    const uint32_t ifx = 1 + below(interfaces);
    status = group_event(ifx, below(groups + 1), kind == 8);
  } else {
    const member of = any_member();
    const char *const user = one_in(8) ? ko_lspan_app_name : ko_span_peer_name;
    const uint32_t result = below(3);
    status = result_event(of, user, result, below(3));
  }
  return status == 0 ? "" : "status of a membership or a result";
}

member random_events::any_member() {
  member what;
  what.session = 1 + below(sessions);
  what.s_ifx = below(3);
  what.dir = one_in(8);
  what.acl = one_in(8);
  what.role = below(6);
  what.apply = below(4);
  what.mtp_switch = below(2);
  what.vlans.assign(one_in(100) ? 129 : below(4), 7);
  what.module = one_in(2) ? 5 : below(5);
  what.d_ifx = what.module == 5 ? group_target(1 + below(groups)) : below(interfaces + 1);
  return what;
}

// Mostly a member that was set before, so that a delete finds something; kind and target may be others by now.
member random_events::known_member() {
  if (one_in(8) || members_.empty()) return any_member();
  std::swap(members_[below(static_cast<uint32_t>(members_.size()))], members_.back());
  member what = members_.back();
  members_.pop_back();
  if (one_in(8)) what.apply = below(4);
  if (one_in(60)) {
    what.module = what.module == 5 ? 0 : 5;
    what.d_ifx = what.module == 5 ? group_target(1 + below(groups)) : below(interfaces + 1);
  }
  return what;
}

const char *random_events::set_event(const member &what) {
  const int32_t status = member_event(what, false);
  if (status == 0) members_.push_back(what);
  if (status != (what.vlans.size() > MIRROR_VLAN_WORDS ? -4 : 0)) return "status of a set";
  if (status != 0) return "";
  const uint32_t d_phyid = what.module == 5 ? what.d_ifx : phyids_[what.d_ifx];
  const kept of(what, phyids_[what.s_ifx], d_phyid);
  if (of.source == nullptr || of.pair == nullptr || of.target == nullptr) return "an entry is missing after a set";
  if (of.target->d_phyid != d_phyid || of.target->module_type != what.module ||
      of.target->mtp_switch != what.mtp_switch)
    return "another mirror target after a set";
  const uint32_t group_id = group_target(what.d_ifx);
  const outgrb_group_info *group = what.module == 5 ? outgrb_group_hash_get(&group_id) : nullptr;
  return group == nullptr || group->mtp_info == of.target ? "" : "the group names another target after a set";
}

const char *random_events::del_event(const member &what) {
  const uint32_t s_phyid = phyids_[what.s_ifx], d_phyid = what.module == 5 ? what.d_ifx : phyids_[what.d_ifx];
  const bool known = kept(what, s_phyid, d_phyid).session != nullptr;
  const int32_t status = member_event(what, true);
  const kept of(what, s_phyid, d_phyid);
  if (status != 0 && known) members_.push_back(what);
  ended_ += known && of.session == nullptr;
  if (status != (known ? 0 : -2)) return "status of a delete";
  return of.source == nullptr && of.pair == nullptr ? "" : "source or pair still in the list after a delete";
}

}  // namespace driver
