// Requests: through the store, other processes ask a program on this platform for its state, or to do something.
//
// A request is published on the channel "<program>.request", a JSON object:
//   {"request": "status", "reply": "ko_reply.1234"}
// The answer, a JSON object too, is published on the channel "reply", whose name begins with "ko_reply.". It follows
// everything that the program writes because of changes announced before the request.
//
// The platform answers "status" and "resync" by itself; see docs/operating.md.
#pragma once

#include <functional>
#include <string>

#include "vx_global.h"

namespace ko_platform {

// Returns the answer, the text of a JSON object. An exception is answered as {"error": ...}.
using request_handler = std::function<std::string()>;

// Answers requests called `name` with what `handler` gives, from inside the event loop, as long as the context
// lives; replaces an earlier handler of that name.
void register_request(vx_global &context, const std::string &name, request_handler handler);

// Calls `finish` before each request is answered: for a program that carries out later what it was told by the store.
void before_requests(vx_global &context, std::function<void()> finish);

}  // namespace ko_platform
