// main() of the binding's socket tests: runs the tests inside a private network namespace (see
// netns.h).
#include <gtest/gtest.h>

#include "platform/someip/testing/netns.h"

int main(int argc, char** argv) {
  if (const int status = platform::someip::testing::enterPrivateNetwork(argc, argv))
    return status;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
