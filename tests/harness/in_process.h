// The daemon's own code in this process, on a store in memory that misbehaves as a test wants.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "records.h"
#include "store/memory_engine.h"
#include "store/registration.h"

namespace harness {

// What the daemon reads, and what it writes.
extern const std::vector<ko_store::hash_id> input_hashes, output_hashes;

// Called with each line that anybody in this process logs; null: the lines go nowhere.
extern void (*on_log)(int level, std::string_view text);

// The engine between the daemon and the store in memory.
class scrambler final : public ko_store::engine, private ko_store::engine_user {
 public:
  explicit scrambler(std::shared_ptr<ko_store::memory_engine> store) : inner(std::move(store)) {}

  const std::shared_ptr<ko_store::memory_engine> inner;
  bool holds = false;             // announcements wait for release
  bool loses = false;             // writes do not arrive, and that comes out when the connection breaks
  bool every_second = false;      // of those, every second one does arrive
  bool pieces = false;            // hashes are read a record at a time, and twice
  bool full = false;              // congested
  bool unreadable_next = false;   // the next hash that is read cannot be read
  std::function<void()> between;  // called once, when the first hash was read and the others were not

  // Hands out what was held: changes of one key in their order, all else in any, some of them twice. `drop`: one of
  // them never. Returns whether one was dropped. `below` makes the choices.
  bool release(const std::function<size_t(size_t bound)> &below, bool drop);
  void cut();  // the connection breaks
  void join();
  void reconnect() { cut(), cut_ = false, user_->up(); }  // at once; what was announced before still comes
  bool is_cut() const { return cut_; }
  void garbage(size_t input) { user_->malformed(input); }
  void lie(size_t input, const ko_store::change &what) { user_->changed(input, what); }
  void request(std::string_view text) { user_->requested(text); }
  void relieve() { full = false, user_->relieved(); }

  void start(engine_user &user, std::vector<ko_store::hash_id> hashes, size_t n_inputs) override;
  void scan(size_t hash) override;
  void fetch(size_t input, std::string_view key) override;
  void write(const ko_store::change &what) override;
  bool congested() const override { return full; }

 private:
  struct held_change {
    size_t input;
    ko_store::owned_change what;
  };

  void up() override;
  void down() override {}
  void changed(size_t input, const ko_store::change &what) override;
  void malformed(size_t) override {}
  void page(size_t hash, std::span<const ko_store::change> records, bool last) override;
  void page_in_pieces(size_t hash, std::span<const ko_store::change> records, bool last);
  void unreadable(size_t hash, std::string_view why) override;
  void fetched(size_t input, std::string_view key, std::optional<std::string_view> record) override;
  void not_written(const ko_store::change &what, std::string_view why) override;
  void relieved() override {}
  void requested(std::string_view) override {}
  void must_be_up() const;

  engine_user *user_ = nullptr;
  std::vector<ko_store::hash_id> hashes_;
  size_t n_inputs_ = 0;
  bool cut_ = false;
  std::vector<held_change> held_;
  std::vector<ko_store::owned_change> lost_;
};

// The daemon and its store; one at a time.
class world {
 public:
  // On a store that holds these records; start comes next.
  explicit world(std::vector<record> stored = {});
  world(const world &) = delete;
  ~world();

  scrambler *wire = nullptr;                 // of the running daemon
  ko_store::memory_engine *store = nullptr;  // likewise; from one to the next it is the same
  uint8_t runs = 0;                          // whether the event loop is to run

  int32_t start();  // as main does it; the status
  ko_store::registration &tested();
  // Ends the daemon with all that it had in memory, and its store unless that is kept; starts it.
  void kill(bool keeps_store = true);
  void restart();
  void step();  // serves the loop once
  void turn();  // and until the daemon has nothing to do
  void put(const record &what, ko_store::change_kind kind = ko_store::change_kind::set) {
    store->put(what.change(kind));
  }

  using contents = std::map<std::string, std::map<std::string, std::string, std::less<>>>;
  contents outputs();
  std::vector<record> inputs();
  void clear();  // takes all inputs away

 private:
  std::shared_ptr<ko_store::memory_engine> between_daemons_;
};

}  // namespace harness
