// Versions: what the banner prints, and that a search of a built program finds the same texts.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/version.h>

#include <set>
#include <sstream>
#include <string>

#include "messages.h"
#include "support.h"

namespace {

TEST(Version, TheBannerNamesReleaseAndEveryModuleInOrder) {
  const auto lines = messages_of(ka_version, KA_INFO);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "version 3.2.0.320, 10 Oct 2002");
  EXPECT_EQ(lines[1], "compiled on: Linux 2.4.7-10 (RedHat 7.2, glibc-2.2.4-13), i686, gcc3");
  std::istringstream names(
      "db geoev gapka rc rcb rci rcc rcgi rcfg img lib mem api ka echo msg par phen scene job "
      "trans spdl phcr disp rclm rch lprof rchw");
  const std::set<std::string> real = {"db", "img", "lib", "mem", "msg", "trans"};
  for (const std::string& line : messages_of(ka_version, KA_DEBUG)) {
    std::string name;
    ASSERT_TRUE(names >> name) << line;
    const char* const version = real.contains(name) ? ":\tversion " : ":\tdummy version 1.0";
    EXPECT_TRUE(line.starts_with(name + version)) << line;
  }
}

// The texts after a marker, each up to its NUL.
std::set<std::string> marked_texts(const std::string& bytes, const std::string& marker) {
  std::set<std::string> texts;
  for (auto at = bytes.find(marker); at != std::string::npos; at = bytes.find(marker, at)) {
    at += marker.size();
    texts.insert(bytes.substr(at, bytes.find('\0', at) - at));
  }
  texts.erase("");  // a marker that stands for itself
  return texts;
}

TEST(Version, ASearchOfTheProgramFindsReleaseDateAndModules) {
  const std::string program = test::read_file(LUMORA_PROGRAM);
  EXPECT_EQ(marked_texts(program, "==@@== "), (std::set<std::string>{"3.2.0.320", "10 Oct 2002"}));
  const auto printed = messages_of(ka_version, KA_DEBUG);
  EXPECT_EQ(printed.size(), 28u);
  EXPECT_EQ(marked_texts(program, "=@@= "), std::set<std::string>(printed.begin(), printed.end()));
}

}  // namespace
