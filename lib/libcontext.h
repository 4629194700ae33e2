// What this room keeps for each thread: its context area.
#pragma once

#include <array>
#include <cstdint>

namespace ka {

struct LibContext {
  std::array<std::array<std::uint16_t, 3>, 9> random;  // states of ka_taskrandom, low words first
  std::uint16_t expansions;  // nested actions of registry entries, to stop endless ones
};
static_assert(sizeof(LibContext) == 56);

// The calling thread's; zeroed when the thread asks for the first time.
LibContext& lib_context();

}  // namespace ka
