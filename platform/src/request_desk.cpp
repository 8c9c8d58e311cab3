#include "request_desk.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "global_context.h"
#include "ko_platform/requests.h"
#include "platform_log.h"

namespace ko_platform {
namespace {

using nlohmann::json;

constexpr std::string_view reply_prefix = "ko_reply.";  // a requester must not have other channels written to
constexpr size_t longest_request = 4096;                // bytes
constexpr size_t longest_reply = 256;

// The text member `name`; empty when there is none.
std::string text_of(const json &object, const char *name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// A word of visible characters, so that it can be handed on anywhere.
bool is_reply_channel(const std::string &name) {
  const auto visible = [](unsigned char c) { return c > ' ' && c < 0x7f; };
  return name.starts_with(reply_prefix) && name.size() <= longest_reply &&
         std::all_of(name.begin(), name.end(), visible);
}

}  // namespace

void request_desk::take(std::string_view payload) {
  const json request = payload.size() <= longest_request ? json::parse(payload, nullptr, false) : json();
  const std::string reply = request.is_object() ? text_of(request, "reply") : std::string();
  if (!is_reply_channel(reply)) {
    if (malformed_++ == 0) PLATFORM_WARN("a request cannot be answered; further ones are only counted");
    return;
  }
  const std::string name = text_of(request, "request");
  if (stands_by && name != "status")
    return answer(reply, R"({"active":false,"error":"this process stands by for the active one"})");
  const auto known = handlers_.find(name);
  if (known == handlers_.end()) return refuse(reply, "unknown request \"" + name + "\"");
  if (before) before();
  known->second(reply);
}

void request_desk::answer(const std::string &reply, const std::string &json_text) const {
  if (publish) publish(reply, json_text);
}

void request_desk::refuse(const std::string &reply, const std::string &why) const {
  answer(reply, json{{"error", why}}.dump(-1, ' ', false, json::error_handler_t::replace));
}

void register_request(vx_global &context, const std::string &name, request_handler handler) {
  request_desk &desk = context_of(&context).requests;
  desk.add(name, [&desk, handler = std::move(handler)](const std::string &reply) {
    try {
      desk.answer(reply, handler());
    } catch (const std::exception &error) {
      desk.refuse(reply, error.what());
    }
  });
}

void before_requests(vx_global &context, std::function<void()> finish) {
  context_of(&context).requests.before = std::move(finish);
}

}  // namespace ko_platform
