// PostScript and Encapsulated PostScript: every digit, and a file without lines.
#include <gtest/gtest.h>

#include <cctype>

#include "pictures.h"

namespace {

// What a digit may be: every other byte is refused, in either place.
TEST(Ps, TakesHexadecimalDigitsOnly) {
  for (int byte = 1; byte < 256; ++byte) {
    for (const std::string& text : {std::string{char(byte), '0'}, std::string{'0', char(byte)}}) {
      SCOPED_TRACE(byte);
      const std::string file =
          "%!PS-Adobe-3.0\n%%Creator: Lumora\n% lu image data 1 1 gray\nluimage\n" + text;
      if (std::isxdigit(byte)) {
        test::expect_picture({"",
                              file,
                              IMG_FORMAT_PS,
                              IMG_TYPE_S,
                              {{{std::uint32_t(std::stoi(text, nullptr, 16))}}}});
      } else {
        test::expect_refusal({"", file, IMG_ERR_CORRUPT, 0});
      }
    }
  }
}

// The header comes with the first line: without any there is nothing to end.
TEST(Ps, FileThatIsClosedBeforeItsFirstLineIsEmpty) {
  test::NewFile file(IMG_FORMAT_EPS, IMG_TYPE_S, 1, 1);
  EXPECT_TRUE(file.close());
  EXPECT_EQ(file.contents(), "");
}

}  // namespace
