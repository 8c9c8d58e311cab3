#include "result_text.h"

#include <net/if.h>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace lspanctl {
namespace {

// The ports of the member that this machine does not have; on another than the switch that is all of them.
std::string missing_ports(const member &what, const interfaces &ports) {
  std::string text;
  for (const uint32_t ifx : {what.key.s_ifx, what.targets_group() ? 0 : what.key.d_ifx})
    if (ifx != 0 && if_nametoindex(ports.device(ifx).c_str()) == 0)
      text += (text.empty() ? "" : ", ") + ports.text(ifx);
  return text;
}

// The port or ACL that a refusal concerns; empty where it is not known.
std::string concerned(uint32_t code, const member &what, const interfaces &ports) {
  switch (code) {
    case ENODEV:
      return missing_ports(what, ports);
    case EBUSY:
      return ports.text(what.key.s_ifx);
    case ENETDOWN:
    case ELOOP:
      return ports.target_text(what.key.d_ifx, what.targets_group());
    case EPERM:
      return "the forwarding side lacks CAP_NET_ADMIN";
    case EINVAL:
    case EOPNOTSUPP:
      if (what.key.acl_id == 0) return "";
      return "acl " + std::to_string(what.key.acl_id) +
             (ports.has_acl(what.key.acl_id) ? "" : " is not in the platform file");
    default:
      return "";
  }
}

}  // namespace

std::string result_text(uint32_t code, const member &what, const interfaces &ports) {
  // The texts of errno speak of files and would mislead.
  const char *known =
      code == ELOOP ? "copies would come back to their source" : strerrordesc_np(static_cast<int>(code));
  if (known == nullptr) return "code " + std::to_string(code);
  std::string text = known;
  text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  const std::string whom = concerned(code, what, ports);
  return whom.empty() ? text : text + " (" + whom + ")";
}

}  // namespace lspanctl
