#pragma once
// The command line with which a test starts one of this build's own programs. A cross build runs
// its tests under an emulator (CMAKE_CROSSCOMPILING_EMULATOR, handed to every test by
// orvane_test() as ORVANE_TEST_EMULATOR, words separated by spaces); the programs they start are
// binaries of the same target, which the host kernel cannot run by itself, so they go through
// the same emulator. In a native build the command stays as it is.
//
// Threading: reentrant.

#include <sstream>
#include <string>
#include <vector>

#ifndef ORVANE_TEST_EMULATOR
#error "ORVANE_TEST_EMULATOR comes from orvane_test() in cmake/Orvane.cmake"
#endif

namespace kel::vxp3::minfw::testing {

inline std::vector<std::string> targetCommand(const std::vector<std::string>& command) {
  std::vector<std::string> line;
  std::istringstream emulator(ORVANE_TEST_EMULATOR);
  for (std::string word; emulator >> word;)
    line.push_back(word);
  line.insert(line.end(), command.begin(), command.end());
  return line;
}

}  // namespace kel::vxp3::minfw::testing
