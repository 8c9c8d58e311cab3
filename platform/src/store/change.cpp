#include "store/change.h"

#include "store/layout.h"

namespace ko_store {

bool make_change(uint32_t db, change_kind kind, const ProtobufCMessage &message, owned_change &into) {
  into.hash = {db, message.descriptor};
  into.kind = kind;
  into.key.clear();
  into.record.clear();
  const ProtobufCMessage *key = kind == change_kind::publish ? nullptr : key_of(message);
  if (key == nullptr && kind != change_kind::publish) return false;
  if (kind != change_kind::del) append_packed(message, into.record);
  if (key == nullptr) return true;
  into.key = leading_key(*message.descriptor, into.record);
  if (into.key.empty()) append_packed(*key, into.key);
  return true;
}

owned_change make_change(uint32_t db, change_kind kind, const ProtobufCMessage &message) {
  owned_change made;
  make_change(db, kind, message, made);
  return made;
}

}  // namespace ko_store
