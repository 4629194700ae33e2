#include "render.h"

#include <algorithm>
#include <cmath>

#include "stretches.h"

namespace {

constexpr Color kAround = 0x303030;  // outside of the picture

// Columns or lines of the window that show the picture.
struct Span {
  int from, to;
};
Span visible(int start, int samples, double zoom, int window) {
  const double end = start + std::ceil(samples * zoom);
  return {std::clamp(start, 0, window), int(std::clamp<double>(end, 0, window))};
}

class Painter {
 public:
  Painter(const Drawing& drawing, const Canvas& canvas)
      : source_(drawing.source),
        view_(drawing.view),
        canvas_(canvas),
        tone_(drawing.look),
        parts_(drawing.is_distance ? std::vector{Part::kRed}
                                   : parts_of(drawing.look, drawing.source.planes())),
        is_distance_(drawing.is_distance),
        columns_(visible(view_.left(), source_.width(), view_.zoom(), view_.window().width)),
        lines_(visible(view_.top(), source_.height(), view_.zoom(), view_.window().height)) {}

  void draw() {
    const int width = view_.window().width, height = view_.window().height;
    fill(canvas_, 0, 0, width, lines_.from, kAround);
    fill(canvas_, 0, lines_.to, width, height - lines_.to, kAround);
    const int lines = lines_.to - lines_.from;
    fill(canvas_, 0, lines_.from, columns_.from, lines, kAround);
    fill(canvas_, columns_.to, lines_.from, width - columns_.to, lines, kAround);
    if (lines <= 0 || columns_.from >= columns_.to) return;
    if (view_.zoom() < 1) {
      draw_reduced();
    } else {
      draw_enlarged();
    }
  }

 private:
  void paint(const Rows& rows, int count, Color* out) const {
    if (is_distance_) return tone_.paint_distances(rows[0], count, out);
    tone_.paint(rows, parts_.size(), source_.may_be_odd(), count, out);
  }

  // Adds the lines of a stretch, each with its weight, to one row.
  void add_lines(const Stretch& lines, Part part, const Stretches& columns, Row& line,
                 Row& sum) const {
    const auto count = std::size_t(columns.count());
    std::fill_n(sum.begin(), count, 0.0F);
    for (int y = lines.first; y < lines.end; ++y) {
      const float weight = lines.weight(y) * lines.inverse;
      if (!(weight > 0)) continue;
      source_.fetch(y, part, columns.first(), columns.count(), line.data());
      for (std::size_t i = 0; i < count; ++i) sum[i] += weight * line[i];
    }
  }

  void draw_reduced() const {
    const double step = 1 / view_.zoom();
    const int count = columns_.to - columns_.from;
    const Stretches columns((columns_.from - view_.left()) * step, step, count, source_.width());
    Row line(std::size_t(columns.count())), sum(line.size());
    Rows rows;
    for (Row& row : rows) row.resize(std::size_t(count));
    for (int y = lines_.from; y < lines_.to; ++y) {
      const double top = (y - view_.top()) * step;
      const Stretch lines = stretch_of(top, top + step, source_.height());
      for (std::size_t i = 0; i < parts_.size(); ++i) {
        add_lines(lines, parts_[i], columns, line, sum);
        columns.reduce(sum.data(), rows[i].data());
      }
      paint(rows, count, canvas_.row(y) + columns_.from);
    }
  }

  [[nodiscard]] int sample_at(int place, int start, int limit) const {
    return std::clamp(int((place - start + 0.5) / view_.zoom()), 0, limit - 1);
  }

  void draw_enlarged() const {
    std::vector<int> samples;  // of each column
    for (int x = columns_.from; x < columns_.to; ++x) {
      samples.push_back(sample_at(x, view_.left(), source_.width()));
    }
    const int first = samples.front(), count = samples.back() - first + 1;
    Rows rows;
    for (Row& row : rows) row.resize(std::size_t(count));
    std::vector<Color> colors(std::size_t(count), 0);
    for (int y = lines_.from, shown = -1; y < lines_.to; ++y) {
      const int line = sample_at(y, view_.top(), source_.height());
      Color* const out = canvas_.row(y) + columns_.from;
      if (line == shown) {
        std::copy_n(out - canvas_.width, samples.size(), out);
        continue;
      }
      shown = line;
      for (std::size_t i = 0; i < parts_.size(); ++i) {
        source_.fetch(line, parts_[i], first, count, rows[i].data());
      }
      paint(rows, count, colors.data());
      for (std::size_t i = 0; i < samples.size(); ++i) {
        out[i] = colors[std::size_t(samples[i] - first)];
      }
    }
  }

  const Source& source_;
  const View& view_;
  const Canvas& canvas_;
  Tone tone_;
  std::vector<Part> parts_;
  bool is_distance_;
  Span columns_, lines_;
};

Color readable_on(Color color) {
  const unsigned brightness =
      299 * (color >> 16 & 255) + 587 * (color >> 8 & 255) + 114 * (color & 255);
  return brightness > 127500 ? 0x000000 : 0xffffff;
}

}  // namespace

void draw_picture(const Drawing& drawing, const Canvas& canvas) { Painter(drawing, canvas).draw(); }

void draw_samples(const Picture& picture, const View& view, const Canvas& canvas) {
  constexpr int space = 2;
  const int size = int(view.zoom());
  const int lines = sample_count(picture.type());
  const int scale =
      std::min({2, (size - space) / (longest_sample(picture.type()) * kCharacterWidth),
                (size - space) / (lines * kCharacterHeight)});
  if (scale < 1) return;
  const Canvas part{canvas.pixels, canvas.width, std::min(canvas.height, view.window().height)};
  const Point from = view.at({0, 0});
  const Point to = view.at({double(view.window().width), double(view.window().height)});
  for (int y = std::max(0, int(from.y)); y < std::min<double>(picture.height(), to.y); ++y) {
    const RowPlanes planes = picture.row(y);
    const int top = int(view.top() + y * view.zoom());
    for (int x = std::max(0, int(from.x)); x < std::min<double>(picture.width(), to.x); ++x) {
      const int left = int(view.left() + x * view.zoom());
      const int inner_x = std::clamp(left + size / 2, 0, part.width - 1);
      const int inner_y = std::clamp(top + size / 2, 0, part.height - 1);
      const Color color = readable_on(part.row(inner_y)[inner_x]);
      int line = top + (size - lines * kCharacterHeight * scale) / 2;
      for (const NamedSample& sample : sample_texts(picture.type(), planes, x)) {
        const int width = int(sample.text.size()) * kCharacterWidth * scale;
        write_text(part, left + (size - width) / 2, line, scale, sample.text, color);
        line += kCharacterHeight * scale;
      }
    }
  }
}
