#include <gtest/gtest.h>

#include "servers.h"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!GTEST_FLAG_GET(list_tests)) exhaustion::start_servers();
  return RUN_ALL_TESTS();
}
