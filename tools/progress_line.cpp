#include "progress_line.h"

#include <ostream>

namespace lspanctl {
namespace {

constexpr auto interval = std::chrono::milliseconds(200);  // between two redraws, and before the first

}  // namespace

progress_line::progress_line(std::ostream *out, std::string what, size_t total)
    : out_(out), what_(std::move(what)), total_(total), next_(std::chrono::steady_clock::now() + interval) {}

progress_line::~progress_line() {
  if (shown_) *out_ << "\r\033[K" << std::flush;
}

void progress_line::show(size_t done) {
  if (out_ == nullptr || std::chrono::steady_clock::now() < next_) return;
  next_ = std::chrono::steady_clock::now() + interval;
  shown_ = true;
  *out_ << '\r' << what_ << ' ' << done << " of " << total_ << std::flush;
}

}  // namespace lspanctl
