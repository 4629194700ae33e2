// The cases of the corpus: files and the pictures that they are, files that are refused, and pictures
// with the bytes that they become. fuzz/corpus/README.md explains the lists.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "mode.h"
#include "pictures.h"

namespace {

struct Case {
  std::string name;  // of the file, without its ending
  std::vector<std::string> words;
  std::string message, reason;
  bool is_premultiplied = false;
  int width = 0;

  std::string take() {
    if (words.empty()) throw std::runtime_error("the row ends early");
    std::string word = words.front();
    words.erase(words.begin());
    return word;
  }
  bool take(std::string_view word) {
    const bool is_next = !words.empty() && words.front() == word;
    if (is_next) words.erase(words.begin());
    return is_next;
  }
};

// Cuts a text before a word, and returns what follows the word.
std::string cut_after(std::string& text, const std::string& word) {
  const auto at = text.find(word);
  if (at == std::string::npos) return {};
  const std::string rest = text.substr(at + word.size());
  text.resize(at);
  return rest;
}

// The rows of a list, without their recipes. Lines that begin with blanks continue the one before.
std::vector<Case> cases_of(const std::string& family) {
  std::vector<std::string> rows;
  std::ifstream list(LUMORA_CORPUS "/" + family + ".txt");
  for (std::string line; std::getline(list, line);) {
    if (line.starts_with(' ') && !rows.empty()) {
      rows.back() += line.substr(line.find_first_not_of(' ') - 1);
    } else if (!line.empty() && line[0] != '#') {
      rows.push_back(line);
    }
  }
  std::erase_if(rows, [](const std::string& row) { return row.starts_with("let "); });
  std::vector<Case> cases;
  for (const std::string& row : rows) {
    std::string expected = row.substr(row.find(" => ") + 4);
    Case& next = cases.emplace_back();
    next.name = row.substr(0, row.find(':'));
    next.message = cut_after(expected, " saying ");
    next.reason = cut_after(expected, " because ");
    std::istringstream words(expected);
    next.words.assign(std::istream_iterator<std::string>(words), {});
    if (!next.take("like")) continue;
    const auto same = std::ranges::find(cases, next.take(), &Case::name);
    if (same != cases.end()) next.words = same->words;
  }
  return cases;
}

std::uint32_t number(const std::string& text) {
  return std::uint32_t(std::stoul(text, nullptr, 0));
}

// Samples with commas between them: "7", "7*100" for a hundred of them, "0:1*9" for nine pairs, "0..99"
// for all of these.
std::vector<std::uint32_t> samples(const std::string& text) {
  std::vector<std::uint32_t> all;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    const auto star = item.find('*'), dots = item.find("..");
    if (dots != std::string::npos) {
      for (std::uint32_t i = number(item); i <= number(item.substr(dots + 2)); ++i)
        all.push_back(i);
      continue;
    }
    std::vector<std::uint32_t> part;
    std::istringstream parts(item.substr(0, star));
    for (std::string value; std::getline(parts, value, ':');) part.push_back(number(value));
    const std::uint32_t count = star == std::string::npos ? 1 : number(item.substr(star + 1));
    for (std::uint32_t i = 0; i < count; ++i) all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// One word for each plane, "=" for one like the plane before.
test::Planes take_line(Case& row) {
  test::Planes planes;
  while (!row.words.empty() && row.words[0] != "/" && row.words[0][0] != 'x') {
    const std::string word = row.take();
    planes.push_back(word == "=" ? planes.back() : samples(word));
  }
  return planes;
}

// The bottom line first, "/" between lines; "x512" after a line repeats it.
test::Lines take_lines(Case& row) {
  test::Lines lines;
  while (!row.words.empty()) {
    const test::Planes line = take_line(row);
    const bool is_repeated = !row.words.empty() && row.words[0][0] == 'x';
    lines.insert(lines.end(), is_repeated ? number(row.take().substr(1)) : 1, line);
    (void)row.take("/");
  }
  return lines;
}

// "width 5" comes before lines that do not show it.
void expect_written(const std::string& file, int format, int type, const Case& row,
                    const test::Lines& lines) {
  const test::Mode mode({.premultiply = row.is_premultiplied});
  const int width = lines.empty() || row.width > 0 ? row.width : int(lines[0][0].size());
  const test::Image image = test::make_picture(type, width, lines);
  EXPECT_TRUE(test::written(format, image.get()) == file) << "other bytes are written";
}

void expect_picture(const std::string& file, const std::string& verb, Case& row) {
  const int format = ka_img_format_identify(row.take().c_str());
  const int type = ka_img_type_identify(row.take().c_str());
  if (row.take("width")) row.width = int(number(row.take()));
  const test::Lines lines = take_lines(row);
  if (verb != "reads") expect_written(file, format, type, row, lines);
  if (verb != "writes") test::expect_picture({"", file, format, type, lines});
}

// Lines in file order; "!3" for one that fails with that error, "?" where the pixels do not matter.
void expect_lines(const std::string& file, Case& row) {
  test::OpenFile in(file);
  ASSERT_TRUE(in.is_open()) << in->error;
  EXPECT_EQ(in->reason, row.reason);  // of an error that leaves the file open
  for (int y = 0; !row.words.empty() && !testing::Test::HasFailure(); ++y) {
    SCOPED_TRACE(y);
    const bool fails = row.words[0][0] == '!';
    const int error = fails ? int(number(row.take().substr(1))) : IMG_ERR_NONE;
    in->error = in->os_error = 0;
    EXPECT_EQ(in.read_line(), !fails);
    EXPECT_EQ(std::pair(in->error, in->os_error), std::pair(error, 0));
    const test::Planes planes = row.take("?") ? test::Planes{} : take_line(row);
    EXPECT_TRUE(planes.empty() || in.planes() == planes);
    (void)row.take("/");
  }
}

void expect_case(Case& row, const std::string& family) {
  std::string file = test::read_file(LUMORA_CORPUS "/" + family + "/" + row.name + ".case");
  while (row.take("plus")) {
    for (const std::uint32_t byte : samples(row.take())) file += char(byte);
  }
  row.is_premultiplied = row.take("premultiplied");
  const test::MessageLog log(row.message.empty() ? 0 : KA_DEBUG | KA_ERROR);
  const std::string verb = row.take();
  if (verb == "fails") {
    const int error = int(number(row.take()));
    const int line = row.take("at") ? int(number(row.take())) : test::kOpening;
    test::expect_refusal({"", file, error, line, !row.message.empty(), row.reason});
  } else if (verb == "lines") {
    expect_lines(file, row);
  } else {
    expect_picture(file, verb, row);
  }
  EXPECT_EQ(row.words, std::vector<std::string>{}) << "words without a meaning";
  const auto says = [&](const std::string& line) { return line.ends_with(row.message); };
  EXPECT_TRUE(row.message.empty() || std::ranges::count_if(log.lines(), says) == 1) << row.message;
}

class Cases : public testing::TestWithParam<const char*> {};

TEST_P(Cases, HoldForEveryFile) {
  std::vector<Case> cases = cases_of(GetParam());
  EXPECT_FALSE(cases.empty());
  for (Case& row : cases) {
    SCOPED_TRACE(row.name);
    expect_case(row, GetParam());
  }
}

INSTANTIATE_TEST_SUITE_P(Families, Cases,
                         testing::Values("alias", "bmp", "catia", "ct", "hdr", "iff", "jpg", "lwi",
                                         "map", "pic", "ppm", "ps", "qnt", "rgb", "rla", "tga",
                                         "tif", "zpic"),
                         [](const auto& family) { return std::string(family.param); });

}  // namespace
