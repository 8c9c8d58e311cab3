// What the daemon keeps in memory, on whatever platform it runs. Beside it stands a model of group membership, fed by
// the note_ calls, which broken() compares with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace driver {

// An event of session `session_id` was handled; `something_failed`: it was a set, and a call or an allocation failed.
void note_saved(uint32_t session_id, bool something_failed);
// A membership event was handled, and answered with `status`.
void note_membership(uint32_t ifx, uint32_t group_id, bool is_del, int32_t status);

// Frees what the daemon has, models included.
void forget_daemon();

// What the daemon knows, one line per session, entry and group, in list order; groups by number.
std::vector<std::string> memory_text();

// The first thing found wrong in the daemon's memory, or "". Holds after every event, whatever failed:
// - every list is whole in both directions, every session has at most one mirror target;
// - a session without any entry is there only when a save in which something failed left it;
// - each group's mtp_info is null or an entry of some session, and a search finds the first session that targets it;
// - the member table holds exactly the interfaces in a group, and each group's list is the one that the joins, moves
//   and leaves gave it, repeated joins and joins that failed for memory included.
std::string broken();

}  // namespace driver
