// Seeded random sequences of events; random_events.h says what they are and what is checked.
//
// RANDOM_EVENTS (250000) and RANDOM_SEED (1) in the environment choose another run; a failure names both and the event.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "random_events.h"

namespace {

uint64_t from_environment(const char *name, uint64_t otherwise) {
  const char *text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

struct seeded final : driver::choices {
  uint32_t below(uint32_t bound) override { return static_cast<uint32_t>(engine() % bound); }

  std::mt19937_64 engine{from_environment("RANDOM_SEED", 1)};
};

TEST(random, events_and_failures) {
  const uint64_t events = from_environment("RANDOM_EVENTS", 250000);
  seeded seed;
  driver::random_events random(seed);
  for (uint64_t i = 1; i <= events; ++i)
    ASSERT_EQ("", random.step()) << "event " << i << " of seed " << from_environment("RANDOM_SEED", 1);
  std::cout << events << " events, something failed in " << random.failed() << "; " << random.ended()
            << " sessions ended\n";
  if (events < 50000) return;
  EXPECT_TRUE(random.failed() > events / 20 && random.failed() < events / 2 && random.ended() > events / 50)
      << "no mixture";
}

}  // namespace
