// Circular, doubly linked lists: the daemon's own, and the shape in which it walks the platform's mirror lists. A link
// is the first member of every entry; a list is empty when its head points at itself.
#pragma once

#include "mirror_list.h"

inline void ko_list_init(mirror_link *head) {
  head->next = head;
  head->prev = head;
}

inline bool ko_list_empty(const mirror_link *head) { return head->next == head; }

inline void ko_list_add_tail(mirror_link *head, mirror_link *link) {
  link->next = head;
  link->prev = head->prev;
  head->prev->next = link;
  head->prev = link;
}

// Takes a link out of its list; the link itself is left as it was.
inline void ko_list_unlink(mirror_link *link) {
  link->prev->next = link->next;
  link->next->prev = link->prev;
}

// The entry that a list position is.
template <typename Entry>
Entry *ko_list_entry(mirror_link *link) {
  return reinterpret_cast<Entry *>(link);
}
