// The daemon behind the access list of the sample configuration: nothing is missing, nothing is too much, and whichever
// right is taken away is named in the log and used again as soon as it is back.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "sandbox.h"
#include "store/layout.h"

namespace {

using namespace harness;
using words = std::vector<std::string>;

constexpr const char *user = "ko_lspan", *password = "secret";

// The rights of the sample's line for the daemon; those of the selector keep its opening parenthesis.
words sample_rights() {
  std::istringstream file(read_file(SAMPLE_CONFIGURATION));
  std::string line, word;
  while (std::getline(file, line) && !line.starts_with(std::string("user ") + user)) {
  }
  std::istringstream text(line);
  words rights;
  for (bool selected = false; text >> word;) {
    selected = selected || word[0] == '(';
    while (word.starts_with('(')) word.erase(0, 1);
    while (word.ends_with(')')) word.pop_back();
    if (word.find_first_of("+%~&") == 0) rights.push_back((selected ? "(" : "") + word);
  }
  return rights;
}

// Sets the rights of the daemon, without the one at `left_out`.
void grant(client &server, const words &rights, size_t left_out) {
  words command{"ACL", "SETUSER", user, "reset", "on", std::string(">") + password}, selector;
  for (size_t i = 0; i < rights.size(); ++i) {
    if (i == left_out) continue;
    if (rights[i][0] == '(')
      selector.push_back(rights[i].substr(1));
    else
      command.push_back(rights[i]);
  }
  std::string selected;
  for (const std::string &right : selector) selected += (selected.empty() ? "" : " ") + right;
  command.push_back("(" + selected + ")");
  ASSERT_EQ(server.run(command), "OK");
}

// Whether a line of the log says that `right` is missing: the command, or the message of the key or channel.
bool tells(const std::string &log, std::string right) {
  if (right[0] == '(') right.erase(0, 1);
  const size_t name = right[0] == '+' ? 1 : right.find_first_of("~:") + 1;
  right = right[0] == '+' ? "'" + right.substr(name) + "' command" : right.substr(name, right.find('*') - name);
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    if (line.find(right) != std::string::npos &&
        (line.find("NOPERM") != std::string::npos || line.find("is refused") != std::string::npos))
      return true;
  return false;
}

// Events that need every right: records of all kinds come and go, and an announcement that has to be read again.
void play(const sandbox &box) {
  const member stays{.session = 1, .s_ifx = 11, .d_ifx = 12}, goes{.session = 2, .s_ifx = 21, .d_ifx = 22};
  producer others(box.socket());
  for (const record &what : {session(stays), session(goes), membership(31, 7), result(stays, 3), result({9, 1, 2})})
    others.set(what);
  others.del(session(goes));
  others.flush();
  std::string garbled;
  ko_store::append_announcement({ko_store::change_kind::set, session(stays).key, "\xff"}, garbled);
  others.announce(4, "u_monitor.mirror_lspan_info", garbled);
  others.flush();
}

bool read_or_refused(const std::string &log) {
  return log.find("lspan ds over.") != std::string::npos || log.find("NOPERM") != std::string::npos;
}

TEST(acl, each_right_is_needed_and_named) {
  const words rights = sample_rights();
  ASSERT_GT(rights.size(), 20U);
  sandbox box;
  box.use_socket(box.socket(), R"(,"user":"ko_lspan","password":"secret")");
  box.start_server();
  client server(box.socket());
  std::vector<std::string> complete;
  for (size_t missing = rights.size(); missing <= rights.size(); --missing) {  // first of all, none
    const bool all = missing == rights.size();
    SCOPED_TRACE(all ? "all rights" : "without " + rights[missing]);
    server.run({"FLUSHALL"});
    grant(server, rights, missing);
    std::filesystem::remove(box.folder() + "/log");
    box.start_daemon();
    if (!eventually([&] { return read_or_refused(box.log()); }, "the first read")) return;
    play(box);
    if (!all && !eventually([&] { return tells(box.log(), rights[missing]); }, "its name")) ADD_FAILURE() << box.log();
    grant(server, rights, rights.size());
    if (!box.settle()) return;
    if (all) {
      complete = box.dump();
      EXPECT_EQ(box.log().find("NOPERM"), std::string::npos) << box.log();
    }
    eventually([&] { return box.dump() == complete; }, "the records: " + difference(box.dump(), complete));
    box.daemon().stop();
  }
}

}  // namespace
