// orvane-medium: writes an update-medium folder (description, update manifests, key manifest)
// for host runs, tests and production media; inspects key manifests. See README.md.
//
// Exit status: 0 written (the folder's files are listed), 2 bad arguments or unreadable input
// files, 1 the folder could not be written. inspect: 0 decrypted or verified, 1 not, 2 bad
// arguments.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "medium_writer.h"
#include "minfw/log.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const bool inspecting = !args.empty() && args[0] == "inspect";
  // Writing: only faults of the key-manifest check and of the JSON loader are worth a line.
  // Inspecting: the reader's own lines say why a container is refused.
  kel::vxp3::minfw::Logger::instance().init(
      "medium", "MED", inspecting ? kel::vxp3::minfw::kInfo : kel::vxp3::minfw::kWarn);
  if (inspecting)
    return orvmedium::inspect(std::vector<std::string>(args.begin() + 1, args.end()));
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(orvmedium::kUsage, stdout);
    return 0;
  }
  orvmedium::Options options;
  std::string error;
  if (!orvmedium::parseArguments(args, options, error)) {
    std::fprintf(stderr, "orvane-medium: %s\n%s", error.c_str(), orvmedium::kUsage);
    return 2;
  }
  const orvmedium::Result result = orvmedium::writeMedium(options, error);
  if (result != orvmedium::Result::kOk) {
    std::fprintf(stderr, "orvane-medium: %s\n", error.c_str());
    return result == orvmedium::Result::kBadInput ? 2 : 1;
  }
  std::error_code ec;
  std::vector<std::filesystem::directory_entry> entries(
      std::filesystem::directory_iterator(options.out, ec), {});
  std::sort(entries.begin(), entries.end());
  std::printf("%s:\n", options.out.c_str());
  for (const auto& entry : entries) {
    const auto size = entry.is_regular_file(ec) ? entry.file_size(ec) : 0;
    std::printf("  %-32s %8ju\n", entry.path().filename().c_str(), static_cast<uintmax_t>(size));
  }
  return 0;
}
