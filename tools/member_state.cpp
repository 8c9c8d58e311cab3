#include "member_state.h"

#include <set>

#include "libddm.h"
#include "proc/lspan/ko_lspan.h"
#include "result_text.h"
#include "values.h"

namespace lspanctl {
namespace {

// Why the daemon's code did not write the member's records; empty when it did.
std::string refusal(const member_outcome &outcome, const interfaces &ports) {
  uint32_t phyid = 0;
  const auto untranslated = [&phyid](uint32_t ifx) { return ifx != 0 && libddm_get_phyid_by_ifx(ifx, &phyid) != 0; };
  const member_key &key = outcome.what.key;
  if (untranslated(key.s_ifx)) return "no translation for interface " + ports.text(key.s_ifx);
  if (!outcome.what.targets_group() && untranslated(key.d_ifx))
    return "no translation for interface " + ports.text(key.d_ifx);
  return outcome.status == 0 ? "" : "the daemon refuses it with status " + std::to_string(outcome.status);
}

// "span_dst_info missing, udp_pt_learn left over"; empty when all are right.
std::string wrong_records(const wanted_state &all, const member_outcome &outcome) {
  std::set<std::string> findings;
  std::string text;
  bool none_there = true;
  for (const record_place &place : outcome.touched) {
    const finding what = compare(all, place);
    none_there = none_there && !all.stored.contains(place);
    if (what == finding::right) continue;
    const std::string one = std::string(short_name(*place.hash.type)) + " " + to_text(what);
    if (findings.insert(one).second) text += (text.empty() ? "" : ", ") + one;
  }
  if (!none_there || text.empty()) return text;
  return all.daemon_listens ? "all derived records missing" : "no daemon answers";
}

// An answer to a group stands under the group's bare id; one under the id that a session has is found by nobody.
std::string no_answer(const wanted_state &all, const member &what) {
  if (!what.targets_group()) return "no answer";
  member tagged = what;
  tagged.module_type = U_MONITOR__MIRROR_MODULE__USER;
  const record_place misplaced{results, result_removal(results, tagged, forwarding_owner).key};
  if (!all.stored.contains(misplaced)) return "no answer";
  return "no answer; there is one to " + std::to_string(what.key.d_ifx) + ", but answers to a group bear its number, " +
         std::to_string(result_target(what.key.d_ifx));
}

}  // namespace

member_state state_of(const wanted_state &all, const member_outcome &outcome, const interfaces &ports) {
  if (const std::string why = refusal(outcome, ports); !why.empty()) return {"configured", why, {}};
  if (const std::string wrong = wrong_records(all, outcome); !wrong.empty()) return {"configured", wrong, {}};

  const auto with_group = [&outcome](const std::string &why) {
    if (!outcome.group_is_empty) return why;
    return why.empty() ? "target group empty" : why + ", target group empty";
  };
  const record_place relayed{relayed_results, result_removal(relayed_results, outcome.what, ko_lspan_app_name).key};
  const auto answer = all.stored.find(relayed);
  const bool answer_wanted = all.wanted.contains(relayed);
  if (answer == all.stored.end())
    return {"written", with_group(answer_wanted ? "answer not relayed" : no_answer(all, outcome.what)), {}};
  if (!answer_wanted) return {"written", with_group("no answer, but one left over"), {}};
  const ko_store::message_ptr message = ko_store::unpack(*relayed_results.type, answer->second);
  const uint32_t code = reinterpret_cast<const UMonitor__MirrorResultInfo *>(message.get())->result;
  if (code == 0) return {"accepted", with_group(""), code};
  return {"refused", with_group(result_text(code, outcome.what, ports)), code};
}

std::string to_text(const member_state &state) {
  if (state.reason.empty()) return state.state;
  return state.state + ": " + state.reason;
}

}  // namespace lspanctl
