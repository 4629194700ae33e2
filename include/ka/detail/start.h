// What attaching a process starts besides the thread table.
#pragma once

namespace ka {

// Registers what lib/ keeps for each thread, and starts its services.
void start_lib();

}  // namespace ka
