// Difference images as files and in the viewer: names, formats, sizes, what is left behind.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vel_diff.h"

namespace {

class Output : public VelDiff {
 protected:
  // With a viewer that notes its arguments, one to a line, and what it was given to show.
  test::Outcome show(std::vector<std::string> arguments, const std::string& body = "") {
    const std::string folder = scratch.path("bin");
    std::filesystem::create_directory(folder);
    const std::string viewer = scratch.write(
        "bin/vel_disp", "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + scratch.path("arguments") +
                            "'\ncp \"$3\" '" + scratch.path("shown") + "'\n" + body);
    chmod(viewer.c_str(), 0755);
    return test::run(VEL_DIFF, {.arguments = std::move(arguments),
                                .environment = {"PATH=" + folder + ":/usr/bin:/bin"}});
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
  std::filesystem::create_directory(scratch.path("a.b"));
  const std::string tga = scratch.path("a.b/out.tga"), ppm = scratch.path("out.ppm"),
                    rgb = scratch.path("out.rgb"), other = scratch.path("out.xyz");
  const struct {
    std::string name;
    std::vector<std::string> arguments;
    const char* kind;
  } rows[] = {{ppm, {red, dark, ppm}, "ppm 2x115"},
              {other, {red, dark, other, ".ppm"}, "ppm 2x115"},
              {tga, {red, dark, "-n", tga}, "tga 2x1"},
              {tga, {red, dark, "-n", "-f", "-u", tga, "?ct"}, "ct 2x1"},
              {rgb, {red, red, "-e", rgb}, "rgb 2x115"},
              {other, {red, red, "-d", other}, "none"}};  // nothing to write
  for (const auto& [name, arguments, expected] : rows) {
    EXPECT_EQ(run(arguments).err, "");
    EXPECT_EQ(kind(name), expected) << name;
    std::filesystem::remove(name);
  }
}

TEST_F(Output, FailuresAreTold) {
  const std::string missing = scratch.path("missing/out.ppm");
  EXPECT_EQ(run({red, dark, missing}).err,
            image_error(missing, "can't create file (No such file or directory)") +
                fatal("cannot create " + missing));
}

TEST_F(Output, IsShownInTheViewerAndThenRemoved) {
  const struct {
    std::string body;
    int status;
  } rows[] = {
      {"", 0}, {"kill -TERM $PPID\n", -SIGTERM}, {"kill -INT $PPID\nkill -QUIT $PPID\n", 0}};
  for (const auto& row : rows) {
    const test::Outcome outcome = show({"-d", "-t50.1", red, dark}, row.body);
    EXPECT_EQ(outcome.status, row.status);  // how the viewer ends is not looked at
    const std::string arguments = test::read_file(scratch.path("arguments")),
                      head = "-imgtitle\n" + red + " - " + dark + "\n";
    ASSERT_TRUE(test::matches(arguments, head + ".*/veldiff.*\n")) << arguments;
    EXPECT_EQ(kind(scratch.path("shown")), "rgb 2x115");
    const std::size_t length = arguments.size() - 1 - head.size();
    EXPECT_FALSE(test::exists(arguments.substr(head.size(), length)));
  }
}

// Path substitution has its own way with "$" and "\\".
TEST_F(Output, StaysWhereItWasAskedForWhenItIsShownAndNamesReachTheViewerUnharmed) {
  const std::string odd = "a `touch boo` \"y\" 'z' * ;&|!", out = scratch.path(odd + ".rgb");
  const std::string first = ppm((odd + ".ppm").c_str(), 2, 1, test::bytes({255, 0, 0, 9, 9, 9}));
  const test::Outcome outcome = show({"-v", "-d", "-n", first, dark, out}, "exit 3\n");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(test::read_file(scratch.path("arguments")),
            "-imgtitle\n" + first + " - " + dark + "\n" + out + "\n");
  EXPECT_EQ(test::read_file(scratch.path("shown")), test::read_file(out));
  EXPECT_FALSE(test::exists("boo"));
  EXPECT_NE(outcome.err.find("MAIN  .0  progr: writing " + out + "\n"), std::string::npos);
  EXPECT_NE(outcome.err.find("MAIN  .0  progr: displaying " + out + "\n"), std::string::npos);
}

}  // namespace
