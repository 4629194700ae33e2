// Swapping job elements to disk: files, limits, settings, and what goes wrong.
#include <sys/stat.h>
#include <unistd.h>

#include "jobs.h"
#include "lib/messages.h"

namespace {

class Swap : public test::StoreTest {
 protected:
  Swap() { ka_db_swap_config(scratch_.path("").c_str(), 100); }

  [[nodiscard]] std::string path_of(std::uint32_t tag) const {
    std::array<char, 64> name;
    std::snprintf(name.data(), name.size(), "/%u-%08x-type41.kaswap", unsigned(getpid()), tag);
    return scratch_.path("") + name.data();
  }
  static bool page_out(std::uint32_t tag) {
    ka_db_entry* const entry = ka_db_accessinfo(tag);
    return ka_db_disk_pageout(tag, entry, entry->data, entry->size) != 0;
  }
  test::Scratch scratch_;
};

TEST_F(Swap, BringsBackWhatWasWritten) {
  const test::Fill fill{.words = 1000, .first = 3};
  const std::uint32_t tag = produced(fill);
  ASSERT_TRUE(page_out(tag));
  EXPECT_EQ(ka_db_accessinfo(tag)->state, KA_DB_ON_DISK);
  const std::string bytes = test::read_file(path_of(tag));
  EXPECT_EQ(bytes.substr(0, 64), std::string("\1\0\0\0", 4) + std::string(60, '\0'));
  EXPECT_TRUE(test::is_filled(bytes.data() + 64, fill));
  struct stat status;
  EXPECT_EQ(stat(path_of(tag).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(counts().disk, 4U);  // 4000 bytes, rounded up
  ka_db_swap_config("/", -1);    // the file stays where it is
  EXPECT_TRUE(test::is_filled(ka_db_access(tag), fill));
  EXPECT_EQ(test::executions, 1);
  EXPECT_FALSE(test::exists(path_of(tag)));
  EXPECT_FALSE(page_out(tag)) << "it is pinned";
  const ka_db_counts end = counts();
  EXPECT_EQ(end.disk, 0U);
  EXPECT_EQ(end.disk_max, 4U);
  EXPECT_EQ(end.swapped_out, 4U);
  EXPECT_EQ(end.swapped_in, 4U);
  EXPECT_EQ(end.swap_failed, 4U);
}

TEST_F(Swap, RefusesWhatWouldReachTheLimitAndDataElements) {
  const std::uint32_t tag = produced({.words = 99 * 256 + 1});
  EXPECT_EQ(messages_of([&] { EXPECT_FALSE(page_out(tag)); }, KA_DEBUG),
            (Texts{"swap: cannot page out #1000000, swap is full"}));
  const std::uint32_t large = produced({.words = 99 * 256});
  EXPECT_TRUE(page_out(large));
  EXPECT_TRUE(ka_db_delete(large));
  EXPECT_TRUE(page_out(produced({.words = 256})));
  EXPECT_EQ(counts().disk_max, 99U);
  EXPECT_EQ(counts().swap_failed, 100U);
  ka_db_swap_config(nullptr, 1000);
  EXPECT_FALSE(page_out(make_element()));
  EXPECT_FALSE(page_out(produced({.is_fixed = true})));
}

TEST_F(Swap, TellsWhatFails) {
  const test::Fill fill{.words = 10};
  const std::uint32_t tag = produced(fill);
  const std::string path = path_of(tag);
  const auto errors = [&](auto call) {
    const Texts texts = messages_of([&] { EXPECT_FALSE(call(tag)); }, KA_ERROR);
    return texts.size() == 1 ? texts[0] : "";
  };
  {
    test::Limit files(RLIMIT_FSIZE, 80);
    EXPECT_EQ(errors(page_out), "041004 failed to write swap file " + path + ", File too large");
  }
  EXPECT_FALSE(test::exists(path));
  std::filesystem::create_directory(path);
  EXPECT_EQ(errors(page_out), "041003 failed to create swap file " + path + ", Is a directory");
  std::filesystem::remove(path);
  EXPECT_EQ(counts().disk, 0U);

  ASSERT_TRUE(page_out(tag));
  const std::string whole = test::read_file(path), name = path_of(tag).substr(path.rfind('/') + 1);
  scratch_.write(name, "\1");
  EXPECT_EQ(errors(ka_db_disk_pagein), "041006 failed to read swap file " + path + ", Success");
  scratch_.write(name, "\2" + whole.substr(1));
  EXPECT_EQ(errors(ka_db_disk_pagein), "041007 wrong version of swap file " + path);
  EXPECT_EQ(ka_job_access(tag), nullptr);
  EXPECT_EQ(ka_db_accessinfo(tag)->state, KA_DB_ON_DISK);
  std::filesystem::rename(path, path + "x");
  scratch_.write(name, whole);  // another file
  EXPECT_EQ(errors(ka_job_access),
            "041005 failed to open swap file " + path + ", Stale file handle");
  std::filesystem::rename(path + "x", path);
  scratch_.write(name, whole);
  EXPECT_TRUE(test::is_filled(ka_db_access(tag), fill));
}

TEST_F(Swap, FollowsNoLinkAndReplacesTheFileOfADeadNamesake) {
  const std::string victim = scratch_.write("victim", "untouched");
  const std::uint32_t tag = produced({});
  std::filesystem::create_symlink(victim, path_of(tag));
  EXPECT_TRUE(page_out(tag));
  EXPECT_FALSE(std::filesystem::is_symlink(path_of(tag)));
  EXPECT_EQ(test::read_file(victim), "untouched");
}

TEST_F(Swap, CleansUpAfterDeadProcesses) {
  const std::string own = std::to_string(getpid()), parent = std::to_string(getppid());
  ASSERT_TRUE(page_out(produced({})));
  const std::string swapped = path_of(1U << 24), folder = scratch_.path("");
  const std::pair<std::string, bool> files[] = {
      {"4999999-a.kaswap", false},   {"99999999999999.kaswap", false},
      {own + "-left.kaswap", false}, {parent + "-a.kaswap", true},
      {"0-a.kaswap", true},          {"x.kaswap", true},
      {"4999999-a.swap", true}};
  for (const auto& [name, stays] : files) scratch_.write(name, "");
  EXPECT_EQ(messages_of([&] { ka_db_swap_config(nullptr, 2048); }, KA_INFO),
            (Texts{"swap directory \"" + folder + "\", limit 2 MB",
                   "swap cleanup: deleted 3 obsolete files in \"" + folder + "\""}));
  for (const auto& [name, stays] : files)
    EXPECT_EQ(test::exists(scratch_.path(name)), stays) << name;
  EXPECT_TRUE(test::exists(swapped));
  EXPECT_EQ(messages_of([] { ka_db_swap_config("/no/such", -1); }, KA_DEBUG).back(),
            "swap dir /no/such does not exist, skipping cleanup");
}

TEST_F(Swap, ReadsItsSettingsOnce) {
  ka_db_exit();
  EXPECT_EQ(ka_db_swap_config(nullptr, -1), 0);
  ka_db_init();
  setenv("KA_LUM_SWAPDIR", scratch_.path("").c_str(), 1);
  setenv("KA_LUM_SWAPLIMIT", "3", 1);
  const std::uint32_t tag = produced({});
  EXPECT_TRUE(page_out(tag));
  EXPECT_TRUE(test::exists(path_of(tag)));
  setenv("KA_LUM_SWAPLIMIT", "4", 1);
  EXPECT_EQ(messages_of([] { EXPECT_EQ(ka_db_swap_config(nullptr, -1), 1); }, KA_INFO),
            (Texts{"swap directory \"" + scratch_.path("") + "\", limit 3 MB"}));
  unsetenv("KA_LUM_SWAPDIR");
  unsetenv("KA_LUM_SWAPLIMIT");
}

}  // namespace
