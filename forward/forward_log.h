// The program's log channel.
#pragma once

#include "platform_log.h"

namespace ko_forward {

inline ko_platform::log_channel channel{"ko_lspan_fwd", 4};

}  // namespace ko_forward

#define FORWARD_ERROR(...) KO_CHANNEL_LOG(ko_forward::channel, VX_ZLOG_ERROR, __VA_ARGS__)
#define FORWARD_WARN(...) KO_CHANNEL_LOG(ko_forward::channel, VX_ZLOG_WARN, __VA_ARGS__)
#define FORWARD_INFO(...) KO_CHANNEL_LOG(ko_forward::channel, VX_ZLOG_INFO, __VA_ARGS__)
#define FORWARD_DEBUG(...) KO_CHANNEL_LOG(ko_forward::channel, VX_ZLOG_DEBUG, __VA_ARGS__)
