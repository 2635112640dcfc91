#pragma once
// The command line with which a test starts a program. In a cross build the build's own
// programs (under ORVANE_BINARY_DIR) are target binaries, so they run under the tests' emulator
// (ORVANE_TEST_EMULATOR, words separated by spaces); everything else runs as it is. Reentrant.

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
