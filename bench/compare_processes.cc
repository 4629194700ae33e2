// compare_processes [-n PAIRS] COMMAND... -- COMMAND...: runs two commands in turns, their output
// thrown away, and prints the median over all pairs of what the first costs in units of the second.
// Both may end with any exit status, but not by a signal.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int kDefaultPairs = 51;

struct Cost {
  double cpu, wall;  // seconds
  double peak;       // of resident memory, KiB
};

double seconds(const timeval& time) { return double(time.tv_sec) + double(time.tv_usec) * 1e-6; }

double now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "compare_processes: %s\n", what);
  std::exit(2);
}

Cost run(char** command) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_WRONLY, 0);
  }
  const double start = now();
  pid_t process;
  if (posix_spawnp(&process, command[0], &actions, nullptr, command, environ) != 0) {
    fail("cannot start a command");
  }
  int status;
  rusage usage;
  if (wait4(process, &status, 0, &usage) < 0) fail("cannot wait for a command");
  const double end = now();
  posix_spawn_file_actions_destroy(&actions);
  if (!WIFEXITED(status) || WEXITSTATUS(status) >= 126) fail("a command did not run to its end");
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime), end - start, double(usage.ru_maxrss)};
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void print(const char* name, double Cost::*member, double unit, const char* unit_name,
           const std::vector<Cost>& first, const std::vector<Cost>& second) {
  std::vector<double> ratios, ours, theirs;
  for (std::size_t i = 0; i < first.size(); ++i) {
    ours.push_back(first[i].*member * unit);
    theirs.push_back(second[i].*member * unit);
    ratios.push_back(theirs.back() > 0 ? ours.back() / theirs.back() : 0);
  }
  std::printf("%-5s %8.3f   (%.3f and %.3f %s)\n", name, median(ratios), median(ours),
              median(theirs), unit_name);
}

}  // namespace

int main(int argc, char** argv) {
  int pairs = kDefaultPairs;
  int at = 1;
  if (argc > 2 && std::strcmp(argv[1], "-n") == 0) {
    pairs = std::max(1, std::atoi(argv[2]));
    at = 3;
  }
  char** const first = argv + at;
  while (at < argc && std::strcmp(argv[at], "--") != 0) ++at;
  if (first == argv + at || at + 1 >= argc) fail("[-n PAIRS] COMMAND... -- COMMAND...");
  argv[at] = nullptr;  // ends the first command
  char** const second = argv + at + 1;

  std::vector<Cost> ours, theirs;
  run(first);  // both come from the page cache in every pair
  run(second);
  for (int i = 0; i < pairs; ++i) {
    ours.push_back(run(first));
    theirs.push_back(run(second));
  }
  print("cpu", &Cost::cpu, 1e3, "ms", ours, theirs);
  print("wall", &Cost::wall, 1e3, "ms", ours, theirs);
  print("peak", &Cost::peak, 1, "KiB", ours, theirs);
  return 0;
}
