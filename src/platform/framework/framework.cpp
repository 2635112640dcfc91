#include "platform/framework/framework.h"

#include <atomic>
#include <mutex>

namespace platform::framework {

namespace {

std::atomic<bool> runtimeUp{false};
std::atomic<bool> frameworkUp{false};
std::mutex nameMutex;
std::string name;  // guarded by nameMutex

Result failure(const char* text) {
  return Result{false, text};
}

}  // namespace

Result initializeRuntime() {
  if (runtimeUp.exchange(true))
    return failure("ara already initialized ");
  if (frameworkUp.load())
    return failure("kelfw initialized before ara");
  return Result{};
}

Result initializeFramework(const std::string& processName) {
  if (frameworkUp.exchange(true))
    return failure("kelfw already initialized ");
  {
    std::lock_guard<std::mutex> lock(nameMutex);
    name = processName;
  }
  if (!runtimeUp.load())
    return failure("ara not yet initialized ");
  return Result{};
}

std::string processName() {
  std::lock_guard<std::mutex> lock(nameMutex);
  return name;
}

void resetForTesting() {
  runtimeUp = false;
  frameworkUp = false;
  std::lock_guard<std::mutex> lock(nameMutex);
  name.clear();
}

}  // namespace platform::framework
