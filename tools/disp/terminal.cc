#include "terminal.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include <ka/detail/imagelines.h>

#include "halfblocks.h"
#include "printed.h"
#include "reduction.h"
#include "source.h"
#include "tool.h"

namespace {

// A file whose lines come one after the other.
class Lines {
 public:
  Lines(const std::string& name, const std::string& layer) {
    if (!file_.open(name, layer)) fail(failure_text(*file_));
    line_.reset(ka_img_line_alloc(&*file_));
    if (!line_) fail(failure_text(*file_));
  }

  [[nodiscard]] Size size() { return {file_->width, file_->height}; }
  [[nodiscard]] int type() { return file_->type; }
  [[nodiscard]] bool is_topdown() { return file_->topdown != 0; }

  // Reads the next line and says which one it is, the top one being 0. False: there is none.
  [[nodiscard]] bool next(int& y) {
    if (taken_ == ka::lines_to_read(file_->width, file_->height, file_->file_size)) return false;
    if (!ka_img_line_read(&*file_, line_.get())) fail(failure_text(*file_));
    y = file_->topdown ? taken_ : file_->height - 1 - taken_;
    ++taken_;
    return true;
  }
  [[nodiscard]] RowPlanes planes() const { return planes_of(line_.get()); }

 private:
  OpenFile file_;
  ka::LineBuffer line_;
  int taken_ = 0;
};

// Data without a range of its own takes a run through the file.
Range range_of(const std::string& name, const std::string& layer) {
  Lines lines(name, layer);
  Range range;
  if (!has_range(lines.type())) return range;
  for (int y; lines.next(y);) widen_range(range, lines.type(), lines.planes(), lines.size().width);
  return range;
}

// A picture on its way to a tile.
class Preview {
 public:
  Preview(Size picture, int type, const Range& range, const Look& look, Size space)
      : type_(type),
        width_(picture.width),
        range_(range),
        look_(look),
        parts_(parts_of(look, is_grey(type) ? 1 : 3)),
        reduction_(picture, fitted(picture, space), parts_.size()) {
    for (Row& row : rows_) row.resize(std::size_t(picture.width));
  }

  void add(int y, const RowPlanes& planes) {
    for (std::size_t i = 0; i < parts_.size(); ++i) {
      shown_samples(type_, planes, range_, parts_[i], 0, width_, rows_[i].data());
    }
    reduction_.add(y, rows_);
  }

  [[nodiscard]] Tile tile() const {
    const Size size = reduction_.size();
    Tile tile{size, std::vector<Color>(std::size_t(size.width) * std::size_t(size.height))};
    const Tone tone(look_);
    for (int y = 0; y < size.height; ++y) {
      tone.paint(reduction_.line(y), parts_.size(), is_float(type_), size.width,
                 tile.pixels.data() + std::size_t(y) * std::size_t(size.width));
    }
    return tile;
  }

 private:
  int type_, width_;
  Range range_;
  Look look_;
  std::vector<Part> parts_;
  Reduction reduction_;
  Rows rows_;
};

// The difference of two pictures on its way to a tile.
class DifferencePreview {
 public:
  DifferencePreview(Size picture, int first_type, int second_type, const Range& range,
                    const Look& look, Size space)
      : distance_(first_type, second_type),
        picture_(picture),
        range_(range),
        look_(look),
        reduction_(picture, fitted(picture, space), 1) {
    rows_[0].resize(std::size_t(picture.width));
  }

  void add(int y, const RowPlanes& first, const RowPlanes& second) {
    distance_.measure(first, second, range_, 0, picture_.width, rows_[0].data());
    for (const float distance : rows_[0]) {
      differing_ += distance > 0;
      largest_ = std::max(largest_, distance);
    }
    reduction_.add(y, rows_);
  }

  [[nodiscard]] Tile tile() const {
    const Size size = reduction_.size();
    Tile tile{size, std::vector<Color>(std::size_t(size.width) * std::size_t(size.height))};
    const Tone tone(look_);
    for (int y = 0; y < size.height; ++y) {
      tone.paint_distances(reduction_.line(y)[0], size.width,
                           tile.pixels.data() + std::size_t(y) * std::size_t(size.width));
    }
    return tile;
  }

  [[nodiscard]] std::string caption() const {
    if (differing_ == 0) return "no difference";
    char text[96];
    const double share = 100.0 * double(differing_) / picture_.width / picture_.height;
    std::snprintf(text, sizeof text, "difference: %.3g %% of the pixels, largest distance %.3g",
                  share, double(largest_));
    return text;
  }

 private:
  RowDistance distance_;
  Size picture_;
  Range range_;
  Look look_;
  Reduction reduction_;
  Rows rows_;
  std::int64_t differing_ = 0;
  float largest_ = 0;
};

std::string caption_of(const std::string& name, Lines& lines) {
  return printed(name) + ": " + std::to_string(lines.size().width) + " x " +
         std::to_string(lines.size().height) + ", " + ka_img_type_name(lines.type());
}

// The space for each of several tiles that have as many captions above them. The line below them
// is the prompt's.
Size space_for(int tiles, int captions) {
  const Size terminal = terminal_size();
  return {std::max(1, (terminal.width - (tiles - 1)) / tiles),
          2 * std::max(1, terminal.height - captions - 1)};
}

void print(const std::vector<std::string>& captions, const std::vector<Tile>& tiles) {
  std::string text;
  for (const std::string& caption : captions) text += caption + '\n';
  text += half_blocks(tiles);
  std::fwrite(text.data(), 1, text.size(), stdout);
  finish_output();
}

void show_one(const Options& options, const Look& look) {
  const std::string& name = options.names[0];
  const Range range = range_of(name, options.layer);
  Lines lines(name, options.layer);
  Preview preview(lines.size(), lines.type(), range, look, space_for(1, 1));
  for (int y; lines.next(y);) preview.add(y, lines.planes());
  print({caption_of(options.title.value_or(name), lines)}, {preview.tile()});
}

// Two pictures, read side by side.
class Pair {
 public:
  Pair(const Options& options, const Look& look)
      : options_(options),
        first_(options.names[0], options.layer),
        second_(options.names[1], options.layer),
        ranges_{range_of(options.names[0], options.layer),
                range_of(options.names[1], options.layer)},
        look_(look) {
    if (first_.type() == second_.type()) ranges_[0] = ranges_[1] = ranges_[0].united(ranges_[1]);
  }

  void show() {
    if (first_.size() == second_.size()) {
      show_difference();
    } else {
      show_both();
    }
  }

 private:
  [[nodiscard]] std::vector<std::string> captions() {
    std::vector<std::string> captions;
    if (options_.title) captions.push_back(printed(*options_.title));
    captions.push_back(caption_of(options_.names[0], first_));
    captions.push_back(caption_of(options_.names[1], second_));
    return captions;
  }

  [[nodiscard]] Preview preview(Lines& lines, const Range& range, Size space) const {
    return {lines.size(), lines.type(), range, look_, space};
  }

  void show_both() {
    std::vector<std::string> texts = captions();
    texts.emplace_back("no difference of different sizes");
    const Size space = space_for(2, int(texts.size()));
    Preview first = preview(first_, ranges_[0], space),
            second = preview(second_, ranges_[1], space);
    for (int y; first_.next(y);) first.add(y, first_.planes());
    for (int y; second_.next(y);) second.add(y, second_.planes());
    print(texts, {first.tile(), second.tile()});
  }

  // A second file whose lines come in the other order is kept whole: their lines do not meet.
  [[nodiscard]] std::unique_ptr<Picture> kept_second() {
    if (first_.is_topdown() == second_.is_topdown()) return nullptr;
    std::string failure;
    auto picture = Picture::load(options_.names[1], options_.layer, failure);
    if (!picture) fail(failure);
    return picture;
  }

  void show_difference() {
    std::vector<std::string> texts = captions();
    const Size space = space_for(3, int(texts.size()) + 1);
    Preview first = preview(first_, ranges_[0], space),
            second = preview(second_, ranges_[1], space);
    DifferencePreview difference(first_.size(), first_.type(), second_.type(), ranges_[0], look_,
                                 space);
    const std::unique_ptr<Picture> kept = kept_second();
    for (int y, same_y; first_.next(y) && (kept || second_.next(same_y));) {
      const RowPlanes planes = kept ? kept->row(y) : second_.planes();
      first.add(y, first_.planes());
      second.add(y, planes);
      difference.add(y, first_.planes(), planes);
    }
    texts.push_back(difference.caption());
    print(texts, {first.tile(), second.tile(), difference.tile()});
  }

  const Options& options_;
  Lines first_, second_;
  Range ranges_[2];
  Look look_;
};

}  // namespace

void show_in_terminal(const Options& options) {
  Look look;
  look.stops = options.exposure.value_or(0);
  look.gamma = options.gamma.value_or(1);
  if (options.names.size() == 1) return show_one(options, look);
  Pair(options, look).show();
}
