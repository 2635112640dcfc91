#pragma once
// The command line with which a test starts a program. A cross build runs its tests under an
// emulator (CMAKE_CROSSCOMPILING_EMULATOR, handed to every test by orvane_test() as
// ORVANE_TEST_EMULATOR, words separated by spaces); the build's own programs (those under
// ORVANE_BINARY_DIR) are binaries of the same target, which the host kernel cannot run by itself,
// so they go through the same emulator. Scripts and the host's tools run as they are, and so
// does everything in a native build.
//
// Threading: reentrant.

#include <sstream>
#include <string>
#include <vector>

#if !defined(ORVANE_TEST_EMULATOR) || !defined(ORVANE_BINARY_DIR)
#error "ORVANE_TEST_EMULATOR and ORVANE_BINARY_DIR come from orvane_test() in cmake/Orvane.cmake"
#endif

namespace kel::vxp3::minfw::testing {

inline std::vector<std::string> targetCommand(const std::vector<std::string>& command) {
  const std::string buildTree = ORVANE_BINARY_DIR "/";
  if (command.empty() || command[0].compare(0, buildTree.size(), buildTree) != 0)
    return command;
  std::vector<std::string> line;
  std::istringstream emulator(ORVANE_TEST_EMULATOR);
  for (std::string word; emulator >> word;)
    line.push_back(word);
  line.insert(line.end(), command.begin(), command.end());
  return line;
}

}  // namespace kel::vxp3::minfw::testing
