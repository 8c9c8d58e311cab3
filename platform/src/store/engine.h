// The parts of the store: an engine keeps records and announces changes; its user, the registration of one process,
// decides what to read and write. Engines: Redis, and the process's own memory.
//
// All calls in both directions happen on the thread of the event loop. An engine never calls its user from inside a
// call of the user's.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "store/change.h"

namespace ko_store {

// What keeps a process from writing beside another that has taken over from it.
struct fence {
  std::string key, value;       // what is written is carried out only while the text at this key is this
  std::function<bool()> holds;  // asked before anything is sent; false: nothing may be sent any more
};

class engine_user {
 public:
  virtual ~engine_user() = default;

  // The engine can be read and written, and every change from now on will be announced.
  virtual void up() = 0;
  // The engine cannot be used any more; reads that were under way bring nothing. It tries by itself to come back.
  virtual void down() = 0;
  // A change of the input `input` was announced.
  virtual void changed(size_t input, const change &announced) = 0;
  // Something that is no announcement came for the input `input`.
  virtual void malformed(size_t input) = 0;
  // Records of hash `hash`, as sets; `last` ends a scan. A record may come twice. What the user writes during the call
  // may take the bytes of the record that it changes away.
  virtual void page(size_t hash, std::span<const change> records, bool last) = 0;
  // The hash cannot be read. `why` is the engine's reason.
  virtual void unreadable(size_t hash, std::string_view why) = 0;
  // The answer to a fetch: the record as it is stored now, or nothing.
  virtual void fetched(size_t input, std::string_view key, std::optional<std::string_view> record) = 0;
  // The engine did not write `lost`: it was refused, or its outcome is unknown after a break (`why` is empty).
  virtual void not_written(const change &lost, std::string_view why) = 0;
  // The engine can take more after it was congested.
  virtual void relieved() = 0;
  // A request of another process came; see engine::serve.
  virtual void requested(std::string_view request) = 0;
  // The fence does not hold any more. The engine has ended what it did; nothing of the user's will be written.
  virtual void fenced_off() {}
};

class engine {
 public:
  virtual ~engine() = default;

  // Begins to serve `user` (borrowed for the engine's life). `hashes` are numbered from 0 in what follows; changes of
  // the first `n_inputs` are announced. Called again, it forgets everything from before.
  virtual void start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) = 0;

  // To be called before start: connections carry the name of `program`, and what is published on the channel
  // "<program>.request" are requests. A store that does not allow either is used all the same.
  virtual void serve(const std::string &) {}
  // Publishes a text that is no change, behind what was written before. Only while up.
  virtual void publish(std::string_view, std::string_view) {}

  // To be called before start, for a process that is one of several.
  virtual void put_behind(const fence &) {}

  // Reads a whole hash; the answers are calls of page, or one of unreadable. It takes the place of a scan of the same
  // hash that is under way. Only while up.
  virtual void scan(size_t hash) = 0;
  // Reads one record of an input. Only while up.
  virtual void fetch(size_t input, std::string_view key) = 0;
  // Takes a change; it is carried out after those taken before. Only while up.
  virtual void write(const change &what) = 0;
  // Whether so much is under way that long work should wait for relieved.
  virtual bool congested() const = 0;
  // Whether every write has its outcome.
  virtual bool quiet() const { return true; }
};

}  // namespace ko_store
