// What hostile files cost: memory and time in proportion to their size.
#include <cstdio>

#include "hostile.h"
#include "vel_diff.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSlow = true;  // shadow memory counts as the program's
#else
constexpr bool kIsSlow = false;
#endif

constexpr long kKiB = 1024, kMostKilobytes = 64 * kKiB, kMostPerByte = 64;
constexpr double kMostSeconds = kIsSlow ? 10 : 0.5;  // and as much again for each 100 KiB

class Cost : public testing::TestWithParam<test::HostilePair> {
 protected:
  test::Scratch scratch;
};

// The program may refuse the files. Nothing here depends on the word it ends with. A histogram adds
// lines to the buffers that a picture has to fit.
TEST_P(Cost, IsInProportionToTheFile) {
  const auto& [name, first, second] = GetParam();
  const std::string paths[] = {scratch.write("first", first), scratch.write("second", second)};
  const auto bytes = static_cast<long>(first.size() + second.size());
  const double most_seconds = kMostSeconds * (1 + double(bytes) / (100 * kKiB));
  for (const char* const option : {"-m3", "-n"}) {
    const test::Outcome outcome = test::run(VEL_DIFF, {.arguments = {option, paths[0], paths[1]}});
    std::printf("%-36s %s %8ld bytes %8ld KiB %8.3f s, status %d\n", name.c_str(), option, bytes,
                outcome.peak_kilobytes, outcome.cpu_seconds, outcome.status);
    EXPECT_GE(outcome.status, 0) << "ended by a signal";
    EXPECT_LE(outcome.cpu_seconds, most_seconds);
    if (kIsSlow) continue;
    EXPECT_LE(outcome.peak_kilobytes, kMostKilobytes + kMostPerByte * bytes / kKiB);
  }
}

INSTANTIATE_TEST_SUITE_P(Hostile, Cost, testing::ValuesIn(test::hostile_pairs()),
                         test::row_name<test::HostilePair>);

}  // namespace
