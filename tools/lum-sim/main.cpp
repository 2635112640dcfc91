// lum-sim: a Local Update Manager for the PC. Offers the version-11 LUM control interface as
// process "lum-sim" and plays a scenario (see README.md) until SIGTERM or SIGINT.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "interfaces/host_interfaces.h"
#include "lum_service.h"
#include "minfw/log.h"
#include "minfw/str.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"
#include "scenario.h"

namespace {

constexpr const char* kTag = "SIM";

void usage() {
  std::fprintf(stderr,
               "usage: lum-sim [--scenario FILE] [--call-log FILE] [--config FILE] "
               "[--instance ID] [-console]\n");
}

}  // namespace

int main(int argc, char** argv) {
  using kel::vxp3::minfw::cat;
  std::string scenarioPath, callLogPath, configPath, instance = "12233";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc)
        return false;
      out = argv[++i];
      return true;
    };
    bool ok = true;
    if (arg == "--scenario")
      ok = value(scenarioPath);
    else if (arg == "--call-log")
      ok = value(callLogPath);
    else if (arg == "--config")
      ok = value(configPath);
    else if (arg == "--instance")
      ok = value(instance);
    else if (arg != "-console")  // the console is lum-sim's only log output
      ok = false;
    if (!ok) {
      usage();
      return 2;
    }
  }

  kel::vxp3::minfw::Logger::instance().init("lum-sim", "LSIM", kel::vxp3::minfw::kDebug);

  lumsim::Scenario scenario;
  if (!scenarioPath.empty()) {
    auto loaded = lumsim::loadScenario(scenarioPath);
    if (!loaded.scenario) {
      MLOG_ERROR(kTag, loaded.error);
      std::fprintf(stderr, "%s\n", loaded.error.c_str());
      return 2;
    }
    scenario = std::move(*loaded.scenario);
    MLOG_INFO(kTag, "scenario [", scenarioPath, "]: ", scenario.sessions.size(), " session(s)");
  } else {
    MLOG_INFO(kTag, "no scenario: every session is a clean update");
  }

  if (configPath.empty())
    configPath = platform::someip::hostConfigPath();
  platform::someip::HostConfig config;
  std::string error;
  if (!platform::someip::loadHostConfig(configPath, orv::hostInterfaces(), config, error)) {
    MLOG_ERROR(kTag, error);
    std::fprintf(stderr, "%s\n", error.c_str());
    return 2;
  }

  // Every thread started from here on inherits the blocked signals; main takes them by sigwait.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  auto runtime = platform::someip::Runtime::start(config, "lum-sim", error);
  if (!runtime) {
    MLOG_ERROR(kTag, "cannot start the middleware: ", error);
    std::fprintf(stderr, "cannot start the middleware: %s\n", error.c_str());
    return 1;
  }
  auto service =
      std::make_unique<lumsim::LumService>(platform::middleware::InstanceSpecifier(instance),
                                           runtime.get(), std::move(scenario), callLogPath);
  if (!service->start(error)) {
    MLOG_ERROR(kTag, error);
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  MLOG_INFO(kTag, "offering the LUM control interface v11 as instance [", instance, "]");

  int signal = 0;
  sigwait(&stopSignals, &signal);
  MLOG_INFO(kTag, "signal ", signal, " (", strsignal(signal), "): stopping");
  service.reset();
  runtime.reset();
  return 0;
}
