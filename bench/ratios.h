// Benchmarks that are judged beside memcpy of as many bytes in the same run.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace bench {

// Registers `work`, which handles `bytes` bytes at each call, and beside it a memcpy of as many.
// `fresh`: the copy goes to new memory each time, as the work's result does.
void add(const std::string& name, std::size_t bytes, std::function<void()> work,
         bool fresh = false);

// The same for work that overwrites what it works on: `prepare` comes before each call and is not
// timed.
void add_prepared(const std::string& name, std::size_t bytes, std::function<void()> prepare,
                  std::function<void()> work);

// Runs what the command line selects; prints bytes per second of CPU time and their ratio to
// memcpy's. Returns the exit status.
int run(int argc, char** argv);

}  // namespace bench
