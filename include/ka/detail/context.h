// The thread context: what the runtime knows of one thread. Every room of the runtime core reads
// it, so the record and the way to the calling thread's own stand below all of them.
#pragma once

#include <ka/base.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ka {
struct trans_record;
}

struct ka_context {
  static constexpr std::int32_t kStackSize = 20480;  // entries of the module stack
  static constexpr std::size_t kPinSlots = 32767;    // pin counters of job elements

  std::int32_t thread;  // index in the thread table, 0 to 1023; 1024: the network thread
  std::uint32_t transaction, session, world;  // tags, 0: the default
  std::int32_t host;                          // -1: not part of a network of hosts
  ka::trans_record* transaction_record;
  ka::trans_record* session_record;
  ka::trans_record* world_record;
  void** transaction_areas;  // each: KA_MODULE_COUNT pointers indexed by module
  void** session_areas;
  void** world_areas;
  void** context_areas;  // null until the thread asks for its first area
  void* mem_stats;       // the area of KA_MEM while the thread counts its memory in it, or null
  bool areas_hidden;     // being released: a purge by another thread must not look at them
  std::int32_t depth;    // index of the top entry of the module stack
  std::array<std::int32_t, kStackSize> modules;  // entry 0 is a floor
  std::array<std::uint16_t, kPinSlots> pins;
};

namespace ka {

// The calling thread's context. Threads that nobody registered, and every thread before the first
// registration, share a static one: messages and allocations work from the first instruction of the
// process. The model spares position-independent code a function call per access, which every push
// of a module and every allocation would feel.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local ka_context* current_context;

inline ka_context& context() { return *current_context; }

inline void push_module(ka_context& context, std::int32_t module) {
  if (++context.depth < ka_context::kStackSize)
    context.modules[std::size_t(context.depth)] = module;
}

inline void pop_module(ka_context& context) {
  if (context.depth > 0) --context.depth;
}

// The module `below` entries under the top of the stack.
inline int module_at(const ka_context& context, std::int32_t below) {
  const std::int32_t top =
      context.depth < ka_context::kStackSize ? context.depth : ka_context::kStackSize - 1;
  return top >= below ? context.modules[std::size_t(top - below)] : KA_NULL;
}

}  // namespace ka
