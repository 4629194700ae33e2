// Path substitution for rooms that must know whether a name came through whole.
#pragma once

#include <cstddef>

namespace ka {

// Writes the path of a name into `buffer` as ka_string_substitute does, with its messages. Returns
// 0, or the system's error number for a name that leads nowhere: ENOENT, it refers to a variable
// that is not set, or the reference has no end; ENAMETOOLONG, its path was cut. Faults of rule
// texts do not count.
[[nodiscard]] int substitute_path(char* buffer, const char* name, std::size_t size);

}  // namespace ka
