// What a window shows: one or two pictures or their difference, the status line, the list of keys.
// It knows what keys and the pointer do, and nothing of the system that they come from.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "options.h"
#include "render.h"

// Keys that are no characters; the others are their characters.
enum Key { kKeyLeft = 256, kKeyRight, kKeyUp, kKeyDown, kKeyHelp, kKeyEscape, kKeyLessGamma };

class Viewer {
 public:
  explicit Viewer(const Options& options);

  // Reads the pictures. Returns false with the reason in `failure`.
  [[nodiscard]] bool load(std::string& failure);

  // The size of the first picture with the status line below it.
  [[nodiscard]] Size natural_size() const;
  void resize(Size window);

  // False: the user wants to leave.
  [[nodiscard]] bool press(int key);
  void zoom(int steps);
  void drag(int right, int down);
  void point_at(std::optional<Point> pointer);  // in the window; empty: elsewhere

  // Looks after the files, four times a second. What has changed is read again as soon as it stays
  // the same for one turn. Returns whether there is something new to be seen.
  [[nodiscard]] bool follow_files();

  void draw(const Canvas& canvas) const;
  [[nodiscard]] std::string title() const;
  [[nodiscard]] std::string status() const;  // the right half of the status line
  [[nodiscard]] std::string values() const;  // the left half: of the pixel under the pointer

 private:
  struct File {
    std::string name;
    std::unique_ptr<Picture> picture;
    FileStamp seen, tried;  // by the last turn; when reading failed last
  };
  enum class Shown { kFirst, kSecond, kDifference };

  [[nodiscard]] const Picture& picture() const;  // the one that is shown, of a difference the first
  [[nodiscard]] std::string size_text(const File& file) const;
  [[nodiscard]] std::string sample_line(const File& file, int x, int y) const;
  void change_look(int key);
  void show(Shown shown);
  void show_difference();
  void update();  // after other pictures have come or another one is shown
  bool follow(File& file);
  void draw_help(const Canvas& canvas) const;
  void draw_status(const Canvas& canvas) const;
  [[nodiscard]] Point pointer_or_middle() const;

  std::optional<std::string> title_;
  std::string layer_;
  std::vector<File> files_;
  Shown shown_ = Shown::kFirst;
  std::unique_ptr<Source> source_;
  View view_;
  Look look_;
  std::optional<Point> pointer_;
  int scale_ = 1;  // of text
  bool shows_help_ = false, has_size_ = false;
  std::string note_;  // until the next key
};
