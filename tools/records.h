// Reading records with all the checks that a reader owes.
#pragma once

#include <vector>

#include "catalog.h"
#include "context.h"
#include "store/layout.h"
#include "store_client.h"

namespace lspanctl {

struct decoded_record {
  ko_store::owned_change stored;
  ko_store::message_ptr message;

  // The message; `Message` is the structure of its type.
  template <class Message>
  const Message &as() const {
    return *reinterpret_cast<const Message *>(message.get());
  }
};

// The sound records of a hash, in the order of their keys. Each other one is a line on standard error and counted in
// the context.
std::vector<decoded_record> load_records(context &ctx, store_client &store, const ko_store::hash_id &hash);

}  // namespace lspanctl
