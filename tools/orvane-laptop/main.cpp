// orvane-laptop: the workshop laptop's client of the vehicle's update service.
//
//   orvane-laptop [--host 127.0.0.1] [--port 5002] start URL
//   orvane-laptop [--host ...] [--port ...] watch [--interval-ms 1000] [--timeout-s N]
//   orvane-laptop [--host ...] [--port ...] run [--interval-ms ...] [--timeout-s ...] URL
//
// Exit status: 0 update started / finished, 1 refused / failed, 2 usage, 3 no service or time
// limit reached.

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "laptop.h"
#include "minfw/str.h"

namespace {

using kel::vxp3::minfw::parseInteger;

using namespace orv::laptop;

int usage() {
  std::cerr << "usage: orvane-laptop [--host ADDRESS] [--port PORT] start URL\n"
               "       orvane-laptop [--host ADDRESS] [--port PORT] watch [--interval-ms N] "
               "[--timeout-s N]\n"
               "       orvane-laptop [--host ADDRESS] [--port PORT] run [--interval-ms N] "
               "[--timeout-s N] URL\n";
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    int64_t value = 0;
    if (arg == "--host" && hasValue) {
      options.host = argv[++i];
    } else if (arg == "--port" && hasValue && parseInteger(argv[++i], 1, 65535, &value)) {
      options.port = static_cast<uint16_t>(value);
    } else if (arg == "--interval-ms" && hasValue && parseInteger(argv[++i], 1, 3600000, &value)) {
      options.intervalMs = value;
    } else if (arg == "--timeout-s" && hasValue && parseInteger(argv[++i], 0, 86400 * 7, &value)) {
      options.timeoutS = value;
    } else if (arg.rfind("--", 0) == 0) {
      return usage();
    } else {
      words.push_back(arg);
    }
  }
  if (words.empty()) {
    return usage();
  }
  const std::string& command = words[0];
  if (command == "watch" && words.size() == 1) {
    return runWatch(options, std::cout, std::cerr);
  }
  if ((command == "start" || command == "run") && words.size() == 2) {
    options.url = words[1];
    const int started = runStart(options, std::cout, std::cerr);
    if (command == "start" || started != kExitFinished) {
      return started;
    }
    return runWatch(options, std::cout, std::cerr);
  }
  return usage();
}
