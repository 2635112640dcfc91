// orvane: coordinates local software updates through the Local Update Manager.
//
// The entry point brings up the platform, sets up logging, creates the persistent record and then
// parks the main thread for ever; all real work runs on threads of the objects created here.
// There is no orderly shutdown: the process ends when it is killed.

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "interfaces/host_interfaces.h"
#include "logic/multiplexer.h"
#include "logic/persistence.h"
#include "minfw/clock.h"
#include "minfw/console_sink.h"
#include "minfw/keltrace_sink.h"
#include "minfw/log.h"
#include "platform/framework/framework.h"
#include "platform/middleware/binding.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"

namespace {

namespace minfw = kel::vxp3::minfw;

constexpr const char* kDefaultPersistenceDir = "/kel-data/lum_diag";
constexpr const char* kPersistenceFile = "persistence.json";

// The target's fixed directory, or ORVANE_PERSISTENCE_DIR on a host.
std::string persistenceDir() {
  const char* dir = std::getenv("ORVANE_PERSISTENCE_DIR");
  return dir && *dir ? dir : kDefaultPersistenceDir;
}

// The SOME/IP binding of this process, from the host configuration, as the middleware's default.
// Without it the service still runs; its LUM client then never finds the LUM and says so.
std::unique_ptr<platform::someip::Runtime> startMiddleware() {
  const std::string path = platform::someip::hostConfigPath();
  platform::someip::HostConfig config;
  std::string error;
  if (!platform::someip::loadHostConfig(path, orv::hostInterfaces(), config, error)) {
    MLOG_ERROR("GLOBAL", "Middleware configuration not loaded: ", error);
    return nullptr;
  }
  auto runtime = platform::someip::Runtime::start(config, "orvane", error);
  if (!runtime) {
    MLOG_ERROR("GLOBAL", "Middleware binding not started: ", error);
    return nullptr;
  }
  platform::middleware::setDefaultBinding(runtime.get());
  return runtime;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::string buildId = std::string(__DATE__) + "-" + __TIME__;
    buildId = std::string(ORVANE_RELEASE_LABEL) + ", " + buildId;

    // Both results are deliberately ignored: the service runs with whatever the platform gives.
    (void)platform::framework::initializeRuntime();
    (void)platform::framework::initializeFramework("orvane");

    minfw::Logger& logger = minfw::Logger::instance();
    logger.init("Orvane", "LUM", minfw::kTrace);

    const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    bool console = false;
    for (const std::string& arg : args)
      console = console || arg == "-console";
    if (console) {
      logger.install<minfw::Console>();
    } else {
      logger.install<minfw::KelTrace>();
    }

    MLOG_INFO("GLOBAL", ">>>>>>>>>>>>    LumOrvane (", buildId, ")   <<<<<<<<<<<<<<");

    const std::unique_ptr<platform::someip::Runtime> middleware = startMiddleware();

    auto persistence = std::make_shared<orv::Persistence>(persistenceDir(), kPersistenceFile);
    orv::Multiplexer multiplexer(persistence);
    (void)multiplexer.createInterfaces();
    (void)multiplexer.initBindings();
    (void)multiplexer.initInterfaces();

    for (;;)
      minfw::sleepMs(5000);
  } catch (const std::exception& e) {
    MLOG_ERROR("main", e.what());
    std::cout << e.what() << std::endl;
    minfw::sleepMs(1000);
    return 1;
  }
}
