// The commands: each adds itself to the command line.
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace lspanctl {

void add_session_add(command &session, context &ctx);
void add_session_set(command &session, context &ctx);
void add_session_del(command &session, context &ctx);
void add_session_show(command &session, context &ctx);
void add_session_export(command &session, context &ctx);
void add_session_apply(command &session, context &ctx);
void add_group_join(command &group, context &ctx);
void add_group_leave(command &group, context &ctx);
void add_group_show(command &group, context &ctx);
void add_result(command &root, context &ctx);
void add_records(command &root, context &ctx);
void add_watch(command &root, context &ctx);
void add_status(command &root, context &ctx);
void add_platform(command &root, context &ctx);
void add_resync(command &root, context &ctx);
void add_top(command &root, context &ctx);
void add_check(command &root, context &ctx);
void add_simulate(command &root, context &ctx);
void add_completion(command &root, context &ctx);

}  // namespace lspanctl
