// Asking the programs on the store, the daemon and the forwarding side.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "json.h"
#include "store_client.h"

namespace lspanctl {

inline constexpr const char *daemon_program = "ko_lspan";
inline constexpr const char *forwarding_program = "ko_lspan_fwd";

// Whether such a program waits for requests.
bool is_listening(store_client &store, const std::string &program);

// What is added to a sentence about something that the daemon is to act on: nothing, or that it is away.
std::string away_note(store_client &store);

struct answer {
  bool listening;             // some program has taken the request
  std::optional<json> value;  // its answer; none when it did not come in time
};

class requester {
 public:
  explicit requester(context &ctx);

  // A program answers "status" behind everything that it writes because of what was announced before. Of several, the
  // active one is waited for; the answer of one that stands by counts when there is no other.
  answer ask(const std::string &program, const std::string &request, std::chrono::milliseconds patience);

  struct answers {
    bool listening;
    std::vector<json> values;
  };
  // Waits for all of them.
  answers ask_all(const std::string &program, const std::string &request, std::chrono::milliseconds patience);

 private:
  answers ask(const std::string &program, const std::string &request, std::chrono::milliseconds patience,
              bool is_active_enough);

  store_client store_;
  store_client replies_;
  std::string name_;
  unsigned n_asked_ = 0;
};

// The answer of the daemon or the forwarding side, which must be there: throws refused when it is not, does not answer
// in time or answers with an error.
json ask_or_refuse(context &ctx, const std::string &program, const std::string &request,
                   std::chrono::milliseconds patience);

}  // namespace lspanctl
