// Pins of job elements, which each thread counts for itself.
#pragma once

#include <cstdint>

namespace ka {

// Whether the counters of all threads, also of those that have ended, hold a pin of a slot. A thread
// may take back what another one has pinned: only their sum says anything.
bool slot_is_pinned(std::uint16_t slot);

}  // namespace ka
