// What the table of docs/formats.md says the manual page and the tool say, too.
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
