// How every derived record is written or deleted: the one procedure behind the nine record setters. A setter brings the
// texts that it logs, its message and what it puts into it.
#pragma once

#include <cstdint>
#include <type_traits>

#include "proc/ko_span_public.h"
#include "proc/lspan/ko_lspan.h"
#include "vx_mom.h"

// One row a setter. Each text has one %d.
template <typename Record>
struct ko_span_record_kind {
  const char *setter;       // function name of its log lines
  const char *key_failure;  // with the translation's code
  const char *set;          // with the store's code
  const char *del;          // with the store's code
  void (*init)(Record *record);
};

inline void ko_span_init_key(UMonitor__SpanSrcInfoIndex *key) { u_monitor__span_src_info_index__init(key); }

inline void ko_span_init_key(UMonitor__SpanMtpInfoIndex *key) { u_monitor__span_mtp_info_index__init(key); }

inline int32_t ko_span_fill_key(const span_info *info, UMonitor__SpanSrcInfoIndex *key) {
  return ko_span_fill_src_info_key(info, key);
}

inline int32_t ko_span_fill_key(const span_info *info, UMonitor__SpanMtpInfoIndex *key) {
  return ko_span_fill_mtp_info_key(info, key);
}

// Writes the record when `is_del` is 0, else deletes it by its key. `fill` puts the payload into the record and returns
// 0, or a status that ends the write before the store is called. Returns that, the translation's or the store's code.
template <typename Record, typename Fill>
int32_t ko_span_write_record(vx_global *store, const span_info *info, uint32_t is_del,
                             const ko_span_record_kind<Record> &kind, Fill fill) {
  Record record;
  std::remove_pointer_t<decltype(Record::index)> key;
  kind.init(&record);
  ko_span_init_key(&key);
  int32_t rc = ko_span_fill_key(info, &key);
  if (rc != 0) {
    LSPAN_LOG_AS(dl_zlog_error, kind.setter, kind.key_failure, rc);
    return rc;
  }
  record.index = &key;
  if (is_del != 0) {
    rc = vx_mom_del(store, UDP_DB, &record.base, 0, 0);
    LSPAN_LOG_AS(dl_zlog_debug, kind.setter, kind.del, rc);
    return rc;
  }
  rc = fill(&record);
  if (rc != 0) return rc;
  rc = vx_mom_set(store, UDP_DB, &record.base, 0, 0);
  LSPAN_LOG_AS(dl_zlog_debug, kind.setter, kind.set, rc);
  return rc;
}

// A tunnel head as it stands in a record.
inline UMonitor__SpanIpInfo ko_span_ip_head(const span_info *info) {
  UMonitor__SpanIpInfo head;
  u_monitor__span_ip_info__init(&head);
  head.src_ip = info->ip_head.src_ip;
  head.dst_ip = info->ip_head.dst_ip;
  head.ttl = info->ip_head.ttl;
  head.dscp = info->ip_head.dscp;
  head.vrf = info->ip_head.vrf;
  return head;
}
