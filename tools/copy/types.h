// Which pixel type a picture gets in a file of another format, and what is lost by that.
#pragma once

#include <string>

// Whether pixels of one type become the other one with nothing lost, or at all.
[[nodiscard]] bool keeps_all(int from, int to);
[[nodiscard]] bool can_become(int from, int to);

// The type that a format keeps a picture in: its own where that is taken and read back, else the
// smallest one that loses nothing, else the format's best type, without alpha where the picture
// has none.
[[nodiscard]] int type_in(int format, int type);

// What becomes of pixels that a file of the format keeps as the type `to`, in words for people; ""
// where nothing is lost.
[[nodiscard]] std::string loss(int format, int from, int to);
