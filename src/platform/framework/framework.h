#pragma once
// Start-up of the platform: the middleware runtime first, then the framework with the process
// name. Each step reports a Result; the service logs nothing about them and carries on, but the
// results tell a tester (and a later reader of a trace) when the order was wrong.
//
// Threading: thread-safe; the initialisation state is a pair of atomics.

#include <string>

namespace platform::framework {

struct Result {
  bool ok = true;
  std::string error;  // empty when ok
};

// Once per process. A second call: "ara already initialized ". After the framework:
// "kelfw initialized before ara" (the runtime is initialised all the same).
Result initializeRuntime();

// After the runtime. First: "ara not yet initialized "; a second call: "kelfw already
// initialized ". The process name is kept for the bindings (it selects this process's entry of
// the host configuration).
Result initializeFramework(const std::string& processName);

// The name given to initializeFramework, empty before.
std::string processName();

// Forgets both initialisations (tests only).
void resetForTesting();

}  // namespace platform::framework
