// Memory that others ask for on behalf of the library.
#pragma once

namespace ka {

// For memory that a library of the system, or a codec, was refused: calls the error handler of
// ka_mem_error_handler, as a refused request of ours does. Returns if that does, or is not there.
void memory_refused();

}  // namespace ka
