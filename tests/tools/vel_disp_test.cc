// The viewer without its window, and its preview in the terminal.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support.h"
#include "viewer.h"

namespace {

class VelDisp : public testing::Test {
 protected:
  [[nodiscard]] std::string ppm(const char* name, int width, int height,
                                const std::string& pixels) const {
    return scratch.write(
        name, "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n" + pixels);
  }
  static test::Outcome preview(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--terminal");
    return test::run(
        VEL_DISP, {.arguments = std::move(arguments), .environment = {"COLUMNS=80", "LINES=24"}});
  }

  test::Scratch scratch;
  const std::string red = ppm("red.ppm", 1, 1, test::bytes({200, 100, 50})),
                    blue = ppm("blue.ppm", 1, 1, test::bytes({200, 100, 178}));
};

TEST_F(VelDisp, ZoomKeepsWhatIsUnderThePointer) {
  std::mt19937 random(1);
  const auto below = [&](int limit) { return int(random() % unsigned(limit)); };
  for (int i = 0; i < 2000; ++i) {
    View view;
    view.resize({1 + below(2000), 1 + below(2000)});
    view.show({1 + below(5000), 1 + below(5000)});
    view.fit();
    EXPECT_LE(view.left() + view.picture().width * view.zoom(), view.window().width + 1);
    EXPECT_LE(view.top() + view.picture().height * view.zoom(), view.window().height + 1);
    EXPECT_GE(std::min(view.left(), view.top()), -1);
    // a point of the picture, so that the picture need not be held back
    const Point place{view.left() + view.picture().width * view.zoom() / 2,
                      view.top() + view.picture().height * view.zoom() / 2};
    const Point before = view.at(place);
    const double zoom = view.zoom();
    view.zoom_by(1 + below(6), place);
    EXPECT_TRUE(view.zoom() > zoom || zoom == View::kLargestZoom);
    const Point after = view.at(place);
    EXPECT_NEAR(before.x, after.x, 0.51 / view.zoom() + 0.51 / zoom);
    EXPECT_NEAR(before.y, after.y, 0.51 / view.zoom() + 0.51 / zoom);
  }
}

TEST_F(VelDisp, KeysChangeWhatIsShown) {
  const struct {
    std::string keys;
    Color color;
  } rows[] = {
      {"", 0xc86432},   {"r", 0xc8c8c8},  {"b", 0x323232},  {"a", 0xffffff},
      {"rc", 0xc86432}, {"e", 0xff8d47},  {"eE", 0xc86432}, {"ee0", 0xc86432},
      {" ", 0xc864b2},  {"  ", 0xc86432}, {"d", 0x807f00},  // 128 of 255: 3 * 128 - 255 = 129
      {"dd", 0xc86432}, {"f", 0xc86432},  {"\t", 0xc864b2}};
  for (const auto& [keys, color] : rows) {
    SCOPED_TRACE(keys);
    Viewer viewer(Options{.names = {red, blue}});
    std::string failure;
    ASSERT_TRUE(viewer.load(failure)) << failure;
    viewer.resize({101, 112});
    for (const char key : keys) EXPECT_TRUE(viewer.press(key));
    std::vector<Color> pixels(101 * 112);
    viewer.draw({pixels.data(), 101, 112});
    const Color shown = pixels[50 * 101 + 50];
    for (const int shift : {0, 8, 16}) {  // roots are rounded
      EXPECT_NEAR(shown >> shift & 255, color >> shift & 255, keys == "d" ? 2 : 0)
          << std::hex << shown;
    }
    viewer.point_at(Point{50, 50});
    EXPECT_EQ(viewer.values().substr(0, 8), "x 0 y 0 ");
    EXPECT_FALSE(viewer.press('q'));
  }
}

TEST_F(VelDisp, FilesAreFollowedWhenTheyAreComplete) {
  Viewer viewer(Options{.names = {red, blue}});
  std::string failure;
  ASSERT_TRUE(viewer.load(failure));
  viewer.resize({101, 112});
  viewer.point_at(Point{50, 50});
  const std::string before = viewer.values();
  const auto turns = [&] {
    const bool first = viewer.follow_files(), second = viewer.follow_files();
    EXPECT_FALSE(first && second);
    return first || second;
  };
  EXPECT_FALSE(turns());
  (void)scratch.write("red.ppm", "P6\n1 1\n255\n\1");
  EXPECT_TRUE(turns());  // a note in the status line
  EXPECT_EQ(viewer.values(), before);
  std::filesystem::remove(red);
  EXPECT_FALSE(turns());
  (void)ppm("red.ppm", 2, 1, test::bytes({1, 2, 3, 1, 2, 3}));
  EXPECT_TRUE(turns());
  EXPECT_NE(viewer.values().find("R 1 G 2 B 3"), std::string::npos);
  EXPECT_TRUE(viewer.press('d'));  // other sizes
  EXPECT_NE(viewer.status().find("red.ppm 2 x 1"), std::string::npos);
}

TEST_F(VelDisp, OddNumbersAreNamedAndSeen) {
  const auto image = test::make_image(IMG_TYPE_RGBA_FP, 4, 1);
  test::set_samples<float>(test::plane(image.get(), 0, test::kR),
                           {NAN, INFINITY, -INFINITY, 0.25F});
  const std::string path = scratch.path("odd.ctfp");
  ASSERT_EQ(test::write_image(path, IMG_FORMAT_CTFP, image.get()), IMG_ERR_NONE);
  Viewer viewer(Options{.names = {path}});
  std::string failure;
  ASSERT_TRUE(viewer.load(failure)) << failure;
  viewer.resize({40, 21});
  EXPECT_TRUE(viewer.press('f'));
  std::vector<Color> pixels(40 * 21);
  viewer.draw({pixels.data(), 40, 21});
  const std::pair<Color, const char*> rows[] = {
      {0xff00ff, "R nan"}, {0xffff00, "R inf"}, {0x00ffff, "R -inf"}, {0x400000, "R 0.25"}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(pixels[std::size_t(5 * 40 + i * 10 + 5)], rows[i].first) << i;
    viewer.point_at(Point{i * 10.0 + 5, 5});
    EXPECT_NE(viewer.values().find(rows[i].second), std::string::npos) << viewer.values();
  }
}

TEST_F(VelDisp, PreviewsAreMeans) {
  // 160 columns in 80: two and two; the upper line 10 and 30, the lower one 50
  std::string pixels;
  for (int x = 0; x < 160; ++x) pixels += std::string(3, x % 2 ? '\x1e' : '\x0a');
  pixels += std::string(std::size_t(160 * 3), '\x32') + std::string(std::size_t(160 * 3), '\x32') +
            pixels;
  const test::Outcome outcome = preview({ppm("wide.ppm", 160, 4, pixels)});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  std::string line =
      scratch.path("wide.ppm") + ": 160 x 4, rgb\n\x1b[38;2;35;35;35m\x1b[48;2;35;35;35m";
  for (int i = 0; i < 80; ++i) line += "\xe2\x96\x80";
  EXPECT_EQ(outcome.out, line + "\x1b[0m\n");
}

TEST_F(VelDisp, PairsAndWrongCommandLines) {
  const std::string wide = ppm("two.ppm", 2, 1, std::string(6, '\0'));
  const test::Outcome pair = preview({red, blue}), same = preview({red, red}),
                      sizes = preview({red, wide});
  EXPECT_NE(pair.out.find("difference: 100 % of the pixels, largest distance 0.502"),
            std::string::npos)
      << pair.out;
  EXPECT_NE(same.out.find("no difference\n"), std::string::npos);
  EXPECT_NE(sizes.out.find("no difference of different sizes\n"), std::string::npos);
  const std::pair<std::vector<std::string>, int> rows[] = {{{}, 2},
                                                           {{red, red, red}, 2},
                                                           {{"--gamma", "0", red}, 2},
                                                           {{"--exposure", "1x", red}, 2},
                                                           {{"-imgtitle"}, 2},
                                                           {{"--help"}, 0},
                                                           {{"--version"}, 0},
                                                           {{scratch.path("none")}, 1},
                                                           {{scratch.write("text", "text")}, 1},
                                                           {{"-imgtitle", "-a - b", red}, 0}};
  for (const auto& [arguments, status] : rows) {
    const test::Outcome outcome = preview(arguments);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.err.empty(), status == 0) << outcome.err;
    EXPECT_EQ(outcome.out.empty(), status != 0);
  }
}

}  // namespace
