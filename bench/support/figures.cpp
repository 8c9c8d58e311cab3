#include "figures.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <string>

namespace bench {

bool pin_to_one_core() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<size_t>(sysconf(_SC_NPROCESSORS_CONF) - 1), &cores);
  return sched_setaffinity(0, sizeof(cores), &cores) == 0;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<size_t>(std::ceil(part * static_cast<double>(values.size())));
  return values[std::max<size_t>(rank, 1) - 1];
}

double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double processor_seconds(int process) {
  double nanoseconds = 0;
  std::ifstream("/proc/" + std::to_string(process) + "/schedstat") >> nanoseconds;
  return nanoseconds * 1e-9;
}

}  // namespace bench
