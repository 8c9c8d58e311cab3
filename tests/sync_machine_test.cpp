// The states between the store and the copies of it, without a store and without a clock: what happens, and what the
// machine answers to it.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <sstream>

#include "store/sync_machine.h"

namespace {

using ko_store::sync_machine;
using action = sync_machine::action;

const char *name_of(action what) {
  static constexpr const char *names[] = {"none", "read", "deliver", "compare", "repair", "wait"};
  return names[static_cast<size_t>(what)];
}

// Plays the events of a line; returns what is to be done after each that asks for it, and the state at the end.
std::string play(sync_machine &machine, const std::string &events) {
  const auto quiet = [&](auto event) {
    return [&machine, event] {
      (machine.*event)();
      return action::none;
    };
  };
  const std::map<std::string, std::function<action()>> all{
      {"up", [&] { return machine.engine_up(); }},
      {"down", quiet(&sync_machine::engine_down)},
      {"pause", quiet(&sync_machine::paused)},
      {"resume", [&] { return machine.resumed(); }},
      {"scan", quiet(&sync_machine::scan_begun)},
      {"asked", [&] { return machine.scans_begun(); }},
      {"end", [&] { return machine.scan_ended(); }},
      {"fail", quiet(&sync_machine::read_failed)},
      {"doubt", quiet(&sync_machine::inputs_in_doubt)},
      {"delivered", [&] { return machine.delivered(); }},
      {"repaired", [&] { return machine.repaired(true); }},
      {"refused", [&] { return machine.repaired(false); }},
      {"want", [&] { return machine.repair_wanted(); }},
      {"timer", [&] { return machine.timer_fired(); }},
  };
  std::string out;
  std::istringstream words(events);
  for (std::string word; words >> word;) {
    const action next = all.at(word)();
    if (next != action::none)
      out.append(name_of(next)).append(next == action::wait ? std::to_string(machine.pause_ms()) : "").append(" ");
  }
  return out + to_string(machine.now());
}

const std::string to_live = "down up scan asked end delivered asked repaired ";

TEST(sync_machine, answers_with_what_is_to_be_done) {
  const std::pair<std::string, std::string> scripts[] = {
      {"down up scan scan asked end", "read reading"},
      {"down up scan scan asked end end", "read deliver delivering"},
      {"down up asked delivered scan asked end repaired", "read deliver compare repair live"},
      {"up scan down up asked", "read read deliver delivering"},  // the scan went with the connection
      // A read that failed is begun again by the timer, when no scan is under way any more.
      {"down up scan asked fail want timer end timer", "read wait500 wait1000 read reading"},
      {"down up scan asked fail end", "read wait500 reading"},
      {"down up scan asked end fail want timer", "read deliver wait500 read reading"},
      // A repair compares the outputs, and reads the inputs only when they are in doubt. The pauses grow meanwhile.
      {to_live + "want want timer", "read deliver compare repair wait500 compare comparing"},
      {to_live + "doubt want timer", "read deliver compare repair wait500 read reading"},
      {to_live + "want timer asked refused timer asked refused",
       "read deliver compare repair wait500 compare repair wait1000 compare repair wait2000 live"},
      {to_live + "want timer asked repaired want", "read deliver compare repair wait500 compare repair wait500 live"},
      {to_live + "want down timer up", "read deliver compare repair wait500 read reading"},
      // Paused, nothing is read before it is resumed and the store is there.
      {to_live + "pause down up resume", "read deliver compare repair read reading"},
      {to_live + "pause down resume", "read deliver compare repair starting"},
      {"down up scan asked pause end resume", "read read reading"},
  };
  for (const auto &[events, expected] : scripts) {
    sync_machine machine;
    EXPECT_EQ(play(machine, events), expected) << events;
  }
}

TEST(sync_machine, says_what_may_go_out_and_come_in) {
  sync_machine machine;
  const auto after = [&](const char *events) {
    play(machine, events);
    return std::array{machine.takes_changes(), machine.sends(true), machine.sends(false), machine.expects_pages()};
  };
  using all = std::array<bool, 4>;
  EXPECT_EQ(after("down"), (all{false, false, false, false}));
  EXPECT_EQ(after("up scan asked"), (all{true, false, false, true}));
  EXPECT_EQ(after("fail"), (all{false, false, false, true}));
  EXPECT_EQ(after("end timer scan asked end"), (all{true, false, false, false}));
  EXPECT_EQ(after("delivered"), (all{true, true, false, false}));
  EXPECT_EQ(after("asked"), (all{true, true, false, false}));
  EXPECT_EQ(after("repaired"), (all{true, true, true, false}));
}

}  // namespace
