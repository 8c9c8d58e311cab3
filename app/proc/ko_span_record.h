// What the nine record setters share beside their keys. A setter fills the key, fills the record and puts it.
#pragma once

#include <cstdint>

#include "proc/ko_span_public.h"

// Writes the record into UDP_DB when `is_del` is 0, else deletes the one with its key. Returns the store's code.
int32_t ko_span_put_record(vx_global *store, const ProtobufCMessage *record, uint32_t is_del);

// The member's tunnel head as it stands in a record.
UMonitor__SpanIpInfo ko_span_ip_head(const span_info *info);
