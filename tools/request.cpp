#include "request.h"

#include <cstdio>
#include <random>

#include "errors.h"

namespace lspanctl {
namespace {

using clock = std::chrono::steady_clock;

std::string channel_of(const std::string &program) { return program + ".request"; }

std::string random_name() {
  std::random_device random;
  char text[32];
  std::snprintf(text, sizeof text, "ko_reply.%08x%08x", random(), random());
  return text;
}

sigset_t present_mask() {
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  return mask;
}

}  // namespace

bool is_listening(store_client &store, const std::string &program) { return store.listeners(channel_of(program)) > 0; }

std::string away_note(store_client &store) { return is_listening(store, daemon_program) ? "" : "; no daemon answers"; }

requester::requester(context &ctx) : store_(ctx.connect()), replies_(ctx.connect()), name_(random_name()) {}

answer requester::ask(const std::string &program, const std::string &request, std::chrono::milliseconds patience) {
  answers got = ask(program, request, patience, true);
  if (got.values.empty()) return {got.listening, {}};
  return {true, std::move(got.values.back())};
}

requester::answers requester::ask_all(const std::string &program, const std::string &request,
                                      std::chrono::milliseconds patience) {
  return ask(program, request, patience, false);
}

requester::answers requester::ask(const std::string &program, const std::string &request,
                                  std::chrono::milliseconds patience, bool is_active_enough) {
  const std::string reply = name_ + "." + std::to_string(n_asked_++);
  replies_.subscribe(reply);
  const size_t n = store_.publish(channel_of(program), dump({{"request", request}, {"reply", reply}}));
  answers got{n > 0, {}};
  const auto deadline = clock::now() + patience;
  const sigset_t mask = present_mask();
  while (got.values.size() < n && clock::now() < deadline) {
    const auto said = replies_.next(deadline, mask);
    if (!said || said->channel != reply) continue;
    json value = json::parse(said->bytes, nullptr, false);
    if (!value.is_object()) throw refused(program + " answers with something else than JSON; update it or lspanctl");
    got.values.push_back(std::move(value));
    if (is_active_enough && got.values.back().value("active", true)) break;
  }
  return got;
}

json ask_or_refuse(context &ctx, const std::string &program, const std::string &request,
                   std::chrono::milliseconds patience) {
  const answer got = requester(ctx).ask(program, request, patience);
  if (!got.listening) throw refused("no " + program + " answers; start it, and see that it is on the same store");
  if (!got.value)
    throw refused(program + " does not answer within " + std::to_string(patience.count() / 1000) +
                  " s; look at its log, or give it longer with --timeout");
  if (got.value->contains("error")) throw refused(program + ": " + (*got.value)["error"].get<std::string>());
  return *got.value;
}

}  // namespace lspanctl
