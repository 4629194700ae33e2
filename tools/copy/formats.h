// What vel_copy knows of the formats that are written: their types, their settings.
#pragma once

#include <string>

// Whether files of a format come out with pixels in them.
[[nodiscard]] bool is_written(int format);

// Whether a format is written from the first byte to the last one, as a pipe needs it.
[[nodiscard]] bool is_sequential(int format);

// Names of pixel types: those of the library, and a_fp, which shares one there.
[[nodiscard]] std::string type_name(int type);
[[nodiscard]] int type_of(const std::string& name);  // IMG_TYPE_COUNT: none

// The names of the types that a format takes, with commas between them.
[[nodiscard]] std::string types_of(int format);

// Lists for people, a line for each format or type.
[[nodiscard]] std::string format_list();
[[nodiscard]] std::string type_list();

enum class Setting { kPyramid, kGamma, kAspect, kQuality, kFields, kFloat };

[[nodiscard]] bool knows(int format, Setting setting);
[[nodiscard]] std::string knowing(Setting setting);  // names, with commas between them
