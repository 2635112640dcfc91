#pragma once
// Programs that open sockets for a test or a benchmark run inside a private network namespace
// made by scripts/netns-run (ORVANE_NETNS_RUN, defined by the build target): discovery multicast
// stays on loopback, SD port 30490 may be bound on several loopback addresses, and parallel runs
// never collide. There is no fallback: if no namespace can be made, the program fails.
//
// Threading: call first thing in main(), before any thread starts.
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#if defined(ORVANE_TEST_EMULATOR)
#include "minfw/testing/target_command.h"
#endif

namespace platform::someip::testing {

// Outside the namespace: re-runs this program inside one and returns only on failure (status
// 2). Inside: returns 0 at once.
inline int enterPrivateNetwork(int argc, char** argv) {
  const char* inside = getenv("ORVANE_IN_NETNS");
  if (inside && std::strcmp(inside, "1") == 0)
    return 0;
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
#if defined(ORVANE_TEST_EMULATOR)
  // A cross build's test cannot exec its own binary without the emulator.
  command = kel::vxp3::minfw::testing::targetCommand(command);
#endif
  command.insert(command.begin(), {ORVANE_NETNS_RUN, "--"});
  std::vector<char*> args;
  for (std::string& word : command)
    args.push_back(word.data());
  args.push_back(nullptr);
  execv(args[0], args.data());
  std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
  return 2;
}

}  // namespace platform::someip::testing
