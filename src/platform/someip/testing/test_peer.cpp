// someip_test_peer CONFIG: the "server" process of the discovery tests. Offers TestService
// (echo, emit, note; tick events; the level field, 42). SIGUSR1 toggles the offer (stop offer /
// offer again); SIGTERM ends it.
#include <signal.h>

#include <cstdio>
#include <memory>
#include <string>

#include "minfw/log.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/runtime.h"
#include "platform/someip/testing/test_interface.h"

namespace mw = platform::middleware;
using namespace platform::someip;
using namespace platform::someip::testing;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: someip_test_peer CONFIG\n");
    return 2;
  }
  // Blocked before any thread starts, so only sigwait() below sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  kel::vxp3::minfw::Logger::instance().init("someip_test_peer", "PEER", kel::vxp3::minfw::kInfo);
  HostConfig config;
  std::string error;
  std::unique_ptr<Runtime> runtime;
  if (!loadHostConfig(argv[1], {testInterfaceIds()}, config, error) ||
      !(runtime = Runtime::start(config, "server", error))) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  auto created = mw::Skeleton::Create(kTestInterface, mw::InstanceSpecifier("1"), runtime.get());
  if (!created)
    return 1;
  auto skeleton = std::move(created).value();
  skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, in.n});
  });
  mw::Skeleton* s = skeleton.get();
  skeleton->handle<Emit>([s](const Emit::Input& n) {
    for (uint32_t i = 1; i <= n; ++i)
      s->send<Tick>(Tick::Sample{i, "tick " + std::to_string(i)});
    return mw::Future<Emit::Output>::ready(n);
  });
  skeleton->field<Level>().Update(42);
  if (!skeleton->OfferService())
    return 1;
  bool offered = true;
  for (;;) {
    int sig = 0;
    sigwait(&signals, &sig);
    if (sig == SIGTERM)
      break;
    if (offered)
      skeleton->StopOfferService();
    else
      skeleton->OfferService();
    offered = !offered;
  }
  return 0;  // the skeleton goes before its runtime
}
