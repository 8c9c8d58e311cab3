// Counts of the work of a registration.
#pragma once

#include <cstdint>

namespace ko_store {

struct counters {
  uint64_t events = 0;            // handed to handlers
  uint64_t handler_failures = 0;  // of these, answered with a status other than 0
  uint64_t rejected = 0;          // records and announcements that cannot be used
  uint64_t writes = 0;            // handed to the engine
  uint64_t deletes = 0;           // of these
  uint64_t published = 0;         // of the writes, those that are not stored
  uint64_t refused = 0;           // of the writes, refused by the engine
  uint64_t reads = 0;             // times that the inputs were read
};

}  // namespace ko_store
