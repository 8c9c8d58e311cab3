// What the linker puts in the place of the allocator and of the mirror-list library (--wrap): both do their work, but
// the first can run out of memory and the second can be recorded and made to fail.
#include <cstdlib>

#include "state.h"

using recording::now;

namespace {

// Not part of `now`, since making that allocates.
uint64_t allocations, failing_from, failing_to, refused;

bool out_of_memory() {
  const uint64_t number = ++allocations;
  const bool refuse = number >= failing_from && number < failing_to;
  refused += refuse;
  return refuse;
}

// Records a list call with its arguments and whether it yielded an entry.
template <typename... Numbers>
void record_list_call(const char *function, bool found, Numbers... numbers) {
  if (!now.lists) return;
  recording::record([&] {
    std::string arguments;
    ((arguments += (arguments.empty() ? "" : ", ") + std::to_string(numbers)), ...);
    return std::string(function) + '(' + arguments + (found ? ") -> entry" : ") -> none");
  });
}

}  // namespace

namespace recording {

void alloc_fail_at(uint64_t k, bool forever) {
  allocations = 0;
  failing_from = k == 0 ? UINT64_MAX : k;
  failing_to = forever || k == 0 ? UINT64_MAX : k + 1;
}

uint64_t alloc_count() { return allocations; }

uint64_t refused_allocations() { return refused; }

void forget_refused_allocations() { refused = 0; }

}  // namespace recording

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);

void *__wrap_malloc(size_t size) { return out_of_memory() ? nullptr : __real_malloc(size); }

void *__wrap_calloc(size_t count, size_t size) { return out_of_memory() ? nullptr : __real_calloc(count, size); }

void *__wrap_realloc(void *old, size_t size) { return out_of_memory() ? nullptr : __real_realloc(old, size); }

#define WRAP_ADD(kind, entry)                                                  \
  entry *__real_mirror_list_add_##kind(mirror_link *list);                     \
  entry *__wrap_mirror_list_add_##kind(mirror_link *list) {                    \
    const bool failing = answer(recording::call::mirror_list_add_##kind) != 0; \
    entry *added = failing ? nullptr : __real_mirror_list_add_##kind(list);    \
    record_list_call("mirror_list_add_" #kind, added != nullptr);              \
    return added;                                                              \
  }
WRAP_ADD(session_info, mirror_info)
WRAP_ADD(src_info, src_info)
WRAP_ADD(dst_info, dst_info)
WRAP_ADD(mtp_info, mtp_info)

#define WRAP_SEARCH(kind, entry, parameters, ...)                                 \
  entry *__real_mirror_list_search_##kind parameters;                             \
  entry *__wrap_mirror_list_search_##kind parameters {                            \
    entry *found = __real_mirror_list_search_##kind(list, __VA_ARGS__);           \
    record_list_call("mirror_list_search_" #kind, found != nullptr, __VA_ARGS__); \
    return found;                                                                 \
  }
WRAP_SEARCH(session_info, mirror_info, (mirror_link * list, uint32_t session_id), session_id)
WRAP_SEARCH(src_info, src_info, (mirror_link * list, uint32_t dir, uint32_t s_phyid, uint32_t acl_id), dir, s_phyid,
            acl_id)
WRAP_SEARCH(dst_info, dst_info, (mirror_link * list, uint32_t dir, uint32_t s_phyid, uint32_t d_phyid, uint32_t acl_id),
            dir, s_phyid, d_phyid, acl_id)
WRAP_SEARCH(mtp_info, mtp_info, (mirror_link * list, uint32_t session_id), session_id)

int32_t __real_mirror_list_del(mirror_link *entry);
int32_t __wrap_mirror_list_del(mirror_link *entry) {
  if (now.lists) recording::note("mirror_list_del()");
  return __real_mirror_list_del(entry);
}

}  // extern "C"
