// Difference images as files and in the viewer: names, formats, sizes, what is left behind.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "vel_diff.h"

namespace {

class Output : public VelDiff {
 protected:
  // A viewer that notes its arguments, one to a line, and what it was given to show.
  std::vector<std::string> with_viewer(const std::string& body) {
    const std::string folder = scratch.path("bin");
    std::filesystem::create_directory(folder);
    const std::string viewer = scratch.write(
        "bin/vel_disp", "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + scratch.path("arguments") +
                            "'\ncp \"$3\" '" + scratch.path("shown") + "'\n" + body);
    chmod(viewer.c_str(), 0755);
    return {"PATH=" + folder + ":/usr/bin:/bin", "TMPDIR=" + scratch.path("")};
  }
  test::Outcome show(std::vector<std::string> arguments, const std::string& body = "") {
    return test::run(VEL_DIFF,
                     {.arguments = std::move(arguments), .environment = with_viewer(body)});
  }
  int files_named_veldiff() {
    int count = 0;
    for (const char* folder : {"/usr/tmp", "/tmp"}) {
      std::error_code none;
      for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
        count += entry.path().filename().string().starts_with("veldiff");
      }
    }
    for (const auto& entry : std::filesystem::directory_iterator(scratch.path(""))) {
      count += entry.path().filename().string().starts_with("veldiff");
    }
    return count;
  }
};

// Width, height and format of an image file.
std::string kind(const std::string& path) {
  test::Handle file;
  if (!ka_img_open(file, path.c_str(), IMG_TYPE_FILE)) return "none";
  return std::string(ka_img_format_name(file->format)) + " " + std::to_string(file->width) + "x" +
         std::to_string(file->height);
}

TEST_F(Output, IsWrittenInTheFormatOfItsName) {
  const struct {
    std::vector<std::string> options;
    const char *name, *type, *kind;
  } rows[] = {
      {{}, "out.ppm", nullptr, "ppm 2x115"},
      {{"-n"}, "out.ppm", nullptr, "ppm 2x1"},
      {{}, "out.x", ".ppm", "ppm 2x115"},
      {{"-n"}, "out.rgb", nullptr, "rgb 2x1"},
      {{"-n"}, "a.b/out.tga", nullptr, "tga 2x1"},
      {{"-n"}, "out.tga", "?ct", "ct 2x1"},
      {{"-n", "-f", "-u"}, "out.rgb", nullptr, "rgb 2x1"},
  };
  std::filesystem::create_directory(scratch.path("a.b"));
  for (const auto& row : rows) {
    const std::string out = scratch.path(row.name);
    std::vector<std::string> arguments = row.options;
    arguments.insert(arguments.end(), {red, dark, out});
    if (row.type) arguments.emplace_back(row.type);
    const test::Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(kind(out), row.kind) << row.name;
    std::filesystem::remove(out);
  }
}

TEST_F(Output, HoldsTheDifferencePixels) {
  const std::string out = scratch.path("out.tga");
  run({"-n", red, dark, out});
  const auto image = test::read_image(out, IMG_TYPE_RGBA);
  ASSERT_TRUE(image);
  EXPECT_EQ(test::samples<std::uint8_t>(test::plane(image.get(), 0, test::kR), 2),
            (std::vector<std::uint8_t>{255, 0}));
  EXPECT_EQ(test::samples<std::uint8_t>(test::plane(image.get(), 0, test::kA), 2),
            (std::vector<std::uint8_t>{0, 0}));
}

TEST_F(Output, OfEqualPicturesIsWrittenOnRequest) {
  const std::string out = scratch.path("out.ppm");
  EXPECT_EQ(run({"-e", red, red, out}).status, 0);
  EXPECT_EQ(kind(out), "ppm 2x115");
}

TEST_F(Output, FailuresAreToldAndLeaveNothing) {
  const std::string missing = scratch.path("missing/out.ppm");
  const test::Outcome created = run({red, dark, missing});
  EXPECT_EQ(created.status, 1);
  EXPECT_EQ(created.err, image_error(missing, "can't create file (No such file or directory)") +
                             fatal("cannot create " + missing));
  const std::string out = scratch.path("out.rgb");
  const test::Limit small(RLIMIT_FSIZE, 700);
  const test::Outcome full = run({red, dark, out});
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.err.find(": can't "), std::string::npos) << full.err;
  EXPECT_NE(full.err.find("fatal: cannot "), std::string::npos) << full.err;
  EXPECT_FALSE(test::exists(out));
}

TEST_F(Output, IsShownInTheViewerAndThenRemoved) {
  const int before = files_named_veldiff();
  const test::Outcome outcome = show({"-d", red, dark});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "");
  const std::string arguments = test::read_file(scratch.path("arguments"));
  const std::string head = "-imgtitle\n" + red + " - " + dark + "\n";
  EXPECT_EQ(arguments.substr(0, head.size()), head);
  EXPECT_NE(arguments.find("/veldiff", head.size()), std::string::npos);
  EXPECT_EQ(kind(scratch.path("shown")), "rgb 2x115");
  EXPECT_EQ(files_named_veldiff(), before);
}

TEST_F(Output, StaysWhereItWasAskedForWhenItIsShown) {
  const std::string out = scratch.path("out.ppm");
  EXPECT_EQ(show({"-d", "-n", red, dark, out}, "exit 3\n").status, 1);
  EXPECT_EQ(test::read_file(scratch.path("shown")), test::read_file(out));
}

TEST_F(Output, GoesAwayWithAFailingViewerOrNone) {
  const int before = files_named_veldiff();
  EXPECT_EQ(show({"-d", "-t", "99", red, dark}, "kill -9 $$\n").status, 0);
  const test::Outcome none =
      test::run(VEL_DIFF, {.arguments = {"-d", "-t", "99", red, dark},
                           .environment = {"PATH=" + scratch.path("nowhere")}});
  EXPECT_EQ(none.status, 0);  // what becomes of the viewer is not looked at
  EXPECT_EQ(files_named_veldiff(), before);
}

TEST_F(Output, NamesReachTheViewerUnharmed) {
  const std::string odd =
      "a `touch boo` \"y\" 'z' * ;&|!";  // path substitution has its own way with "$" and "\\"
  const std::string first = ppm((odd + ".ppm").c_str(), 2, 1, test::bytes({255, 0, 0, 9, 9, 9}));
  const std::string out = scratch.path("-out " + odd + ".rgb");
  EXPECT_EQ(show({"-d", first, dark, out}).status, 1);
  EXPECT_EQ(test::read_file(scratch.path("arguments")),
            "-imgtitle\n" + first + " - " + dark + "\n" + out + "\n");
  EXPECT_FALSE(test::exists("boo"));
}

TEST_F(Output, VerboseTellsWhatIsWrittenAndShown) {
  const std::string out = scratch.path("out.rgb");
  const test::Outcome outcome = show({"-v", "-d", red, dark, out});
  EXPECT_NE(outcome.err.find("MAIN  .0  progr: writing " + out + "\n"), std::string::npos);
  EXPECT_NE(outcome.err.find("MAIN  .0  progr: displaying " + out + "\n"), std::string::npos);
  EXPECT_EQ(show({"-d", red, dark, out}).err, "");
}

}  // namespace
