// The calls of the record store.
#include "vx_mom.h"

#include <exception>
#include <fstream>
#include <memory>
#include <new>
#include <string>

#include "platform_config.h"
#include "platform_log.h"
#include "store/redis_engine.h"
#include "store/registration.h"
#include "store/store.h"

using ko_store::change_kind;
using ko_store::registration;

namespace {

ko_store::engine_factory &factory() {
  static ko_store::engine_factory instance;
  return instance;
}

std::unique_ptr<ko_store::engine> make_engine(vx_global &global) {
  if (factory()) return factory()(global);
  return std::make_unique<ko_store::redis_engine>(global, ko_platform::process_config().store);
}

// Runs a call's work; nothing is thrown into the caller's C.
template <class Work>
int32_t guarded(Work &&work) {
  try {
    return work();
  } catch (const std::bad_alloc &) {
    PLATFORM_ERROR("memory is exhausted");
    return VX_MOM_MISSING;
  }
}

registration &registration_of(vx_mom_ab *ab) { return *static_cast<registration *>(ab); }

int32_t write(vx_global *store, uint32_t db, const ProtobufCMessage *message, change_kind kind) {
  return guarded([&]() -> int32_t {
    registration *target = ko_store::registration_of(store);
    if (target == nullptr) return VX_MOM_INVALID;
    if (message == nullptr) return VX_MOM_MISSING;
    return target->put(db, *message, kind);
  });
}

// Who brings no context has not read its command line either.
void tell_passed_over(const char *app_name) {
  std::ifstream file("/proc/self/cmdline");
  std::string word;
  std::string words;
  std::getline(file, word, '\0');  // the program
  while (std::getline(file, word, '\0')) words += " " + word;
  if (!words.empty()) PLATFORM_WARN("%s takes no arguments, and starts without%s", app_name, words.c_str());
}

}  // namespace

void ko_store::use_engine(engine_factory new_factory) { factory() = std::move(new_factory); }

vx_mom_ab *vx_mom_ab_init(vx_global *global, const char *app_name, const vx_mom_ab_opt *) try {
  ko_platform::process_config();  // throws here when the file cannot be used, before anything depends on it
  if (global == nullptr) tell_passed_over(app_name == nullptr ? "this program" : app_name);
  std::unique_ptr<vx_global, decltype(&vx_global_finish)> made_here(
      global == nullptr ? vx_global_init(app_name) : nullptr, vx_global_finish);
  vx_global *context = global != nullptr ? global : made_here.get();
  if (context == nullptr) return nullptr;
  auto made = std::make_unique<registration>(*context, app_name == nullptr ? "" : app_name, make_engine(*context));
  registration *result = made.get();
  ko_platform::context_of(context).store = std::move(made);
  ko_platform::context_of(context).requests.publish = [result](std::string_view channel, std::string_view text) {
    result->publish(channel, text);
  };
  (void)made_here.release();
  return result;
} catch (const std::bad_alloc &) {
  PLATFORM_ERROR("memory is exhausted");
  return nullptr;
} catch (const std::exception &error) {
  PLATFORM_ERROR("%s", error.what());
  return nullptr;
}

uint32_t vx_mom_reg_ds(vx_mom_ab *ab, const mom_ds_entry *inputs, uint32_t n_inputs, const mom_ds_entry *outputs,
                       uint32_t n_outputs) try {
  if (ab == nullptr || (inputs == nullptr && n_inputs > 0) || (outputs == nullptr && n_outputs > 0)) return 0;
  return registration_of(ab).declare(inputs, n_inputs, outputs, n_outputs);
} catch (const std::bad_alloc &) {
  PLATFORM_ERROR("memory is exhausted");
  return 0;
}

int32_t vx_mom_set_ds_opt(vx_mom_ab *ab, uint32_t ds, uint32_t option, const uint32_t *value) {
  if (ab == nullptr || value == nullptr) return VX_MOM_INVALID;
  return registration_of(ab).set_option(ds, option, *value);
}

int32_t vx_mom_reg_key_event(vx_mom_ab *ab, const mom_ds_entry *input, uint32_t kind, vx_mom_event_cb handler,
                             void *user) {
  if (ab == nullptr || input == nullptr) return VX_MOM_INVALID;
  return registration_of(ab).on_key_event(*input, kind, {handler, user});
}

int32_t vx_mom_reg_all_ds_event(vx_mom_ab *ab, uint32_t, vx_mom_all_ds_cb handler, void *user) {
  if (ab == nullptr || handler == nullptr) return VX_MOM_INVALID;
  registration_of(ab).on_all_read(handler, user);
  return VX_MOM_OK;
}

int32_t vx_mom_set(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t) {
  return write(store, db_id, message, change_kind::set);
}

int32_t vx_mom_del(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t) {
  return write(store, db_id, message, change_kind::del);
}

int32_t vx_mom_publish(vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t, uint32_t) {
  return write(store, db_id, message, change_kind::publish);
}
