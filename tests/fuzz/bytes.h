// A fuzzer's input as choices: from the front a byte each; from the back, for what happens rarely, how many times more
// it does not. So inputs stay short, and a change in one place changes little elsewhere.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "choices.h"

namespace fuzz {

class bytes final : public driver::choices {
 public:
  bytes(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

  bool empty() const { return rest_.empty(); }

  // When no byte is left: 0, and nothing rare.
  uint32_t below(uint32_t bound) override { return next() % bound; }
  bool one_in(uint32_t count) override {
    if (count <= 2) return below(count) == 0;
    if (rare_in_ == 0) {
      if (rest_.empty()) return false;
      rare_in_ = 1 + static_cast<uint8_t>(rest_.back()) % 64;
      rest_.remove_suffix(1);
    }
    return --rare_in_ == 0;
  }

  uint8_t next() {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
  }
  // The next bytes as they are, `length` of them or what there is.
  std::string_view text(size_t length) {
    const std::string_view out = rest_.substr(0, length);
    rest_.remove_prefix(out.size());
    return out;
  }

 private:
  std::string_view rest_;
  uint32_t rare_in_ = 0;  // the rare_in_-th next question is answered with true; 0: not known yet
};

// End the program, which is what the fuzzer takes for a finding.
inline void must_hold(const std::string &wrong) {
  if (wrong.empty()) return;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::abort();
}

inline void must_hold(bool holds, const char *otherwise) {
  if (!holds) must_hold(otherwise);
}

}  // namespace fuzz
