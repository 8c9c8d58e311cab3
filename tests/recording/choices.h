// Where the choices of generated events come from: a seeded engine, or a fuzzer's bytes.
#pragma once

#include <cstdint>

namespace driver {

class choices {
 public:
  virtual ~choices() = default;
  virtual uint32_t below(uint32_t bound) = 0;                        // 0 to bound - 1
  virtual bool one_in(uint32_t count) { return below(count) == 0; }  // whether something rare happens
};

}  // namespace driver
