#include "records.h"

#include <algorithm>
#include <ostream>

#include "render.h"
#include "text.h"

namespace lspanctl {

std::string place_text(uint32_t db, const ProtobufCMessageDescriptor &type) { return db_name(db) + " " + type.name; }

std::vector<loaded_record> load_records(context &ctx, store_client &store, uint32_t db,
                                        const ProtobufCMessageDescriptor &type, size_t &bad) {
  std::vector<loaded_record> sound;
  std::vector<stored_record> all = store.read_all(db, type.name);
  progress_line progress = ctx.progress("reading " + std::string(short_name(type)), all.size());
  size_t done = 0;
  for (stored_record &raw : all) {
    if (++done % 1000 == 0) progress.show(done);
    loaded_record record{std::move(raw.key), std::move(raw.record), nullptr};
    record.message = ko_store::unpack(type, record.bytes);
    const ko_store::defect why = ko_store::check_record(record.message.get(), record.key);
    if (why == ko_store::defect::none) {
      sound.push_back(std::move(record));
      continue;
    }
    ++bad;
    ctx.err << "lspanctl: " << place_text(db, type) << ": the record with key 0x" << hex_text(record.key)
            << " is left out: " << to_string(why) << "; have its writer write it again, or delete it\n";
  }
  std::sort(sound.begin(), sound.end(), [](const loaded_record &a, const loaded_record &b) {
    return compare(*ko_store::key_of(*a.message), *ko_store::key_of(*b.message)) < 0;
  });
  return sound;
}

}  // namespace lspanctl
