// Reading records with all the checks that a reader owes.
#pragma once

#include <string>
#include <vector>

#include "catalog.h"
#include "context.h"
#include "store/layout.h"
#include "store_client.h"

namespace lspanctl {

struct loaded_record {
  std::string key;  // packed
  std::string bytes;
  ko_store::message_ptr message;
};

// The sound records of a kind, in the order of their keys. Each other one is a line on standard error and counted in
// `bad`.
std::vector<loaded_record> load_records(context &ctx, store_client &store, uint32_t db,
                                        const ProtobufCMessageDescriptor &type, size_t &bad);

// "CONF_DB u_monitor.mirror_lspan_info"
std::string place_text(uint32_t db, const ProtobufCMessageDescriptor &type);

}  // namespace lspanctl
