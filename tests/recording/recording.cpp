// The platform's calls, and what a test may ask and tell.
#include "recording.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "ham_lib.h"
#include "libddm.h"
#include "state.h"
#include "store/layout.h"
#include "store/record_text.h"

struct vx_zlog_category {
  std::string name;
};

namespace recording {

state now;

namespace {

constexpr uint32_t phyid_offset = 1000;

vx_global the_global{nullptr, 0x1234};
vx_mom_ab the_ab{&the_global};

#define RECORDING_NAME(name) #name,
constexpr std::string_view call_names[] = {RECORDING_CALLS(RECORDING_NAME)};

std::string db_name(uint32_t db_id) {
  switch (db_id) {
    case 4:
      return "CONF_DB";
    case 6:
      return "FWD_DB";
    case 8:
      return "UDP_DB";
    default:
      return std::to_string(db_id);
  }
}

std::string answered(int32_t code) { return code == 0 ? "" : " = " + std::to_string(code); }

std::string pointer_name(const void *pointer) {
  if (pointer == nullptr) return "null";
  const auto name = now.names.find(pointer);
  return name == now.names.end() ? "?" : name->second;
}

std::string typed_text(const ProtobufCMessage *message) {
  if (message == nullptr) return "null";
  const std::string text = ko_store::to_text(*message);
  return message->descriptor->name + (text.empty() ? "" : ' ' + text);
}

// Does to the store's contents what a record call asks for.
void keep(uint32_t db_id, const ProtobufCMessage &message, bool is_del) {
  static std::string key, record;
  key.clear();
  ko_store::append_packed(*ko_store::key_of(message), key);
  const std::string_view type = message.descriptor->name;
  auto &hashes = now.store[db_id];
  auto hash = hashes.find(type);
  if (hash == hashes.end()) {
    if (is_del) return;
    now.types.emplace(type, message.descriptor);
    hash = hashes.emplace(type, std::map<std::string, std::string, std::less<>>{}).first;
  }
  if (is_del) {
    hash->second.erase(key);
    return;
  }
  record.clear();
  ko_store::append_packed(message, record);
  hash->second[key] = record;
}

int32_t record_call(call function, vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1,
                    uint32_t zero2) {
  int32_t code = answer(function);
  const bool keyless = function == call::vx_mom_publish;
  if (code == 0 && (message == nullptr || (!keyless && ko_store::key_of(*message) == nullptr))) code = VX_MOM_MISSING;
  if (code == 0 && !keyless && now.storing) keep(db_id, *message, function == call::vx_mom_del);
  record([&] {
    std::string text(call_names[static_cast<size_t>(function)]);
    text += '(' + db_name(db_id) + ", " + typed_text(message) + ')' + answered(code);
    if (store != &the_global) text += " with a foreign store handle";
    if (zero1 != 0 || zero2 != 0) text += " with arguments that are not 0";
    return text;
  });
  return code;
}

void record_entries(const char *kind, const mom_ds_entry *entries, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    record([&] {
      const mom_ds_entry &entry = entries[i];
      std::string text = std::string("  ") + kind + ' ' + std::to_string(i) + ' ' + db_name(entry.db_id) + ' ';
      text += typed_text(entry.record) + " enabled=" + std::to_string(entry.enabled);
      text += " output=" + std::to_string(entry.is_output);
      if (entry.reserved1 != 0 || entry.reserved2 != 0 || entry.reserved3 != 0) text += " reserved words not 0";
      return text;
    });
  }
}

}  // namespace

int32_t answer(call function) {
  const uint64_t number = ++now.calls[static_cast<size_t>(function)];
  if (++now.all_calls == now.any_at) {
    now.failed += now.any_code != 0;
    return now.any_code;
  }
  if (now.failures.empty()) return 0;
  const auto due = std::find_if(now.failures.begin(), now.failures.end(), [&](const failure &waiting) {
    return waiting.function == function && waiting.at == number;
  });
  if (due == now.failures.end()) return 0;
  const int32_t code = due->code;
  now.failed += code != 0;
  now.failures.erase(due);
  return code;
}

void reset() {
  now = state{};
  alloc_fail_at(0, false);
  forget_refused_allocations();
}

void trace_on(bool on) { now.tracing = on; }

void store_on(bool on) { now.storing = on; }

void record_lists(bool on) { now.lists = on; }

std::vector<std::string> &trace() { return now.lines; }

std::vector<std::string> take_trace() { return std::exchange(now.lines, {}); }

void note(std::string line) {
  record([&] { return std::move(line); });
}

uint64_t call_count() { return now.all_calls; }

uint64_t format_count() { return now.formatted; }

void fail(std::string_view function, uint64_t k, int32_t code) {
  const auto *name = std::find(std::begin(call_names), std::end(call_names), function);
  if (name == std::end(call_names) || k == 0)
    throw std::invalid_argument("no call to fail: " + std::string(function) + ", " + std::to_string(k));
  const auto index = static_cast<size_t>(name - std::begin(call_names));
  now.failures.push_back({static_cast<call>(index), now.calls[index] + k, code});
}

void fail_any(uint64_t k, int32_t code) {
  now.any_at = k == 0 ? 0 : now.all_calls + k;
  now.any_code = code;
}

void fail_none() {
  now.failures.clear();
  now.any_at = 0;
}

size_t pending_failures() { return now.failures.size() + (now.any_at > now.all_calls ? 1 : 0); }

void translate(uint32_t ifx, uint32_t phyid) { now.phyids[ifx] = phyid; }

void translation_fails(uint32_t ifx, int32_t code) { now.untranslatable[ifx] = code; }

uint64_t failure_count() { return now.failed + refused_allocations(); }

const store_contents &store() { return now.store; }

std::vector<std::string> store_text() {
  std::vector<std::string> lines;
  for (const auto &[db_id, hashes] : now.store)
    for (const auto &[type, records] : hashes)
      for (const auto &[key, record] : records)
        lines.push_back(db_name(db_id) + ' ' + typed_text(ko_store::unpack(*now.types.at(type), record).get()));
  return lines;
}

vx_global *global() { return &the_global; }

vx_zlog_category *category(const char *name) {
  static std::map<std::string, vx_zlog_category> categories;
  return &categories.try_emplace(name, vx_zlog_category{name}).first->second;
}

void name_pointer(const void *pointer, std::string name) { now.names[pointer] = std::move(name); }

void on_run(std::function<void()> body) { now.run = std::move(body); }

rdnd_awake_cb awake() { return now.awake; }

vx_mom_event_cb handler(uint32_t db_id, std::string_view message, uint32_t kind) {
  for (const registration &one : now.handlers)
    if (one.db_id == db_id && one.message == message && one.kind == kind) return one.handler;
  return nullptr;
}

vx_mom_all_ds_cb all_ds_handler() { return now.all_ds; }

}  // namespace recording

using recording::answer;
using recording::answered;
using recording::call;
using recording::now;
using recording::pointer_name;
using recording::record;
using recording::record_call;

extern "C" {

// ---- record store ----

int32_t vx_mom_set(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1, uint32_t zero2) {
  return record_call(call::vx_mom_set, store, db_id, message, zero1, zero2);
}

int32_t vx_mom_del(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1, uint32_t zero2) {
  return record_call(call::vx_mom_del, store, db_id, message, zero1, zero2);
}

int32_t vx_mom_publish(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1,
                       uint32_t zero2) {
  return record_call(call::vx_mom_publish, store, db_id, message, zero1, zero2);
}

vx_mom_ab *vx_mom_ab_init(vx_global *global, const char *app_name, const vx_mom_ab_opt *opt) {
  const int32_t code = answer(call::vx_mom_ab_init);
  record([&] {
    return std::string("vx_mom_ab_init(") + (global == nullptr ? "null" : "context") + ", \"" + app_name + "\", {" +
           std::to_string(opt->word[0]) + ' ' + std::to_string(opt->word[1]) + "})" + (code == 0 ? "" : " = null");
  });
  return code == 0 ? &recording::the_ab : nullptr;
}

uint32_t vx_mom_reg_ds(vx_mom_ab *ab, const mom_ds_entry *inputs, uint32_t n_inputs, const mom_ds_entry *outputs,
                       uint32_t n_outputs) {
  const int32_t code = answer(call::vx_mom_reg_ds);
  now.inputs.assign(inputs, inputs + n_inputs);
  record([&] {
    return std::string("vx_mom_reg_ds(") + (ab == &recording::the_ab ? "" : "a foreign handle, ") +
           std::to_string(n_inputs) + " inputs, " + std::to_string(n_outputs) + " outputs)" + answered(code);
  });
  recording::record_entries("input", inputs, n_inputs);
  recording::record_entries("output", outputs, n_outputs);
  return code == 0 ? 77 : static_cast<uint32_t>(code);
}

int32_t vx_mom_set_ds_opt(vx_mom_ab *ab, uint32_t ds, uint32_t option, const uint32_t *value) {
  const int32_t code = answer(call::vx_mom_set_ds_opt);
  record([&] {
    return std::string("vx_mom_set_ds_opt(") + (ab == &recording::the_ab ? "" : "a foreign handle, ") +
           std::to_string(ds) + ", " + std::to_string(option) + ", " + std::to_string(*value) + ')' + answered(code);
  });
  return code;
}

int32_t vx_mom_reg_key_event(vx_mom_ab *ab, const mom_ds_entry *input, uint32_t kind, vx_mom_event_cb handler,
                             void *user) {
  const int32_t code = answer(call::vx_mom_reg_key_event);
  const char *type = input->record->descriptor->name;
  record([&] {
    return std::string("vx_mom_reg_key_event(") + (ab == &recording::the_ab ? "" : "a foreign handle, ") +
           recording::db_name(input->db_id) + ' ' + type + ", " + std::to_string(kind) + ", " +
           pointer_name(reinterpret_cast<const void *>(handler)) + ", " + pointer_name(user) + ')' + answered(code);
  });
  if (code == 0) now.handlers.push_back({input->db_id, type, kind, handler});
  return code;
}

int32_t vx_mom_reg_all_ds_event(vx_mom_ab *ab, uint32_t flags, vx_mom_all_ds_cb handler, void *user) {
  const int32_t code = answer(call::vx_mom_reg_all_ds_event);
  record([&] {
    return std::string("vx_mom_reg_all_ds_event(") + (ab == &recording::the_ab ? "" : "a foreign handle, ") +
           std::to_string(flags) + ", " + pointer_name(reinterpret_cast<const void *>(handler)) + ", " +
           pointer_name(user) + ')' + answered(code);
  });
  if (code == 0) now.all_ds = handler;
  return code;
}

// ---- global context, redundancy, monitor ----

vx_global *vx_global_init(const char *proc_name) {
  const int32_t code = answer(call::vx_global_init);
  record([&] { return std::string("vx_global_init(\"") + proc_name + "\")" + (code == 0 ? "" : " = null"); });
  return code == 0 ? &recording::the_global : nullptr;
}

void vx_global_run(vx_global *global) {
  record([&] { return std::string("vx_global_run(") + (global == &recording::the_global ? "context)" : "?)"); });
  if (now.run) now.run();
}

void vx_global_finish(vx_global *global) {
  record([&] { return std::string("vx_global_finish(") + (global == &recording::the_global ? "context)" : "?)"); });
}

int32_t rdnd_lib_mom_reg(const rdnd_mom_reg_info *info) {
  const int32_t code = answer(call::rdnd_lib_mom_reg);
  record([&] {
    std::string text = std::string("rdnd_lib_mom_reg(\"") + info->app_name + '"';
    text += info->instance == recording::the_global.instance ? ", instance" : ", ?";
    text += info->global == &recording::the_global ? ", context" : ", ?";
    text += ", " + pointer_name(reinterpret_cast<const void *>(info->awake));
    text += ", " + pointer_name(reinterpret_cast<const void *>(info->awake_peer));
    for (const uintptr_t word : info->reserved) text += ", " + std::to_string(word);
    text += ", [";
    for (uint32_t i = 0; i < info->n_db; ++i) text += (i == 0 ? "" : " ") + std::to_string(info->db_list[i]);
    return text + "])" + answered(code);
  });
  if (code == 0) now.awake = info->awake;
  return code;
}

int32_t reg_process_exit_action(pid_t pid, uint32_t action) {
  const int32_t code = answer(call::reg_process_exit_action);
  record([&] {
    return "reg_process_exit_action(" + (pid == getpid() ? "self" : std::to_string(pid)) + ", " +
           std::to_string(action) + ')' + answered(code);
  });
  return code;
}

// ---- interface translation ----

int32_t libddm_init(vx_global *global, const char *app_name) {
  const int32_t code = answer(call::libddm_init);
  record([&] {
    return std::string("libddm_init(") + (global == &recording::the_global ? "context" : "?") + ", \"" + app_name +
           "\")" + answered(code);
  });
  return code;
}

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid) {
  int32_t code = answer(call::libddm_get_phyid_by_ifx);
  if (const auto known = now.untranslatable.find(ifx); code == 0 && known != now.untranslatable.end()) {
    code = known->second;
    now.failed += code != 0;
  }
  if (code == 0) {
    const auto known = now.phyids.find(ifx);
    *phyid = known == now.phyids.end() ? ifx + recording::phyid_offset : known->second;
  }
  record([&] {
    return "libddm_get_phyid_by_ifx(" + std::to_string(ifx) + ')' +
           (code == 0 ? " -> " + std::to_string(*phyid) : answered(code));
  });
  return code;
}

// ---- logging ----

vx_zlog_category *vx_zlog_init(const char *category_name) {
  const int32_t code = answer(call::vx_zlog_init);
  record([&] { return std::string("vx_zlog_init(\"") + category_name + "\")" + (code == 0 ? "" : " = null"); });
  return code == 0 ? recording::category(category_name) : nullptr;
}

void vxdf_zlog(vx_zlog_category *category, const char *file, size_t file_len, const char *func, size_t func_len,
               long line, int level, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char text[2048];
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  record([&] {
    std::string out = category->name == "ko_lspan" ? "" : '[' + category->name + "] ";
    switch (level) {
      case VX_ZLOG_DEBUG:
        out += "debug ";
        break;
      case VX_ZLOG_INFO:
        out += "info ";
        break;
      case VX_ZLOG_WARN:
        out += "warn ";
        break;
      case VX_ZLOG_ERROR:
        out += "error ";
        break;
      default:
        out += "level " + std::to_string(level) + ' ';
    }
    out += std::string(func) + ": " + ko_store::escaped(text);
    if (std::strcmp(format, "%s") != 0) out += " with a format of its own";
    if (file_len != std::strlen(file) || func_len != std::strlen(func)) out += " with a wrong length";
    if (file[0] == '/' || line <= 0) out += " with a place of its own";
    return out;
  });
}

int at_snprintf(char *buffer, size_t size, const char *format, ...) {
  ++now.formatted;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

}  // extern "C"
