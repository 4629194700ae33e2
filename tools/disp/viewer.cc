#include "viewer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string_view>

#include <ka/message.h>

#include "printed.h"

namespace {

constexpr int kWideWindow = 1000;  // from here on text has twice the size
constexpr int kPanStep = 64;
constexpr float kStopStep = 0.5F, kMostStops = 64, kGammaStep = 1.1F, kMostGamma = 10;
constexpr Color kText = 0xffffff, kNoteText = 0xffd060, kBar = 0x181818;

constexpr std::array<const char*, 15> kKeys = {
    "f           fit into the window",
    "1           one pixel of the screen for each pixel",
    "+ - wheel   zoom around the pointer; samples show when pixels are large",
    "arrows drag move the picture",
    "r g b a     one channel: red, green, blue, alpha",
    "c           all colors",
    "e E         more, less exposure",
    "G Ctrl-G    more, less gamma",
    "0           no exposure, no gamma",
    "space tab   the other picture",
    "d           the difference of both, and back",
    "h F1        this list",
    "q Esc       end",
    "",
    "magenta: no number   yellow: infinite   cyan: minus infinite"};

std::string short_text(const char* format, double value) {
  char text[48];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(text, sizeof text, format, value);
#pragma GCC diagnostic pop
  return text;
}

std::string file_name_of(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return printed(slash == std::string::npos || slash + 1 == path.size() ? path
                                                                        : path.substr(slash + 1));
}

// Pictures of one kind of data share a range, so that they can be compared.
Range range_for(const Picture& picture, const Picture* other) {
  const bool share = other && other->type() == picture.type();
  return share ? picture.range().united(other->range()) : picture.range();
}

// No messages while one of these lives.
class Silence {
 public:
  Silence() : verbosity_(ka_get_verbosity()) { ka_set_verbosity(0); }
  ~Silence() { ka_set_verbosity(verbosity_); }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  std::uint32_t verbosity_;
};

}  // namespace

Viewer::Viewer(const Options& options) : title_(options.title), layer_(options.layer) {
  look_.stops = options.exposure.value_or(0);
  look_.gamma = options.gamma.value_or(1);
  for (const std::string& name : options.names) files_.push_back({name, nullptr, {}, {}});
}

bool Viewer::load(std::string& failure) {
  for (File& file : files_) {
    file.picture = Picture::load(file.name, layer_, failure);
    if (!file.picture) return false;
  }
  update();
  return true;
}

Size Viewer::natural_size() const {
  return {picture().width(), picture().height() + kCharacterHeight + 2};
}

void Viewer::resize(Size window) {
  scale_ = window.width >= kWideWindow ? 2 : 1;
  view_.resize({window.width, window.height - scale_ * (kCharacterHeight + 2)});
  if (has_size_) return;  // a picture that is too large is fitted at first
  has_size_ = true;
  const bool is_inside = view_.picture().width <= view_.window().width &&
                         view_.picture().height <= view_.window().height;
  if (is_inside) {
    view_.zoom_to(1, {});
  } else {
    view_.fit();
  }
}

Point Viewer::pointer_or_middle() const {
  return pointer_.value_or(Point{view_.window().width / 2.0, view_.window().height / 2.0});
}

bool Viewer::press(int key) {
  note_.clear();
  switch (key) {
    case 'q':
    case kKeyEscape:
      return false;
    case 'f':
      view_.fit();
      break;
    case '1':
      view_.zoom_to(1, pointer_or_middle());
      break;
    case '+':
    case '-':
      zoom(key == '+' ? 1 : -1);
      break;
    case kKeyLeft:
    case kKeyRight:
      view_.pan(key == kKeyLeft ? kPanStep : -kPanStep, 0);
      break;
    case kKeyUp:
    case kKeyDown:
      view_.pan(0, key == kKeyUp ? kPanStep : -kPanStep);
      break;
    case ' ':
    case '\t':
      show(shown_ == Shown::kFirst ? Shown::kSecond : Shown::kFirst);
      break;
    case 'd':
      show_difference();
      break;
    case 'h':
    case kKeyHelp:
      shows_help_ = !shows_help_;
      break;
    default:
      change_look(key);
  }
  return true;
}

void Viewer::change_look(int key) {
  constexpr std::string_view channels = "crgba";  // in the order of Channel
  if (key > 0 && key < 128 && channels.find(char(key)) != std::string_view::npos) {
    look_.channel = Channel(int(channels.find(char(key))));
  } else if (key == 'e' || key == 'E') {
    const float stops = look_.stops + (key == 'e' ? kStopStep : -kStopStep);
    look_.stops = std::clamp(stops, -kMostStops, kMostStops);
  } else if (key == 'G' || key == kKeyLessGamma) {
    const float gamma = key == 'G' ? look_.gamma * kGammaStep : look_.gamma / kGammaStep;
    constexpr float close = 0.01F;  // steps up and down lead back to no gamma
    look_.gamma = std::fabs(gamma - 1) < close ? 1 : std::clamp(gamma, 1 / kMostGamma, kMostGamma);
  } else if (key == '0') {
    look_.stops = 0;
    look_.gamma = 1;
  }
}

void Viewer::zoom(int steps) { view_.zoom_by(steps, pointer_or_middle()); }
void Viewer::drag(int right, int down) { view_.pan(right, down); }
void Viewer::point_at(std::optional<Point> pointer) { pointer_ = pointer; }

const Picture& Viewer::picture() const { return *files_[shown_ == Shown::kSecond ? 1 : 0].picture; }

void Viewer::show(Shown shown) {
  if (files_.size() < 2) {
    note_ = "there is no second picture";
    return;
  }
  shown_ = shown;
  update();
}

void Viewer::show_difference() {
  if (shown_ == Shown::kDifference) return show(Shown::kFirst);
  if (files_.size() == 2) {
    const Picture &first = *files_[0].picture, &second = *files_[1].picture;
    if (first.width() != second.width() || first.height() != second.height()) {
      note_ =
          "no difference of different sizes: " + size_text(files_[0]) + ", " + size_text(files_[1]);
      return;
    }
  }
  show(Shown::kDifference);
}

void Viewer::update() {
  const Picture* const other =
      files_.size() < 2 ? nullptr : files_[shown_ == Shown::kSecond ? 0 : 1].picture.get();
  const Range range = range_for(picture(), other);
  if (shown_ == Shown::kDifference) {
    source_ = std::make_unique<DistanceSource>(picture(), *other, range);
  } else {
    source_ = std::make_unique<PictureSource>(picture(), range);
  }
  view_.show({picture().width(), picture().height()});
}

bool Viewer::follow(File& file) {
  const FileStamp before = file.seen;
  file.seen = stamp_of(file.picture->path());
  const bool is_new = file.seen != file.picture->stamp() && file.seen != file.tried;
  if (!is_new || file.seen != before || file.seen.size < 0) return false;
  const Silence silence;
  std::string failure;
  auto picture = Picture::load(file.name, layer_, failure);
  if (!picture) {
    file.tried = file.seen;
    note_ = "not read again: " + printed(failure);
    return true;
  }
  file.picture = std::move(picture);
  note_.clear();
  return true;
}

bool Viewer::follow_files() {
  bool changed = false;
  for (File& file : files_) changed |= follow(file);
  if (!changed) return false;
  if (shown_ == Shown::kDifference) {
    shown_ = Shown::kFirst;
    show_difference();  // of other sizes there is none
  }
  update();
  return true;
}

std::string Viewer::size_text(const File& file) const {
  return file_name_of(file.name) + " " + std::to_string(file.picture->width()) + " x " +
         std::to_string(file.picture->height());
}

std::string Viewer::title() const {
  if (title_) return printed(*title_);
  if (shown_ == Shown::kDifference) return printed(files_[0].name + " - " + files_[1].name);
  return printed(files_[shown_ == Shown::kSecond ? 1 : 0].name);
}

std::string Viewer::status() const {
  static constexpr std::array channels = {"", "  red", "  green", "  blue", "  alpha"};
  const File& file = files_[shown_ == Shown::kSecond ? 1 : 0];
  std::string text =
      shown_ == Shown::kDifference
          ? "difference of " + file_name_of(file.name) + " and " + file_name_of(files_[1].name)
          : size_text(file) + "  " + ka_img_type_name(file.picture->type());
  text += short_text(view_.zoom() < 1 ? "  %.3g %%" : "  %.0f %%", view_.zoom() * 100);
  if (shown_ != Shown::kDifference) text += channels[std::size_t(look_.channel)];
  if (look_.stops != 0) text += short_text("  exposure %+.1f", look_.stops);
  if (look_.gamma != 1) text += short_text("  gamma %.2f", look_.gamma);
  return text;
}

std::string Viewer::sample_line(const File& file, int x, int y) const {
  std::string text;
  for (const NamedSample& sample : sample_texts(file.picture->type(), file.picture->row(y), x)) {
    text += std::string(" ") + sample.name + " " + sample.text;
  }
  return text;
}

std::string Viewer::values() const {
  if (!pointer_ || pointer_->y >= view_.window().height) return "";
  const Point at = view_.at(*pointer_);
  if (at.x < 0 || at.y < 0 || at.x >= picture().width() || at.y >= picture().height()) return "";
  const int x = int(at.x), y = int(at.y);
  std::string text = "x " + std::to_string(x) + " y " + std::to_string(y) + " ";
  if (shown_ != Shown::kDifference) {
    return text + sample_line(files_[shown_ == Shown::kSecond ? 1 : 0], x, y);
  }
  float distance;
  source_->fetch(y, Part::kRed, x, 1, &distance);
  return text + sample_line(files_[0], x, y) + "  -" + sample_line(files_[1], x, y) +
         short_text("  distance %.6g", distance);
}

void Viewer::draw_status(const Canvas& canvas) const {
  const int character = kCharacterWidth * scale_, top = view_.window().height;
  fill(canvas, 0, top, canvas.width, canvas.height - top, kBar);
  const std::string left = note_.empty() ? values() : note_, right = status();
  const int right_width = (text_length(right) + 1) * character;
  const int left_width = left.empty() ? 0 : (text_length(left) + 3) * character;
  write_text(canvas, std::max(canvas.width - right_width, left_width), top + scale_, scale_, right,
             kText);
  write_text(canvas, character, top + scale_, scale_, left, note_.empty() ? kText : kNoteText);
}

void Viewer::draw_help(const Canvas& canvas) const {
  constexpr int left = 16, space = 8;
  int longest = 0;
  for (const char* const line : kKeys) longest = std::max(longest, text_length(line));
  const int width = longest * kCharacterWidth * scale_ + 2 * space;
  const int step = (kCharacterHeight + 2) * scale_;
  darken(canvas, left, left, width, int(kKeys.size()) * step + 2 * space);
  for (std::size_t i = 0; i < kKeys.size(); ++i) {
    write_text(canvas, left + space, left + space + int(i) * step, scale_, kKeys[i], kText);
  }
}

void Viewer::draw(const Canvas& canvas) const {
  draw_picture({*source_, look_, view_, shown_ == Shown::kDifference}, canvas);
  if (shown_ != Shown::kDifference) draw_samples(picture(), view_, canvas);
  if (shows_help_) draw_help(canvas);
  draw_status(canvas);
}
