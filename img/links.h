// Circular lists whose links are part of the records.
#pragma once

namespace ka {

// A record derives from it; a list is a link that belongs to no record.
struct Link {
  Link* previous = this;
  Link* next = this;

  constexpr Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  [[nodiscard]] bool is_alone() const { return next == this; }
};

inline void unlink(Link& link) {
  link.previous->next = link.next;
  link.next->previous = link.previous;
  link.previous = link.next = &link;
}

inline void link_after(Link& place, Link& link) {
  link.previous = &place;
  link.next = place.next;
  place.next->previous = &link;
  place.next = &link;
}

// Makes a record of a list its first one.
inline void move_to_front(Link& list, Link& link) {
  if (list.next == &link) return;
  unlink(link);
  link_after(list, link);
}

}  // namespace ka
