// The platform's calls, what the linker puts in the place of the allocator and of the mirror-list library (--wrap), and
// what a test may ask and tell.
#include "recording.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <tuple>
#include <utility>

#include "ham_lib.h"
#include "libddm.h"
#include "store/layout.h"
#include "store/record_text.h"

struct vx_zlog_category {
  std::string name;
};

namespace recording {
namespace {

constexpr uint32_t phyid_offset = 1000;

vx_global the_global{nullptr, 0x1234};
vx_mom_ab the_ab{&the_global};

struct failure {
  std::string function;  // "": any
  uint64_t in;           // calls up to the one that fails, 0: it has failed
  int32_t code;
};

struct stored {
  const ProtobufCMessageDescriptor *type;
  std::string packed;
};

struct state {
  bool tracing = true, lists = false;
  std::vector<std::string> lines;
  uint64_t formatted = 0, failed = 0;
  std::vector<failure> failures;
  std::map<uint32_t, uint32_t> phyids;
  std::map<uint32_t, int32_t> untranslatable;
  std::map<std::tuple<uint32_t, std::string_view, std::string>, stored> store;  // by database, message, packed key
  vx_mom_all_ds_cb all_ds = nullptr;
  const vx_mom_ab_opt *option = nullptr;  // as a library may, this one keeps pointers that have to last
  const rdnd_mom_reg_info *redundancy = nullptr;
  std::map<const void *, std::string> names{{nullptr, "null"}, {&the_global, "context"}, {&the_ab, "sources"}};
  std::function<void()> run;
} now;

// Not part of `now`, since making that allocates.
uint64_t allocations, failing_from, failing_to, refused;

bool out_of_memory() {
  const uint64_t number = ++allocations;
  const bool refuse = number >= failing_from && number < failing_to;
  refused += refuse;
  return refuse;
}

// The scripted code of this call of `function`, or 0.
int32_t answer(std::string_view function) {
  int32_t code = 0;
  for (failure &one : now.failures)
    if ((one.function.empty() || one.function == function) && one.in != 0 && --one.in == 0) code = one.code;
  now.failed += code != 0;
  return code;
}

// Whether that line of the daemon's sources belongs to the function.
bool belongs(const char *file, long line, std::string_view function) {
  static std::map<std::pair<const void *, long>, std::string> known;
  auto [at, added] = known.try_emplace({file, line});
  std::ifstream in(added ? SOURCE_DIR + std::string("/") + file : "");
  std::string text;
  for (long i = 0; i < line && std::getline(in, text); ++i)
    if (!text.empty() && std::isalpha(text[0]) != 0) at->second = text.substr(0, text.find('('));
  return at->second.ends_with(function);
}

std::string db_name(uint32_t db_id) {
  static const std::map<uint32_t, std::string> names = {{4, "CONF_DB"}, {6, "FWD_DB"}, {8, "UDP_DB"}};
  const auto name = names.find(db_id);
  return name == names.end() ? std::to_string(db_id) : name->second;
}

std::string typed_text(const ProtobufCMessage *message) {
  if (message == nullptr) return "null";
  const std::string text = ko_store::to_text(*message);
  return message->descriptor->name + (text.empty() ? "" : ' ' + text);
}

// An argument of a call, as the trace shows it.
std::string word(const std::string &text) { return text; }

std::string word(const char *text) { return '"' + std::string(text) + '"'; }

std::string word(uint32_t number) { return std::to_string(number); }

std::string word(const void *pointer) {
  const auto name = now.names.find(pointer);
  return name == now.names.end() ? "?" : name->second;
}

template <typename Result, typename... Arguments>
std::string word(Result (*callback)(Arguments...)) {
  return word(reinterpret_cast<const void *>(callback));
}

std::string answered(int32_t code) { return code == 0 ? "" : " = " + std::to_string(code); }

std::string null_if(int32_t code) { return code == 0 ? "" : " = null"; }

// Puts a call into the trace: its arguments, and in the words of `answer` what came of it.
template <typename... Arguments>
void record_call(const char *function, const std::string &answer, const Arguments &...arguments) {
  if (!now.tracing) return;
  std::string text;
  ((text += (text.empty() ? "" : ", ") + word(arguments)), ...);
  now.lines.push_back(std::string(function) + '(' + text + ')' + answer);
}

template <typename... Arguments>
void record_list_call(const char *function, bool found, const Arguments &...arguments) {
  if (now.lists) record_call(function, found ? " -> entry" : " -> none", arguments...);
}

// Does to the store's contents what a record call asks for.
void keep(uint32_t db_id, const ProtobufCMessage &message, bool is_del) {
  std::string key, packed;
  ko_store::append_packed(*ko_store::key_of(message), key);
  ko_store::append_packed(message, packed);
  const std::tuple at(db_id, std::string_view(message.descriptor->name), std::move(key));
  if (is_del)
    now.store.erase(at);
  else
    now.store[at] = {message.descriptor, std::move(packed)};
}

int32_t call_store(const char *function, vx_global *store, uint32_t db_id, const ProtobufCMessage *message,
                   uint32_t zero1, uint32_t zero2) {
  int32_t code = answer(function);
  const bool keyless = std::strcmp(function, "vx_mom_publish") == 0;
  if (code == 0 && (message == nullptr || (!keyless && ko_store::key_of(*message) == nullptr))) code = VX_MOM_MISSING;
  if (code == 0 && !keyless) keep(db_id, *message, std::strcmp(function, "vx_mom_del") == 0);
  if (!now.tracing) return code;
  const bool right = store == &the_global && zero1 == 0 && zero2 == 0;
  record_call(function, answered(code) + (right ? "" : " with wrong arguments"), db_name(db_id), typed_text(message));
  return code;
}

void record_entries(const char *kind, const mom_ds_entry *entries, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    const mom_ds_entry &entry = entries[i];
    const bool reserved = entry.reserved1 != 0 || entry.reserved2 != 0 || entry.reserved3 != 0;
    note(std::string("  ") + kind + ' ' + std::to_string(i) + ' ' + db_name(entry.db_id) + ' ' +
         typed_text(entry.record) + " enabled=" + std::to_string(entry.enabled) +
         " output=" + std::to_string(entry.is_output) + (reserved ? " reserved words not 0" : ""));
  }
}

}  // namespace

void reset() {
  now = state{};
  alloc_fail_at(0, false);
  refused = 0;
}

void trace_on(bool on) { now.tracing = on; }

void record_lists(bool on) { now.lists = on; }

std::vector<std::string> &trace() { return now.lines; }

std::vector<std::string> take_trace() { return std::exchange(now.lines, {}); }

void note(std::string line) {
  if (now.tracing) now.lines.push_back(std::move(line));
}

uint64_t format_count() { return now.formatted; }

void fail(std::string_view function, uint64_t k, int32_t code) {
  now.failures.push_back({std::string(function), k, code});
}

void fail_none() {
  now.failures.clear();
  alloc_fail_at(0, false);
}

size_t pending_failures() {
  return std::count_if(now.failures.begin(), now.failures.end(), [](const failure &one) { return one.in != 0; });
}

uint64_t failure_count() { return now.failed + refused; }

void translate(uint32_t ifx, uint32_t phyid) { now.phyids[ifx] = phyid; }

void translation_fails(uint32_t ifx, int32_t code) { now.untranslatable[ifx] = code; }

void alloc_fail_at(uint64_t k, bool forever) {
  allocations = 0;
  failing_from = k == 0 ? UINT64_MAX : k;
  failing_to = forever || k == 0 ? UINT64_MAX : k + 1;
}

uint64_t alloc_count() { return allocations; }

std::vector<std::string> store_text() {
  std::vector<std::string> lines;
  for (const auto &[at, record] : now.store)
    lines.push_back(db_name(std::get<0>(at)) + ' ' + typed_text(ko_store::unpack(*record.type, record.packed).get()));
  return lines;
}

vx_global *global() { return &the_global; }

vx_zlog_category *category(const char *name) {
  static auto &categories = *new std::map<std::string, vx_zlog_category>;  // also for what runs at the exit
  return &categories.try_emplace(name, vx_zlog_category{name}).first->second;
}

void name_pointer(const void *pointer, const std::string &name) { now.names[pointer] = name; }

void on_run(std::function<void()> body) { now.run = std::move(body); }

rdnd_awake_cb awake() { return now.redundancy == nullptr ? nullptr : now.redundancy->awake; }

vx_mom_all_ds_cb all_ds_handler() { return now.all_ds; }

}  // namespace recording

using namespace recording;

extern "C" {

// ---- record store ----

int32_t vx_mom_set(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1, uint32_t zero2) {
  return call_store(__func__, store, db_id, message, zero1, zero2);
}

int32_t vx_mom_del(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1, uint32_t zero2) {
  return call_store(__func__, store, db_id, message, zero1, zero2);
}

int32_t vx_mom_publish(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1,
                       uint32_t zero2) {
  return call_store(__func__, store, db_id, message, zero1, zero2);
}

vx_mom_ab *vx_mom_ab_init(vx_global *global, const char *app_name, const vx_mom_ab_opt *opt) {
  const int32_t code = answer(__func__);
  record_call(__func__, null_if(code), global, app_name, opt->word[0], opt->word[1]);
  now.option = opt;
  return code == 0 ? &the_ab : nullptr;
}

uint32_t vx_mom_reg_ds(vx_mom_ab *ab, const mom_ds_entry *inputs, uint32_t n_inputs, const mom_ds_entry *outputs,
                       uint32_t n_outputs) {
  const int32_t code = answer(__func__);
  record_call(__func__, answered(code), ab, n_inputs, n_outputs);
  record_entries("input", inputs, n_inputs);
  record_entries("output", outputs, n_outputs);
  return code == 0 ? 77 : static_cast<uint32_t>(code);
}

int32_t vx_mom_set_ds_opt(vx_mom_ab *ab, uint32_t ds, uint32_t option, const uint32_t *value) {
  const int32_t code = answer(__func__);
  record_call(__func__, answered(code), ab, ds, option, *value);
  return code;
}

int32_t vx_mom_reg_key_event(vx_mom_ab *ab, const mom_ds_entry *input, uint32_t kind, vx_mom_event_cb handler,
                             void *user) {
  const int32_t code = answer(__func__);
  const std::string source = db_name(input->db_id) + ' ' + input->record->descriptor->name;
  record_call(__func__, answered(code), ab, source, kind, handler, user);
  return code;
}

int32_t vx_mom_reg_all_ds_event(vx_mom_ab *ab, uint32_t flags, vx_mom_all_ds_cb handler, void *user) {
  const int32_t code = answer(__func__);
  record_call(__func__, answered(code), ab, flags, handler, user);
  if (code == 0) now.all_ds = handler;
  return code;
}

// ---- global context, redundancy, monitor ----

vx_global *vx_global_init(const char *proc_name) {
  const int32_t code = answer(__func__);
  record_call(__func__, null_if(code), proc_name);
  return code == 0 ? &the_global : nullptr;
}

void vx_global_run(vx_global *global) {
  const bool lasts = now.option != nullptr && now.option->word[0] == 0 && now.option->word[1] == 0;
  record_call(__func__, lasts ? "" : " with an option record that is gone", global);
  if (now.run) now.run();
}

void vx_global_finish(vx_global *global) { record_call(__func__, "", global); }

int32_t rdnd_lib_mom_reg(const rdnd_mom_reg_info *info) {
  const int32_t code = answer(__func__);
  std::string rest;
  for (const uintptr_t word : info->reserved) rest += std::to_string(word) + ", ";
  for (uint32_t i = 0; i < info->n_db; ++i) rest += (i == 0 ? "[" : " ") + std::to_string(info->db_list[i]);
  const std::string instance = info->instance == the_global.instance ? "instance" : "?";
  record_call(__func__, answered(code), info->app_name, instance, info->global, info->awake, info->awake_peer,
              rest + ']');
  if (code == 0) now.redundancy = info;
  return code;
}

int32_t reg_process_exit_action(pid_t pid, uint32_t action) {
  const int32_t code = answer(__func__);
  record_call(__func__, answered(code), std::string(pid == getpid() ? "self" : "?"), action);
  return code;
}

// ---- interface translation ----

int32_t libddm_init(vx_global *global, const char *app_name) {
  const int32_t code = answer(__func__);
  record_call(__func__, answered(code), global, app_name);
  return code;
}

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid) {
  int32_t code = answer(__func__);
  if (const auto known = now.untranslatable.find(ifx); code == 0 && known != now.untranslatable.end()) {
    code = known->second;
    now.failed += code != 0;
  }
  if (code == 0) *phyid = now.phyids.try_emplace(ifx, ifx + phyid_offset).first->second;
  record_call(__func__, code == 0 ? " -> " + std::to_string(*phyid) : answered(code), ifx);
  return code;
}

// ---- logging ----

vx_zlog_category *vx_zlog_init(const char *category_name) {
  const int32_t code = answer(__func__);
  record_call(__func__, null_if(code), category_name);
  return code == 0 ? category(category_name) : nullptr;
}

void vxdf_zlog(vx_zlog_category *category, const char *file, size_t file_len, const char *func, size_t func_len,
               long line, int level, const char *format, ...) {
  static const std::map<int, std::string> levels = {
      {VX_ZLOG_DEBUG, "debug "}, {VX_ZLOG_INFO, "info "}, {VX_ZLOG_WARN, "warn "}, {VX_ZLOG_ERROR, "error "}};
  if (!now.tracing) return;
  va_list arguments;
  va_start(arguments, format);
  char text[2048];
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const bool right = std::strcmp(format, "%s") == 0 && file_len == std::strlen(file) && func_len == std::strlen(func) &&
                     (std::strncmp(file, "app/", 4) == 0 ? belongs(file, line, func) : file[0] != '/');
  note((category->name == "ko_lspan" ? "" : '[' + category->name + "] ") + levels.at(level) + func + ": " +
       ko_store::escaped(text) + (right ? "" : " with wrong arguments"));
}

int at_snprintf(char *buffer, size_t size, const char *format, ...) {
  ++now.formatted;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

// ---- in the place of others: they do the same work, but can fail ----

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);

void *__wrap_malloc(size_t size) { return out_of_memory() ? nullptr : __real_malloc(size); }

void *__wrap_calloc(size_t count, size_t size) { return out_of_memory() ? nullptr : __real_calloc(count, size); }

void *__wrap_realloc(void *old, size_t size) { return out_of_memory() ? nullptr : __real_realloc(old, size); }

#define WRAP_ADD(kind, entry)                                             \
  entry *__real_mirror_list_add_##kind(mirror_link *list);                \
  entry *__wrap_mirror_list_add_##kind(mirror_link *list) {               \
    const bool fails = answer("mirror_list_add_" #kind) != 0;             \
    entry *added = fails ? nullptr : __real_mirror_list_add_##kind(list); \
    record_list_call("mirror_list_add_" #kind, added != nullptr);         \
    return added;                                                         \
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
  if (now.lists) note("mirror_list_del()");
  return __real_mirror_list_del(entry);
}

}  // extern "C"
