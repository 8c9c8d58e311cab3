// ACLs: expressions of pcap-filter(7), for frames whose VLAN tag may be in the frame or beside it.
#pragma once

#include <string>

#include "program.h"

namespace ko_forward {

// What make_program adds for `expression`. Throws acl_error.
program choose_by_acl(const std::string &expression);

}  // namespace ko_forward
