// Who is active, as one process sees it, without a store and without a clock: what happens when, and what the machine
// answers to it. The lease is of 1000 ms: it is used for 900, renewed after 333, and another's is looked at every 100.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "store/lease_machine.h"

namespace {

using ko_store::lease_machine;
using action = lease_machine::action;
using process = lease_machine::process;
using moment = lease_machine::moment;

// Plays the events of a line, each with its time, "up@0"; returns what is to be done after each that asks for it, when
// the timer is due, and whether the process may write from 1 ms before that until then.
std::string play(const std::string &events) {
  static constexpr const char *names[] = {"none", "look",      "take",  "renew",     "give_back",
                                          "wake", "wake_peer", "sleep", "reconnect", "end"};
  static const std::map<std::string, std::pair<process, process>> sights{
      {"nobody", {process::nobody, process::nobody}},  {"gone", {process::nobody, process::another}},
      {"left", {process::nobody, process::itself}},    {"own", {process::itself, process::itself}},
      {"other", {process::another, process::another}},
  };
  lease_machine machine(moment(1000));
  std::string out;
  std::istringstream words(events);
  for (std::string word; words >> word;) {
    const std::string event = word.substr(0, word.find('@'));
    const moment now(std::stoi(word.substr(word.find('@') + 1)));
    action next = action::none;
    if (sights.contains(event))
      next = machine.seen(sights.at(event).first, sights.at(event).second, now);
    else if (event == "up")
      next = machine.connected(now);
    else if (event == "lost")
      machine.lost();
    else if (event == "timer")
      next = machine.timer(now);
    else if (event == "leave")
      next = machine.leave(now);
    else
      next = machine.changed(event == "yes", now);
    if (next != action::none) out.append(names[static_cast<size_t>(next)]).append(" ");
  }
  const moment due = machine.due();
  if (due == moment::max()) return out + "-";
  const auto writes = [&](moment at) { return machine.may_write(at) ? "w" : "."; };
  return out + std::to_string(due.count()) + writes(due - moment(1)) + writes(due);
}

const std::string active = "up@0 nobody@10 yes@20 ";  // which does look, take, wake

TEST(lease_machine, answers_with_what_is_to_be_done) {
  const std::pair<std::string, std::string> scripts[] = {
      {"up@0", "look 1000.."},
      {"up@0 other@10", "look 110.."},
      {"up@0 other@10 timer@109", "look 110.."},
      {"up@0 other@10 timer@110 gone@115 yes@120", "look look take wake_peer 448ww"},
      {"up@0 nobody@10 no@20", "look take 120.."},
      {"up@0 left@10 yes@20", "look take wake 343ww"},
      {"up@0 own@10 yes@20", "look renew wake 343ww"},                    // it was the holder before it executed itself
      {"up@0 nobody@10 yes@910 own@920", "look take look renew 1920.."},  // an answer that comes too late is none
      {"up@0 timer@999", "look 1000.."},
      {"up@0 timer@1000 lost@1000", "look reconnect -"},
      {"up@0 nobody@5 lost@7 up@300 own@310 yes@320", "look take look renew wake 643ww"},

      {active, "look take wake 343ww"},
      {active + "timer@343", "look take wake look 910w."},
      {active + "timer@343 own@350 yes@360", "look take wake look renew 683ww"},
      {active + "timer@343 own@350 yes@360 lost@400", "look take wake look renew 1250w."},
      {active + "timer@343 own@350 yes@910", "look take wake look renew sleep -"},
      {active + "timer@343 own@350 no@360", "look take wake look renew sleep -"},
      {active + "timer@343 own@910", "look take wake look sleep -"},
      {active + "timer@343 nobody@350", "look take wake look sleep -"},  // somebody has taken it away
      {active + "timer@343 other@350", "look take wake look sleep -"},
      {active + "timer@343 timer@909", "look take wake look 910w."},
      {active + "timer@343 timer@910", "look take wake look sleep -"},
      {active + "timer@5000 up@5001 own@5002 yes@5003", "look take wake sleep -"},  // it was stopped for long
      {active + "lost@100 timer@343", "look take wake 910w."},
      {active + "lost@100 up@800 own@810 yes@820", "look take wake look renew 1143ww"},
      {active + "lost@100 timer@910", "look take wake sleep -"},

      {"leave@5", "end -"},
      {"up@0 other@10 leave@15", "look end -"},
      {"up@0 nobody@10 leave@15 yes@20 own@30 yes@40", "look take look give_back end -"},
      {"up@0 nobody@10 leave@15 no@20 other@30", "look take look end -"},
      {active + "leave@100 own@110", "look take wake look give_back 1100.."},
      {active + "leave@100 own@110 yes@120", "look take wake look give_back end -"},
      {active + "leave@100 other@110", "look take wake look end -"},
      {active + "timer@343 leave@350 own@355", "look take wake look give_back 1350.."},
      {active + "timer@343 own@350 leave@352 yes@355 own@360 no@370", "look take wake look renew look give_back end -"},
      {active + "leave@100 lost@110 up@300 own@310 yes@320", "look take wake look look give_back end -"},
      {active + "leave@100 timer@1099", "look take wake look 1100.."},
      {active + "leave@100 timer@1100", "look take wake look end -"},
  };
  for (const auto &[events, expected] : scripts) EXPECT_EQ(play(events), expected) << events;
}

}  // namespace
