// Where the store is when sentinels know it.
#pragma once

#include <chrono>

#include "platform_config.h"

namespace lspanctl {

// `settings`, which name sentinels, with the host and port of the master. One sentinel after the other is asked; all of
// them together get `patience`. Throws store_error when none tells.
ko_platform::store_address find_master(ko_platform::store_address settings, std::chrono::milliseconds patience);

}  // namespace lspanctl
