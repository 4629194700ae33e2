// What every tool does before its own work.
#pragma once

// Puts /dev/null in the place of standard streams that are closed, has broken pipes and full files
// reported instead of ending the process, and starts the message log. `memory_error` reports that
// memory cannot be had, and ends the process.
void prepare_process(void (*memory_error)());

// Starts the library and registers the further formats, as every program of the system does.
void start_library();
