// Runs the tests of one program with the library started.
#include <gtest/gtest.h>

#include "support.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  test::start_library();
  return RUN_ALL_TESTS();
}
