// vel_copy converts a picture from one file format to another. Lines go from file to file; the whole
// picture is kept only where the two hold their lines in different orders, or are one file.
#include <ka/imgload.h>
#include <ka/imgowner.h>
#include <ka/msg.h>

#include "options.h"
#include "source.h"
#include "start.h"
#include "target.h"
#include "tool.h"

namespace {

// Makes `line` a record of the planes of line y. Those that `like` has are the picture's.
void refer_to(img_line& line, const img_image* image, int y, const img_line* like) {
  int component = 0;
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    if (!like->offset[slot]) continue;
    const auto* const plane = static_cast<const char*>(ka_img_plane(image, y, component++));
    line.offset[slot] = plane - reinterpret_cast<const char*>(&line);
  }
}

ka::LineBuffer line_for(const Source& source) {
  img_file shape = shape_of({source.size().width, 1}, source.line_type());
  return ka::LineBuffer(ka_img_line_alloc(&shape));
}

// The first line is read before there is an output: a file that is damaged from its beginning on
// leaves no trace.
void copy_lines(Source& source, Target& target) {
  const ka::LineBuffer line = line_for(source);
  source.read(line.get());
  target.create(source.size(), source.line_type(), source.file());
  target.write(line.get());
  for (int i = 1; i < source.size().height; ++i) {
    source.read(line.get());
    target.write(line.get());
  }
}

void copy_whole(Source& source, Target& target) {
  const auto [width, height] = source.size();
  img_file shape = shape_of(source.size(), source.line_type());
  const ka::ImageBuffer image(source.file().lacks_lines ? nullptr : ka_img_image_alloc(&shape));
  if (!image && !source.file().lacks_lines) {
    fail(std::string(source.file().display_name) + ": " + std::to_string(width) + "x" +
         std::to_string(height) + " pixels are too many to turn their lines round");
  }
  const ka::LineBuffer like = line_for(source);
  for (int i = 0; i < height; ++i) {
    img_line line{};
    if (image) refer_to(line, image.get(), source.file().topdown ? height - 1 - i : i, like.get());
    source.read(&line);
  }
  target.create(source.size(), source.line_type(), source.file());
  target.write(image.get());
}

void copy(const Options& options) {
  Source source(options);
  Target target(options, source.file(), source.size());
  source.start(target.type());
  const bool same_order = (source.file().topdown != 0) == target.is_topdown();
  if (same_order && !target.is_same(source.file())) {
    copy_lines(source, target);
  } else {
    copy_whole(source, target);
  }
  source.close();
  target.close();
}

}  // namespace

int main(int argc, char** argv) {
  start_tool("vel_copy");
  start_library();
  const Options options = parse_options(argc, argv);
  if (options.verbose) set_verbose();
  copy(options);
  finish_output();
  return kDone;
}
