// What vel_info finds out about one file.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "statistics.h"

struct FileInfo {
  std::string name;
  std::string error;     // "" where nothing has failed
  bool is_open = false;  // what follows is known
  std::string format, type;
  int width = 0, height = 0, bits = 0, components = 0;
  int levels = 1;  // of a pyramid
  bool top_first = false;
  std::int64_t bytes = 0;
  std::vector<std::pair<std::string, std::string>> header;  // entries of ka_img_header
  std::optional<std::vector<Channel>> statistics;  // none where they are not wanted or failed
};

// Opens a file and reads its header; with `has_statistics` all lines, too.
//   Takes    the layer that is opened, shorter than IMG_LAYER_SIZE; "": the usual one.
[[nodiscard]] FileInfo inspect(const std::string& name, const std::string& layer,
                               bool has_statistics);
