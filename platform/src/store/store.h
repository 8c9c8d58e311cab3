// Which engine the store runs on. The daemon never calls this; tools, tests and benchmarks may, before vx_mom_ab_init.
#pragma once

#include <functional>
#include <memory>

#include "store/engine.h"
#include "vx_global.h"

namespace ko_store {

using engine_factory = std::function<std::unique_ptr<engine>(vx_global &)>;

// Every vx_mom_ab_init from now on asks `factory` for its engine; an empty one gives back the usual, Redis.
void use_engine(engine_factory factory);

}  // namespace ko_store
