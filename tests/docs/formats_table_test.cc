// The table of docs/formats.md says what the library does.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <ka/img.h>

#include "support.h"

namespace {

using Cells = std::vector<std::string>;  // of one row, without the blanks around them

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(' ');
  return first == std::string::npos ? ""
                                    : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

constexpr std::size_t kColumns = 8;

// The rows of the table, which stands in front of the first section: those that start with a
// number.
std::vector<Cells> documented_rows() {
  std::ifstream file(FORMATS_TABLE);
  std::vector<Cells> rows;
  for (std::string line; std::getline(file, line) && !line.starts_with("## ");) {
    std::istringstream in(line);
    Cells cells;
    for (std::string cell; std::getline(in, cell, '|');) cells.push_back(trimmed(cell));
    if (cells.size() == 1 + kColumns && std::isdigit(cells[1][0]) != 0) {
      rows.emplace_back(cells.begin() + 1, cells.end());
    }
  }
  return rows;
}

// What a file is like that is created as two lines of two pixels: smaller ones do not count as a
// picture in every format.
struct Created {
  img_file handle;  // as ka_img_create left it
  bool is_written;
  bool can_be_read;
};

bool keeps_bytes(const std::string& name) {
  std::error_code none;
  const auto bytes = std::filesystem::file_size(name, none);
  return !none && bytes > 0;
}

Created create(const std::string& name, int format, int type) {
  test::Handle file, again;
  file->file_type = static_cast<std::uint8_t>(type);
  ka_img_create(file, name.c_str(), type, format, 2, 2);
  const img_file handle = *file;
  const test::Line line(ka_img_line_alloc(file));
  bool is_written = ka_img_line_write(file, line.get()) && ka_img_line_write(file, line.get()) &&
                    ka_img_close(file);
  if (is_written) is_written = keeps_bytes(name);  // some formats take lines and keep none
  return {handle, is_written, ka_img_open(again, name.c_str(), IMG_TYPE_FILE) != 0};
}

std::string writable_types(const std::string& name, int format) {
  std::string names;
  int count = 0;
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    if (create(name, format, type).handle.file_type != type) continue;
    if (count++ > 0) names += ", ";
    names += ka_img_type_name(type);
  }
  return count == IMG_TYPE_COUNT ? "all" : names;
}

TEST(FormatsTable, HasEveryBuiltInFormatAsItIs) {
  const auto rows = documented_rows();
  const test::Scratch scratch;
  const std::string name = scratch.path("picture");
  const test::MessageLog log;  // a type that the format does not have gives a warning
  ASSERT_EQ(rows.size(), std::size_t{IMG_FORMAT_CUSTOM});
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    const int best = ka_img_best_type(format);
    const Created created = create(name, format, best);
    const Cells& row = rows[std::size_t(format)];
    const Cells expected = {std::to_string(format),
                            ka_img_format_name(format),
                            row[2],  // what it is called outside
                            created.handle.topdown ? "top first" : "bottom first",
                            ka_img_type_name(best),
                            writable_types(name, format),
                            created.is_written ? (created.can_be_read ? "yes" : "no") : row[6],
                            created.is_written ? "yes" : "no"};
    EXPECT_EQ(row, expected);
  }
}

}  // namespace
