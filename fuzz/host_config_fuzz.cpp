// The host configuration file, read from an anonymous memory file (nothing touches the disk).
// Property: a failure names the file; a success leaves every server a known process.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "interfaces/host_interfaces.h"
#include "platform/someip/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  static const auto known = orv::hostInterfaces();
  const int fd = memfd_create("host-config", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  FUZZ_CHECK(write(fd, data, size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  platform::someip::HostConfig config;
  std::string error;
  if (platform::someip::loadHostConfig(path, known, config, error)) {
    for (const auto& [name, interface] : config.interfaces)
      FUZZ_CHECK(config.processes.count(interface.server) == 1);
  } else {
    FUZZ_CHECK(error.rfind(path, 0) == 0);
  }
  close(fd);
  return 0;
}
