// The record setters' common parts.
#include "proc/ko_span_record.h"

#include "vx_mom.h"

int32_t ko_span_put_record(vx_global *store, const ProtobufCMessage *record, uint32_t is_del) {
  return is_del != 0 ? vx_mom_del(store, UDP_DB, record, 0, 0) : vx_mom_set(store, UDP_DB, record, 0, 0);
}

UMonitor__SpanIpInfo ko_span_ip_head(const span_info *info) {
  UMonitor__SpanIpInfo head = U_MONITOR__SPAN_IP_INFO__INIT;
  head.src_ip = info->ip_head.src_ip;
  head.dst_ip = info->ip_head.dst_ip;
  head.ttl = info->ip_head.ttl;
  head.dscp = info->ip_head.dscp;
  head.vrf = info->ip_head.vrf;
  return head;
}
