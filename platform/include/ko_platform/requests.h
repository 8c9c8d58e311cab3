// Requests: other processes ask a program on this platform, through the store, for its state or to do something.
//
// A request is published on the channel "<program>.request", a JSON object:
//   {"request": "status", "reply": "ko_reply.1234"}
// The answer, a JSON object too, is published on the channel "reply", whose name begins with "ko_reply.". It goes out
// behind everything that the program writes on account of what was announced before the request.
//
// The platform answers "status" and "resync" by itself; see docs/operating.md.
#pragma once

#include <functional>
#include <string>

#include "vx_global.h"

namespace ko_platform {

// Gives the answer: the text of a JSON object. What it throws is the answer then, as {"error": ...}.
using request_handler = std::function<std::string()>;

// Answers requests called `name` with what `handler` gives, from inside the event loop, for as long as the context
// lives; replaces what answered them before.
void register_request(vx_global &context, const std::string &name, request_handler handler);

}  // namespace ko_platform
