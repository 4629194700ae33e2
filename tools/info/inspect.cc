#include "inspect.h"

#include <algorithm>
#include <memory>

#include <ka/mem.h>

#include "tool.h"

namespace {

struct CloseFile {
  void operator()(img_file* file) const { ka_img_close(file); }
};
struct ReleaseLine {
  void operator()(img_line* line) const { ka_mem_release(line); }
};

void keep_entry(void* context, const char* name, const char* value) {
  static_cast<FileInfo*>(context)->header.emplace_back(name, value);
}

void keep_header(img_file& file, FileInfo& info) {
  info.is_open = true;
  info.format = ka_img_format_name(file.format);
  info.type = ka_img_type_name(file.file_type);
  info.width = file.width;
  info.height = file.height;
  info.bits = file.bits;
  info.components = file.components;
  info.top_first = file.topdown != 0;
  info.bytes = file.file_size;
  ka_img_header(&file, keep_entry, &info);
  if (file.format != IMG_FORMAT_MAP) return;
  for (const auto& [name, value] : info.header) info.levels = info.levels + int(name == "level");
  info.levels = std::max(info.levels - 1, 1);
}

// Lines without pixels are not worth reading: there may be billions.
void read_lines(img_file& file, FileInfo& info) {
  if (file.file_type == IMG_TYPE_RGBE) file.type = IMG_TYPE_RGB_FP;
  const std::unique_ptr<img_line, ReleaseLine> line(ka_img_line_alloc(&file));
  if (!line) {
    info.error = failure_text(file);
    return;
  }
  Statistics statistics(file.type, file.width);
  for (int y = 0; y < file.height && file.width > 0; ++y) {
    if (!ka_img_line_read(&file, line.get())) {
      info.error = failure_text(file);
      return;
    }
    statistics.add_line(line.get());
  }
  info.statistics = statistics.channels();
}

}  // namespace

FileInfo inspect(const std::string& name, const std::string& layer, bool has_statistics) {
  FileInfo info;
  info.name = name;
  img_file file{};
  layer.copy(file.layer, IMG_LAYER_SIZE - 1);
  const std::unique_ptr<img_file, CloseFile> closing(&file);
  if (!ka_img_open(&file, name.c_str(), IMG_TYPE_FILE)) {
    info.error = failure_text(file);
    return info;
  }
  keep_header(file, info);
  if (has_statistics) read_lines(file, info);
  return info;
}
