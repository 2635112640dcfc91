// main() of the binding's socket tests: runs the tests inside a private network namespace (made
// by scripts/netns-run), so that they may bind SD port 30490 on several loopback addresses and
// use multicast without touching the machine's network, and so that parallel runs never collide.
// There is no fallback: if no namespace can be made, the test binary fails.

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "minfw/testing/target_command.h"

int main(int argc, char** argv) {
  const char* inside = getenv("ORVANE_IN_NETNS");
  if (!inside || std::strcmp(inside, "1") != 0) {
    setenv("ORVANE_IN_NETNS", "1", 1);
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
      std::perror("readlink /proc/self/exe");
      return 2;
    }
    self[n] = '\0';
    std::vector<std::string> command{self};
    command.insert(command.end(), argv + 1, argv + argc);
    command = kel::vxp3::minfw::testing::targetCommand(command);
    command.insert(command.begin(), {ORVANE_NETNS_RUN, "--"});
    std::vector<char*> args;
    for (std::string& word : command)
      args.push_back(word.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
    return 2;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
