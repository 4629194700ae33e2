// What a program reports of itself: the versions, which a search of a built program finds as well,
// and the time and resources that it has used.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/timing.h>
#include <ka/version.h>

#include <set>
#include <string>

#include "messages.h"
#include "support.h"

namespace {

// The texts after a marker, each up to its NUL, a mark that stands for itself left out.
std::set<std::string> marked_texts(const std::string& bytes, const std::string& marker) {
  std::set<std::string> texts;
  for (auto at = bytes.find(marker); at != std::string::npos; at = bytes.find(marker, at)) {
    at += marker.size();
    texts.insert(bytes.substr(at, bytes.find('\0', at) - at));
  }
  texts.erase("");
  return texts;
}

TEST(Version, TheBannerNamesReleaseAndEveryModuleInOrderAsASearchOfTheProgramDoes) {
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
  const std::string program = test::read_file(LUMORA_PROGRAM);
  EXPECT_EQ(marked_texts(program, "==@@== "), (std::set<std::string>{"3.2.0.320", "10 Oct 2002"}));
  EXPECT_EQ(marked_texts(program, "=@@= "), std::set<std::string>(modules.begin(), modules.end()));
}

}  // namespace
