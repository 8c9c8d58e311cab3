// Which frames are copied, as classic BPF: programs that the kernel runs on each frame of a port. No input and output.
#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "records.h"

namespace ko_forward {

// A program answers 0 for a frame that is passed by, else the frame is copied.
using program = std::vector<sock_filter>;

// What has to hold of a frame, all of it.
struct frame_choice {
  uint32_t sample_rate = 0;          // N: one frame of N, by chance; 0 and 1: every frame
  const vlan_set *vlans = nullptr;   // one of these; null: any VLAN and none
  uint16_t untagged_vlan = 0;        // the VLAN of frames that name none; 0: they are in none
  const std::string *acl = nullptr;  // an expression of pcap-filter(7); null: none
};

// what() says why an expression cannot be used.
class acl_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An expression that names "vlan" sees a frame as it is on the wire; any other sees it without its outermost VLAN tag.
// So it does not matter whether the kernel keeps the tag in the frame or beside it. Throws acl_error.
program make_program(const frame_choice &choice);

}  // namespace ko_forward
