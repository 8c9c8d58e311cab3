// The input is a sequence of events and failures for the daemon's handlers, on the recording platform.
#include "bytes.h"
#include "random_events.h"

extern "C" const char *__asan_default_options() {
  return "malloc_context_size=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=64";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::bytes input(data, size);
  driver::random_events events(input);
  while (!input.empty()) fuzz::must_hold(events.step());
  return 0;
}
