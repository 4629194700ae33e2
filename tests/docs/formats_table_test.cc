// The table of docs/formats.md says what the library does, and others say what it says.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "explain.h"
#include "support.h"

namespace {

// The rows of the table, which comes before the first section: those that start with a
// number.
std::vector<std::string> documented_rows() {
  std::ifstream file(FORMATS_TABLE);
  std::vector<std::string> rows;
  for (std::string line; std::getline(file, line) && !line.starts_with("## ");) {
    if (test::matches(line, "\\| [0-9].*")) rows.push_back(line);
  }
  return rows;
}

// What becomes of a file that is created as two lines of two pixels: smaller ones do not count as a
// picture in every format.
struct Created {
  img_file handle;  // as ka_img_create left it
  bool is_written, can_be_read;
};

Created create(const std::string& name, int format, int type) {
  test::Handle file, again;
  file->file_type = static_cast<std::uint8_t>(type);
  ka_img_create(file, name.c_str(), type, format, 2, 2);
  const img_file handle = *file;
  const test::Line line(ka_img_line_alloc(file));
  const bool is_written = ka_img_line_write(file, line.get()) &&
                          ka_img_line_write(file, line.get()) && ka_img_close(file) &&
                          test::exists(name) &&
                          !test::read_file(name).empty();  // some formats take lines, keep none
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
    const std::string reads = created.can_be_read ? "yes \\| yes" : "no \\| yes";
    const std::string expected = "\\| " + std::to_string(format) + " \\| " +
                                 ka_img_format_name(format) + " \\| [^|]* \\| " +  // outside
                                 (created.handle.topdown ? "top first" : "bottom first") + " \\| " +
                                 ka_img_type_name(best) + " \\| " + writable_types(name, format) +
                                 " \\| " + (created.is_written ? reads : "[^|]* \\| no") + " \\|";
    EXPECT_TRUE(test::matches(rows[std::size_t(format)], expected))
        << rows[std::size_t(format)] << "\n"
        << expected;
  }
}

// The manual page lists the same formats, and so do the messages of the tool.
TEST(FormatsTable, IsThatOfTheManualPageAndOfTheTool) {
  std::string expected, read, written;
  for (const std::string& row : documented_rows()) {
    std::vector<std::string> cells;
    std::istringstream in(row);
    for (std::string cell; std::getline(in, cell, '|');) {
      if (cell.size() > 2) cells.push_back(cell.substr(1, cell.size() - 2));  // without blanks
    }
    ASSERT_EQ(cells.size(), 8U) << row;
    const std::string &name = cells[1], &is_read = cells[6], &is_written = cells[7];
    expected +=
        ".It Li " + name + " Ta " + cells[2] + " Ta " + is_read + " Ta " + is_written + "\n";
    if (is_read == "yes") read += (read.empty() ? "" : " ") + name;
    if (is_written == "yes") written += (written.empty() ? "" : " ") + name;
  }
  EXPECT_NE(test::read_file(MANUAL_PAGE).find("written\n" + expected + ".El\n"), std::string::npos);
  EXPECT_EQ(read_formats(), read);
  EXPECT_EQ(written_formats(), written);
}

}  // namespace
