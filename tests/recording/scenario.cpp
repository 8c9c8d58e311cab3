#include "scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <sstream>

#include "attributes.h"
#include "driver.h"
#include "proc/lspan/ko_lspan.h"
#include "recording.h"
#include "u_bridge.pb-c.h"

namespace scenario {
namespace {

const bool print = std::getenv("SCENARIO_PRINT") != nullptr;

uint32_t number(const std::string &text) {
  size_t used = 0;
  const auto value = static_cast<uint32_t>(std::stoll(text, &used, 0));
  if (used != text.size()) throw std::invalid_argument("no number: " + text);
  return value;
}

std::vector<uint32_t> numbers(const std::string &text) {
  std::vector<uint32_t> values;
  std::istringstream in(text);
  for (std::string one; std::getline(in, one, ',');) {
    const size_t times = one.find('*');
    const uint32_t count = times == std::string::npos ? 1 : number(one.substr(times + 1));
    values.insert(values.end(), count, number(one.substr(0, times)));
  }
  return values;
}

// What an event's line says in name=value pairs.
struct event {
  driver::member member{.dir = 0};
  uint32_t ifx = 0, group = 0, result = 0, msg_type = 0;
  std::string user = "du_span";

  explicit event(const words &line) {
    for (const std::string &pair : line)
      if (const size_t split = pair.find('='); split != std::string::npos)
        read(pair.substr(0, split), pair.substr(split + 1));
    if (group == 0) return;
    member.module = U_MONITOR__MIRROR_MODULE__GROUP;
    member.d_ifx = driver::group_target(group);
  }

  void read(const std::string &name, const std::string &value) {
    const std::map<std::string, uint32_t *> fields = {{"session", &member.session},
                                                      {"s", &member.s_ifx},
                                                      {"d", &member.d_ifx},
                                                      {"dir", &member.dir},
                                                      {"acl", &member.acl},
                                                      {"module", &member.module},
                                                      {"role", &member.role},
                                                      {"apply", &member.apply},
                                                      {"switch", &member.mtp_switch},
                                                      {"rate", &member.sample},
                                                      {"ifx", &ifx},
                                                      {"group", &group},
                                                      {"result", &result},
                                                      {"msg_type", &msg_type}};
    if (name == "user")
      user = value;
    else if (name == "vlan")
      member.vlans = numbers(value);
    else
      *fields.at(name) = number(value);
  }
};

// An event whose record is missing, or lacks its index.
int32_t send_nothing(const std::string &kind, bool record) {
  UMonitor__MirrorLspanInfo member = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  PPolicy__DataIntfConf group = P_POLICY__DATA_INTF_CONF__INIT;
  UMonitor__MirrorResultInfo result = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  if (kind == "member") return ko_lspan_info_handle(nullptr, 0, record ? &member : nullptr);
  if (kind == "group") return ko_lspan_outgrb_handle(nullptr, 0, record ? &group : nullptr);
  if (kind == "result") return ko_lspan_mom_result_info_set(nullptr, 0, record ? &result : nullptr);
  throw std::invalid_argument("no event: " + kind);
}

// Sends the event of the line and puts its status into the trace; false when the line is none.
bool send_event(const words &line) {
  const event what(line);
  const bool is_del = line[0] == "del";
  int32_t status = 0;
  if (line[0] == "set" || is_del) {
    status = line.at(1) == "member" ? driver::member_event(what.member, is_del)
                                    : driver::group_event(what.ifx, what.group, is_del);
  } else if (line[0] == "result") {
    status = driver::result_event(what.member, what.user, what.result, what.msg_type);
  } else if (line[0] == "null" || line[0] == "noindex") {
    status = send_nothing(line.at(1), line[0] == "noindex");
  } else {
    return false;
  }
  recording::note("= " + std::to_string(status));
  return true;
}

// A search that copies what it finds, into a copy that was something else before.
int32_t search(const span_info &info) {
  src_info copy;
  memset(&copy, 7, sizeof(copy));
  const int32_t status =
      ko_span_search_src_info(&lspan_global.session_list, info.session_num, info.s_ifx, info.dir, info.acl_id, &copy);
  for (const uint32_t field : {copy.s_phyid, copy.d_phyid, copy.dir, copy.apply_type, copy.acl_id, copy.vlan_map[1]})
    recording::note("  copied " + std::to_string(field));
  return status;
}

// The functions that no event reaches, and those whose status no handler looks at.
int32_t call(const std::string &name, const span_info &info, uint32_t is_del) {
  const std::map<std::string, int32_t (*)(vx_global *, const span_info *, uint32_t)> records = {
      {"vlan_dst", ko_span_mom_vlan_dst_set},
      {"ip_dst", ko_span_mom_ip_dst_set},
      {"vlan_mtp", ko_span_mom_vlan_mtp_set},
      {"ip_mtp", ko_span_mom_ip_mtp_set}};
  if (const auto found = records.find(name); found != records.end())
    return found->second(recording::global(), &info, is_del);
  mirror_link &sessions = lspan_global.session_list;
  if (name == "save") return ko_span_db_save_info(&sessions, &info), 0;
  uint8_t last = 0;
  if (name == "clear") return ko_span_db_clear_info(&sessions, &info, &last), last;
  if (name == "search") return search(info);
  auto *session = reinterpret_cast<mirror_info *>(sessions.next);
  if (name == "src") return ko_span_db_set_src_info(&session->src_list, &info, is_del);
  if (name == "dst") return ko_span_db_set_dst_info(&session->dst_list, &info, is_del);
  if (name == "mtp") return ko_span_db_set_mtp_info(&session->mtp_list, &info, is_del);
  throw std::invalid_argument("no function: " + name);
}

// Calls one of them with the member of the line, whose target is a remote one.
void call(const words &line) {
  const driver::member of = event(line).member;
  span_info info = {};
  info.t_user = ko_lspan_app_name;
  info.session_num = of.session;
  info.s_ifx = of.s_ifx;
  info.d_ifx = of.d_ifx;
  info.dir = of.dir;
  info.module_type = of.module;
  info.role = of.role;
  info.apply_type = of.apply;
  info.acl_id = of.acl;
  info.sample_rate = of.sample;
  info.n_vlan_map = static_cast<uint32_t>(of.vlans.size());
  std::copy(of.vlans.begin(), of.vlans.end(), info.vlan_map);
  info.rspan_vlan = 30;
  info.ip_head = {1, 2, 64, 46, 5};
  info.mtp_switch = static_cast<uint8_t>(of.mtp_switch);
  info.src_is_subif = 1;
  recording::note("= " + std::to_string(call(line.at(1), info, line.at(2) == "del" ? 2 : 0)));
}

using type_texts = std::map<std::string, std::string>;  // by the type's name

const char *describe(const ProtobufCEnumDescriptor &type, type_texts &known) {
  std::string text;
  for (const ProtobufCEnumValue &value : std::span(type.values, type.n_values))
    text += (text.empty() ? "" : ", ") + std::string(value.name) + ' ' + std::to_string(value.value);
  known[type.name] = text;
  return type.name;
}

// A field is its number, type ([]: repeated, packed), name and attribute word (@).
const char *describe(const ProtobufCMessageDescriptor &type, type_texts &known) {
  std::string text;
  for (const ProtobufCFieldDescriptor &field : std::span(type.fields, type.n_fields)) {
    std::string of = "other";
    if (field.type == PROTOBUF_C_TYPE_UINT32) of = "uint32";
    if (field.type == PROTOBUF_C_TYPE_STRING) of = "string";
    if (field.type == PROTOBUF_C_TYPE_BYTES) of = "bytes";
    if (field.type == PROTOBUF_C_TYPE_ENUM)
      of = describe(*static_cast<const ProtobufCEnumDescriptor *>(field.descriptor), known);
    if (field.type == PROTOBUF_C_TYPE_MESSAGE)
      of = describe(*static_cast<const ProtobufCMessageDescriptor *>(field.descriptor), known);
    const bool packed = (field.flags & PROTOBUF_C_FIELD_FLAG_PACKED) != 0;
    if (field.label == PROTOBUF_C_LABEL_REPEATED) of += packed ? "[]" : "[unpacked]";
    if (field.label == PROTOBUF_C_LABEL_OPTIONAL || field.label == PROTOBUF_C_LABEL_REQUIRED) of += '?';
    const uint32_t word = schema_attribute(&type, &field);
    text += (text.empty() ? "" : ", ") + std::to_string(field.id) + ' ' + of + ' ' + field.name +
            (word != 0 ? " @" + std::to_string(word) : "");
  }
  known[type.name] = text;
  return type.name;
}

// The schemas as others have them compiled in: a number or type that changed would be read as something else there.
void show_schemas() {
  type_texts known;
  for (const ProtobufCMessageDescriptor *record :
       {&u_monitor__mirror_lspan_info__descriptor, &u_monitor__mirror_result_info__descriptor,
        &u_monitor__span_port_src_info__descriptor, &u_monitor__span_acl_src_info__descriptor,
        &u_monitor__span_vlan_src_info__descriptor, &u_monitor__span_dst_info__descriptor,
        &u_monitor__span_vlan_dst_info__descriptor, &u_monitor__span_ip_dst_info__descriptor,
        &u_monitor__span_mtp_info__descriptor, &u_monitor__span_vlan_mtp_info__descriptor,
        &u_monitor__span_ip_mtp_info__descriptor, &p_policy__data_intf_conf__descriptor,
        &u_bridge__udp_pt_learn__descriptor, &u_bridge__udp_flushdyn__descriptor})
    describe(*record, known);
  for (const auto &[name, text] : known) recording::note(name + ": " + text);
}

}  // namespace

void run(const words &line) {
  if (send_event(line)) return;
  const std::string &what = line[0];
  if (what == "level") {
    lspan_zlog_level = number(line.at(1));
  } else if (what == "fail") {
    recording::fail(line.at(1), number(line.at(2)), static_cast<int32_t>(number(line.at(3))));
  } else if (what == "phyid") {
    recording::translate(number(line.at(1)), number(line.at(2)));
  } else if (what == "untranslatable") {
    recording::translation_fails(number(line.at(1)), static_cast<int32_t>(number(line.at(2))));
  } else if (what == "lists") {
    recording::record_lists(line.at(1) == "on");
  } else if (what == "out") {
    recording::alloc_fail_at(number(line.at(3)), line.size() > 4 && line[4] == "on");
  } else if (what == "call") {
    call(line);
  } else if (what == "schemas") {
    show_schemas();
  } else if (what == "memory" || what == "store") {
    for (const std::string &text : what == "memory" ? driver::memory_text() : recording::store_text())
      recording::note(text);
  } else {
    throw std::invalid_argument("unknown command: " + what);
  }
}

words split(const std::string &line) {
  std::istringstream in(line.substr(1));
  return {std::istream_iterator<std::string>(in), {}};
}

words shown(words trace, bool translations) {
  std::erase_if(trace, [&](const std::string &line) {
    return !translations && line.starts_with("libddm_get_phyid_by_ifx") && line.find(" -> ") != std::string::npos;
  });
  for (std::string &line : trace)
    for (size_t at = line.find('='); at++ != std::string::npos; at = line.find('=', at)) {
      const size_t end = std::min(line.find_first_not_of("0123456789", at), line.size());
      const uint64_t value = end - at == 10 ? std::stoull(line.substr(at, end - at)) : 0;
      if (value >> 32 == 0 && ko_span_is_group_ifx(static_cast<uint32_t>(value)))
        line.replace(at, 10, "group:" + std::to_string(ko_span_group_id(static_cast<uint32_t>(value))));
    }
  return trace;
}

std::string text_of(const words &trace) {
  std::string text;
  for (const std::string &line : trace) text += line + '\n';
  return text;
}

void check(const std::filesystem::path &file, const std::function<words(const std::string &line)> &step) {
  std::ifstream in(file);
  words expected, actual;
  for (std::string line; std::getline(in, line);) {
    const bool for_the_reader = line.empty() || line.starts_with('#');
    if (for_the_reader ? print : line.starts_with('>')) actual.push_back(line);
    if (!for_the_reader) expected.push_back(line);
    if (!line.starts_with('>')) continue;
    ASSERT_NO_THROW({
      for (std::string &seen : step(line)) actual.push_back(std::move(seen));
    }) << file.filename()
       << ": " << line;
  }
  if (print)
    std::cout << text_of(actual);
  else
    EXPECT_EQ(text_of(expected), text_of(actual));
}

int run_tests(const char *suite, const char *folder, const std::function<void(const std::filesystem::path &)> &body) {
  struct test : testing::Test {
    explicit test(std::function<void()> all) : body(std::move(all)) {}
    void TestBody() override { body(); }
    std::function<void()> body;
  };
  if (print) {
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
  }
  std::set<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(std::string(SCENARIO_DIR) + folder))
    if (entry.path().extension() == ".scn") files.insert(entry.path());
  for (const auto &file : files)
    testing::RegisterTest(suite, file.stem().c_str(), nullptr, nullptr, file.c_str(), 1,
                          [=]() -> testing::Test * { return new test([=] { body(file); }); });
  const int status = RUN_ALL_TESTS();
  driver::reset();
  return files.empty() ? 1 : status;
}

}  // namespace scenario
