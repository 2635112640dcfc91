#pragma once
// Two runtimes in one process (one namespace): "server" offering TestService and "client" with a
// proxy of it. The server's handlers are set by each test before the proxy calls.
//
// Threading: owned by the test thread; the objects it holds are thread-safe.

#include <functional>
#include <memory>

#include "platform/middleware/proxy.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/runtime.h"
#include "platform/someip/testing/fixture.h"

namespace platform::someip::testing {

struct RuntimePair {
  // Destroyed in reverse order: the runtimes before the queue their threads report to.
  TempDir dir;
  HostConfig config;
  ReportQueue reports;
  std::unique_ptr<Runtime> server;
  std::unique_ptr<Runtime> client;
  std::unique_ptr<middleware::Skeleton> skeleton;
  std::unique_ptr<middleware::Proxy> proxy;

  // Starts both runtimes and the offer; false (with a test failure) when something is missing.
  bool start();
  // Starts looking for the service, runs `beforeOffer`, offers it, and makes the proxy once
  // it is found.
  bool connect(const std::function<void()>& beforeOffer = nullptr);
};

}  // namespace platform::someip::testing
