#include "await.h"

#include <algorithm>
#include <ostream>
#include <thread>
#include <utility>

#include "errors.h"
#include "exit_status.h"
#include "member_state.h"
#include "request.h"
#include "values.h"
#include "wanted.h"

namespace lspanctl {
namespace {

using clock = std::chrono::steady_clock;

constexpr auto pause = std::chrono::milliseconds(30);  // between two looks

// How far it has come.
struct progress {
  bool written = false;                    // all records are right
  bool answerable = false;                 // there are members, and a forwarding side that answers for them
  std::vector<std::string> open, refused;  // members, with their states
};

class waiting {
 public:
  waiting(context &ctx, const std::vector<member> &members, clock::time_point deadline)
      : ctx_(ctx), members_(members), deadline_(deadline), requests_(ctx) {}

  // The programs have finished their own work before this looks.
  progress look() {
    progress now;
    barrier(daemon_program);
    const bool forwarded = barrier(forwarding_program);
    if (forwarded) barrier(daemon_program);  // it relays the answers
    now.answerable = forwarded && !members_.empty();
    const wanted_state state = load_wanted(ctx_);
    now.written = all_right(state);
    const interfaces ports = ctx_.ports();
    for (const member_outcome &outcome : state.members) {
      if (find_member(members_, outcome.what.key) == nullptr) continue;
      const member_state its = state_of(state, outcome, ports);
      const std::string text = to_text(outcome.what, ports) + ": " + to_text(its);
      if (its.state == "refused") now.refused.push_back(text);
      if (its.state != "refused" && its.state != "accepted") now.open.push_back(text);
    }
    return now;
  }

  void resync() {
    requests_.ask(daemon_program, "resync", left());
    resyncing_ = true;
  }

  std::chrono::milliseconds left() const {
    return std::max(std::chrono::milliseconds(1),
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - clock::now()));
  }

 private:
  // Whether the program is there; the daemon must be. One that is about to serve is waited for.
  bool barrier(const char *program) {
    for (;;) {
      const answer got = requests_.ask(program, "status", left());
      if (!got.listening && program == std::string(daemon_program) && !std::exchange(resyncing_, false))
        throw refused("no daemon answers, so that there is nothing to wait for; what was written stays");
      const bool serves = got.value && got.value->value("state", "serving") == "serving";
      if (!got.listening || serves || clock::now() >= deadline_) return got.listening;
      std::this_thread::sleep_for(pause);
    }
  }

  context &ctx_;
  const std::vector<member> &members_;
  clock::time_point deadline_;
  requester requests_;
  bool resyncing_ = false;  // it may be away for a moment
};

int tell(context &ctx, const progress &now, int status) {
  const char *words[] = {"written", "accepted", "refused", "not yet"};
  const char *word = words[now.answerable ? 1 : 0];
  if (status == exit_not_accepted) word = words[2];
  if (status == exit_timed_out) word = words[3];
  std::string why;
  for (const std::string &text : status == exit_not_accepted ? now.refused : now.open) why += "\n  " + text;
  if (status == exit_done) why.clear();
  if (status == exit_timed_out && !now.written) why += "\n  records differ; lspanctl check shows them";
  ctx.report("waited", std::string("waited: ") + word + why,
             {{"state", word}, {"open", now.open}, {"refused", now.refused}});
  return status;
}

}  // namespace

argument wait_argument(std::optional<std::string> &seconds) {
  return {"--wait", &seconds, "[=SECONDS]", "Wait until it is done: records written, and accepted or refused (5)",
          "",       false,    "5"};
}

int await(context &ctx, const std::string &seconds, const std::vector<member> &members) {
  const auto deadline = clock::now() + std::chrono::seconds(parse_number(seconds, "--wait", 1, 86400));
  waiting on(ctx, members, deadline);
  for (bool resynced = false;;) {
    const progress now = on.look();
    if (now.written && (!now.answerable || now.open.empty()))
      return tell(ctx, now, now.refused.empty() ? exit_done : exit_not_accepted);
    if (clock::now() >= deadline) return tell(ctx, now, exit_timed_out);
    if (!now.written && !std::exchange(resynced, true))
      on.resync();
    else
      std::this_thread::sleep_for(pause);
  }
}

}  // namespace lspanctl
