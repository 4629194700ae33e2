// The drivers of this folder's tests are registered after main() has started the library.
#include <gtest/gtest.h>
#include <ka/drivers.h>

namespace {

struct Drivers : testing::Environment {
  void SetUp() override { ASSERT_TRUE(ka_drivers_register()); }
};

[[maybe_unused]] const testing::Environment* const drivers =
    testing::AddGlobalTestEnvironment(new Drivers);

}  // namespace
