// Figures, and the conditions under which they are taken.
#pragma once

#include <vector>

namespace bench {

// Ties this process, and the ones that it starts, to the machine's last core. False when the system refuses.
bool pin_to_one_core();

double median(std::vector<double> values);                 // of at least one
double quantile(std::vector<double> values, double part);  // nearest rank, 0 < part <= 1

double seconds_now();                   // since some moment
double processor_seconds(int process);  // used by its first thread

}  // namespace bench
