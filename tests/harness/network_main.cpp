// The main of tests that need a network namespace. Status 77: this machine lets nobody make one, no test has run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "network.h"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string missing = harness::enter_network();
  if (missing.empty()) return RUN_ALL_TESTS();
  std::cout << "Skipped, not a single test ran: this machine lacks " << missing << "\n";
  return std::getenv("KO_SKIP_NOTHING") == nullptr ? 77 : 1;
}
