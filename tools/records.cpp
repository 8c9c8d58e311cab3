#include "records.h"

#include <algorithm>
#include <cstring>
#include <ostream>

#include "store/record_text.h"

namespace lspanctl {
namespace {

template <class Value>
const Value &value_at(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field) {
  const void *value = reinterpret_cast<const char *>(&message) + field.offset;
  return *static_cast<const Value *>(value);
}

// Orders keys of one type by their fields, numbers as numbers. A negative number, 0 or a positive one.
int compare(const ProtobufCMessage &a, const ProtobufCMessage &b) {
  for (unsigned i = 0; i < a.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = a.descriptor->fields[i];
    int order = 0;
    if (field.type == PROTOBUF_C_TYPE_STRING) {
      order = std::strcmp(value_at<const char *>(a, field), value_at<const char *>(b, field));
    } else if (field.type == PROTOBUF_C_TYPE_UINT32) {
      const auto x = value_at<uint32_t>(a, field);
      const auto y = value_at<uint32_t>(b, field);
      order = x < y ? -1 : x > y;
    }
    if (order != 0) return order;
  }
  return 0;
}

}  // namespace

std::vector<decoded_record> load_records(context &ctx, store_client &store, const ko_store::hash_id &hash) {
  std::vector<decoded_record> sound;
  std::vector<ko_store::owned_change> all = store.read_all(hash);
  progress_line progress = ctx.progress("reading " + std::string(short_name(*hash.type)), all.size());
  size_t done = 0;
  for (ko_store::owned_change &raw : all) {
    progress.show(done++);
    decoded_record record{std::move(raw), nullptr};
    record.message = ko_store::unpack(*hash.type, record.stored.record);
    const ko_store::defect why = ko_store::check_record(record.message.get(), record.stored.key);
    if (why == ko_store::defect::none) {
      sound.push_back(std::move(record));
      continue;
    }
    ctx.err << "lspanctl: " << place_text(hash) << ": the record with key 0x" << ko_store::hex_digits(record.stored.key)
            << " is left out: " << to_string(why)
            << "; have its writer write it again, or delete it: lspanctl records --db " << hash.db << " --message "
            << short_name(*hash.type) << " --delete 0x" << ko_store::hex_digits(record.stored.key) << '\n';
    ctx.unusable.push_back(std::move(record.stored));
  }
  std::sort(sound.begin(), sound.end(), [](const decoded_record &a, const decoded_record &b) {
    return compare(*ko_store::key_of(*a.message), *ko_store::key_of(*b.message)) < 0;
  });
  return sound;
}

}  // namespace lspanctl
