#include "store/pending_writes.h"

#include <functional>
#include <utility>

namespace ko_store {
namespace {

// What tells it from others of its hash.
std::string_view name_of(const change &what) { return what.kind == change_kind::publish ? what.record : what.key; }

}  // namespace

size_t pending_writes::hash::operator()(const change &what) const {
  return std::hash<std::string_view>{}(name_of(what));
}

bool pending_writes::same::operator()(const change &one, const change &other) const {
  const bool is_published = one.kind == change_kind::publish;
  return one.hash == other.hash && is_published == (other.kind == change_kind::publish) &&
         name_of(one) == name_of(other);
}

void pending_writes::add(const change &what) {
  if (!held_.has_value()) held_.emplace();
  owned_change copy = copy_of(what);
  auto older = held_->writes.find(what);
  if (older == held_->writes.end()) {
    held_->writes.insert(std::move(copy));
  } else {
    auto node = held_->writes.extract(older);
    node.value() = std::move(copy);
    held_->writes.insert(std::move(node));
  }
}

void pending_writes::drop(const change &what) {
  if (empty()) return;
  const auto found = held_->writes.find(what);
  if (found != held_->writes.end()) held_->writes.erase(found);
}

void pending_writes::pop() {
  held_->writes.erase(held_->writes.begin());
  if (held_->writes.empty()) held_.reset();
}

}  // namespace ko_store
