// The suites' program: the library's log goes to the tests that ask for it, not to the screen.
#include <gtest/gtest.h>
#include <quillon.h>

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  quillon_log_set_level(QUILLON_LOG_NONE);
  return RUN_ALL_TESTS();
}
