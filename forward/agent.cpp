#include "agent.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>

#include "forward_log.h"
#include "ko_platform/requests.h"
#include "p_policy.pb-c.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

namespace ko_forward {
namespace {

constexpr int longest_pause_s = 30;
constexpr auto longest_rest = std::chrono::milliseconds(100);

// What is read. Targets come before members, so that the first copies meet quiet ports.
struct input {
  uint32_t db;
  const ProtobufCMessageDescriptor *type;
  bool is_stored;
};
constexpr input inputs[] = {
    {conf_db, &p_policy__data_intf_conf__descriptor, true},
    {fwd_db, &u_bridge__udp_pt_learn__descriptor, true},
    {udp_db, &u_monitor__span_mtp_info__descriptor, true},
    {udp_db, &u_monitor__span_port_src_info__descriptor, true},
    {udp_db, &u_monitor__span_acl_src_info__descriptor, true},
    {udp_db, &u_monitor__span_vlan_src_info__descriptor, true},
    {udp_db, &u_monitor__span_dst_info__descriptor, true},
    {fwd_db, &u_bridge__udp_flushdyn__descriptor, false},
};
constexpr size_t n_inputs = std::size(inputs);

// Room for a template of any of them.
union any_record {
  ProtobufCMessage message;
  UMonitor__SpanAclSrcInfo acl_source;
  UMonitor__SpanVlanSrcInfo vlan_source;
  UMonitor__SpanPortSrcInfo port_source;
  UMonitor__SpanDstInfo destination;
  UMonitor__SpanMtpInfo target;
  UBridge__UdpPtLearn learning;
  UBridge__UdpFlushdyn flush;
  PPolicy__DataIntfConf membership;
};

}  // namespace

agent::agent(vx_global &global, const ko_platform::config &settings)
    : global_(global), reconciler_(settings), since_(std::time(nullptr)) {
  event_base *base = ko_platform::context_of(&global).base.get();
  due_.reset(event_new(
      base, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<agent *>(self)->reconcile(); }, this));
  retry_.reset(event_new(
      base, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<agent *>(self)->reconcile(); }, this));
  news_.reset(event_new(
      base, reconciler_.with().descriptor(), EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void *self) {
        auto &me = *static_cast<agent *>(self);
        if (me.reconciler_.with().take_news()) me.reconcile_soon();
      },
      this));
  if (due_ == nullptr || retry_ == nullptr || news_ == nullptr) throw std::bad_alloc();
}

bool agent::start() {
  const vx_mom_ab_opt options = {};
  store_ = vx_mom_ab_init(&global_, app_name, &options);
  if (store_ == nullptr || !declare()) {
    FORWARD_ERROR("the store cannot be set up");
    return false;
  }
  if (!reconciler_.with().may_change())
    FORWARD_ERROR("this program lacks CAP_NET_ADMIN: it makes no copies, and answers with EPERM");
  ko_platform::register_request(global_, "counters", [this] { return counters_json(); });
  ko_platform::before_requests(global_, [this] {
    if (is_due_) reconcile();
  });
  return event_add(news_.get(), nullptr) == 0;
}

bool agent::declare() {
  any_record templates[n_inputs];
  mom_ds_entry entries[n_inputs] = {};
  for (size_t i = 0; i < n_inputs; ++i) {
    protobuf_c_message_init(inputs[i].type, &templates[i]);
    entries[i].record = &templates[i].message;
    entries[i].db_id = inputs[i].db;
    entries[i].enabled = 1;
  }
  if (!declare_results(store_, entries)) return false;
  const auto take = [](void *self, uint32_t is_del, const void *message) {
    return static_cast<agent *>(self)->take_event(is_del, *static_cast<const ProtobufCMessage *>(message));
  };
  const auto take_flush = [](void *self, uint32_t, const void *message) {
    return static_cast<agent *>(self)->take_flush(*static_cast<const ProtobufCMessage *>(message));
  };
  for (size_t i = 0; i < n_inputs; ++i) {
    bool accepted = true;
    if (inputs[i].is_stored)
      for (const uint32_t kind : {VX_MOM_EVENT_SET, VX_MOM_EVENT_DEL})
        accepted = accepted && vx_mom_reg_key_event(store_, &entries[i], kind, take, this) == 0;
    else
      accepted = vx_mom_reg_key_event(store_, &entries[i], VX_MOM_EVENT_PUBLISH, take_flush, this) == 0;
    if (!accepted) return false;
  }
  const auto all_read = [](void *self) { return static_cast<agent *>(self)->begin(); };
  return vx_mom_reg_all_ds_event(store_, 0, all_read, this) == 0;
}

// ---- events ----

int32_t agent::take_event(uint32_t is_del, const ProtobufCMessage &message) {
  const auto member = take_record(message, is_del != 0, records_);
  if (member.has_value()) replaced_.insert(*member);
  reconcile_soon();
  return 0;
}

int32_t agent::take_flush(const ProtobufCMessage &message) {
  flushes_.insert(reinterpret_cast<const UBridge__UdpFlushdyn &>(message).ifx);
  reconcile_soon();
  return 0;
}

// Everything was read. The answers are written at once: what is not, is taken for left over.
int32_t agent::begin() {
  all_read_ = true;
  reconcile();
  if (told_failure_.empty()) FORWARD_INFO("the records were read, and the kernel is as they say");
  return 0;
}

void agent::reconcile_soon() {
  if (!all_read_ || is_due_) return;
  is_due_ = true;
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(rests_until_ - clock::now()).count();
  const timeval pause = {0, std::max<suseconds_t>(left, 0)};
  if (left <= 0)
    event_active(due_.get(), EV_TIMEOUT, 0);
  else
    evtimer_add(due_.get(), &pause);
}

// What takes long is not done more than half of the time: of many changes, the more are taken at once.
void agent::reconcile() try {
  const bool is_retry = !std::exchange(is_due_, false);
  const auto began = clock::now();
  answer(reconciler_.run(records_, std::exchange(flushes_, {})));
  rests_until_ = clock::now() + std::min<clock::duration>(clock::now() - began, longest_rest);
  const std::string &failure = reconciler_.failure();
  if (!failure.empty()) {
    try_later();
    if (is_retry || failure != told_failure_)
      FORWARD_ERROR("the kernel is not as the records say: %s; tried again in %d s", failure.c_str(), pause_s_);
  } else {
    pause_s_ = 0;
    evtimer_del(retry_.get());
    if (!told_failure_.empty()) FORWARD_WARN("the kernel is as the records say again");
  }
  told_failure_ = failure;
} catch (const std::system_error &error) {
  told_failure_ = error.what();
  FORWARD_ERROR("%s; tried again", error.what());
  reconciler_.with().doubt_all();
  try_later();
}

void agent::try_later() {
  pause_s_ = std::clamp(2 * pause_s_, 1, longest_pause_s);
  const timeval pause = {pause_s_, 0};
  evtimer_add(retry_.get(), &pause);
}

// ---- answers ----

void agent::answer(const std::vector<wanted_member> &members) {
  std::map<result_key, uint32_t> answers;
  std::set<result_key> again;
  std::map<member_key, std::string> told;
  for (const wanted_member &member : members) {
    for (const result_key &key : member.results) {
      uint32_t &code = answers[key];
      if (code == 0) code = static_cast<uint32_t>(member.answer.code);
      if (replaced_.contains(member.key)) again.insert(key);
    }
    tell(member);
    told.emplace(member.key, member.answer.reason);
  }
  told_ = std::move(told);
  replaced_.clear();
  results_.write(&global_, answers, again);
}

void agent::tell(const wanted_member &member) {
  const auto known = told_.find(member.key);
  const bool is_news = known == told_.end() || known->second != member.answer.reason;
  if (!is_news && member.warnings.empty()) return;
  const std::string name = name_of(member, reconciler_.ports());
  if (is_news && member.answer.code == 0)
    FORWARD_INFO("%s: in effect", name.c_str());
  else if (is_news)
    FORWARD_WARN("%s: answered with %s: %s", name.c_str(), strerrorname_np(member.answer.code),
                 member.answer.reason.c_str());
  for (const std::string &warning : member.warnings)
    if (warned_.insert(name + warning).second) FORWARD_WARN("%s: %s", name.c_str(), warning.c_str());
}

std::string agent::counters_json() {
  nlohmann::json members = nlohmann::json::array();
  for (const auto &[key, copied] : reconciler_.count())
    members.push_back({{"session", key.session},
                       {"s_phyid", key.s_phyid},
                       {"d_phyid", key.d_phyid},
                       {"dir", key.dir},
                       {"acl_id", key.acl_id},
                       {"packets", copied.packets},
                       {"bytes", copied.bytes},
                       {"lost", copied.lost}});
  return nlohmann::json{{"members", members}, {"since", since_}}.dump();
}

}  // namespace ko_forward
