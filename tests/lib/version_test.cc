// What a program reports of itself: the versions.
#include <gtest/gtest.h>
#include <ka/version.h>

#include <string>

#include "messages.h"

namespace {

TEST(Version, TheBannerNamesReleaseAndEveryModuleInOrder) {
  EXPECT_EQ(messages_of(ka_version, KA_INFO),
            (Texts{"version 3.2.0.320, 10 Oct 2002",
                   "compiled on: Linux 2.4.7-10 (RedHat 7.2, glibc-2.2.4-13), i686, gcc3"}));
  const Texts modules = messages_of(ka_version, KA_DEBUG);
  std::string names;
  for (const std::string& line : modules) {
    const bool is_dummy = line.find(":\tdummy version 1.0") != line.npos;
    EXPECT_TRUE(is_dummy || line.find(":\tversion ") != line.npos) << line;
    names += (is_dummy ? " " : " *") + line.substr(0, line.find(':'));
  }
  EXPECT_EQ(names,
            " *db geoev gapka rc rcb rci rcc rcgi rcfg *img *lib *mem api ka echo *msg par phen "
            "scene job *trans spdl phcr disp rclm rch lprof rchw");
}

}  // namespace
