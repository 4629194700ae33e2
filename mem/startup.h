// What ka_mem_init starts and ka_mem_exit ends.
#pragma once

#include <ka/msg.h>

#include <atomic>

namespace ka {

extern constinit std::atomic<bool> is_accounting;  // between ka_mem_init and ka_mem_exit

// Creates a lock at initialisation, with an error message when the system refuses.
void start_lock(ka_mutex* lock);

void stats_start();
void stats_end();

void purge_start();
void purge_end();

}  // namespace ka
