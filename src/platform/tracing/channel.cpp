#include "platform/tracing/channel.h"

#include <dlt.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>

namespace tracing {

// One DLT context, shared by every Channel of the same name.
struct Channel::Context {
  std::string id;
  DltContext dlt{};
  bool registered = false;
  int users = 0;
};

namespace {

// libdlt rejects a verbose string argument longer than this (message buffer 1390 bytes minus
// the argument's type, length and terminator); longer texts are cut and end in "...".
constexpr std::size_t kMaxText = 1383;

struct Registry {
  // Guards the maps below, the application registration and `closed` for writers; log() holds
  // it shared so that libdlt is never torn down under a record in flight.
  std::shared_mutex mutex;
  bool appRegistered = false;
  bool closed = false;  // libdlt's exit handler is about to run; leave libdlt alone
  std::map<std::string, std::unique_ptr<Channel::Context>> byName;
  std::set<std::string> ids;
};

// Never destroyed: channels held by other statics may outlive every destructor order at exit.
Registry& registry() {
  static Registry* const r = std::make_unique<Registry>().release();
  return *r;
}

// Runs before libdlt's own exit handler (registered after it): from here on no call reaches
// libdlt, because unregistering after libdlt's teardown would start it again and make the exit
// wait for a daemon.
void closeAtExit() {
  Registry& r = registry();
  std::unique_lock<std::shared_mutex> lock(r.mutex);
  r.closed = true;
}

std::string upperAlnum(const std::string& text, std::size_t max) {
  std::string out;
  for (char c : text) {
    if (out.size() == max)
      break;
    if (std::isalnum(static_cast<unsigned char>(c)))
      out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  }
  return out;
}

// The significant part of a channel name: what follows the last '_' ("GLOBAL" of
// "LUM_Orvane_GLOBAL"), or the whole name when that part has no letters or digits.
std::string baseId(const std::string& name) {
  const std::size_t cut = name.rfind('_');
  std::string id = upperAlnum(cut == std::string::npos ? name : name.substr(cut + 1), 4);
  if (id.empty())
    id = upperAlnum(name, 4);
  if (id.empty())
    id = "CTX";
  return id;
}

// baseId, or when another name holds it, its first characters followed by a counter
// ("GLO1" ... "GLO9", "GL10" ...).
std::string uniqueId(const std::string& name, const std::set<std::string>& taken) {
  const std::string base = baseId(name);
  if (taken.count(base) == 0)
    return base;
  for (int n = 1; n < 10000; ++n) {
    const std::string counter = std::to_string(n);
    const std::string id = base.substr(0, 4 - counter.size()) + counter;
    if (taken.count(id) == 0)
      return id;
  }
  return "";
}

void registerAppLocked(Registry& r) {
  if (r.appRegistered)
    return;
  r.appRegistered = true;
  // libdlt prints its own notes on standard output by default; send them to standard error
  // unless the environment chose a mode. Must happen before libdlt initialises.
  if (std::getenv("DLT_LOG_MODE") == nullptr)
    dlt_log_init(DLT_LOG_TO_STDERR);
  // Without a daemon libdlt would hold the process for 10 s at exit to flush its buffer.
  dlt_set_resend_timeout_atexit(0);
  const std::string app = Channel::appId();
  dlt_register_app(app.c_str(), program_invocation_short_name);
  std::atexit(closeAtExit);
}

}  // namespace

std::string Channel::appId() {
  const std::string id = upperAlnum(program_invocation_short_name, 4);
  return id.empty() ? "APP" : id;
}

int Channel::dltLevel(int16_t level) {
  switch (level) {
    case 0:
      return DLT_LOG_VERBOSE;
    case 1:
      return DLT_LOG_DEBUG;
    case 2:
      return DLT_LOG_INFO;
    case 3:
      return DLT_LOG_WARN;
    case 4:
      return DLT_LOG_ERROR;
    case 5:
      return DLT_LOG_FATAL;
    default:
      return DLT_LOG_INFO;
  }
}

Channel::Channel(const std::string& name, int16_t defaultLevel, int32_t option)
    : name_(name), option_(option), context_(nullptr), filterLevel_(defaultLevel) {
  Registry& r = registry();
  std::unique_lock<std::shared_mutex> lock(r.mutex);
  if (r.closed)
    return;
  auto it = r.byName.find(name_);
  if (it == r.byName.end()) {
    registerAppLocked(r);
    auto context = std::make_unique<Context>();
    context->id = uniqueId(name_, r.ids);
    if (!context->id.empty()) {
      context->registered =
          dlt_register_context_ll_ts(&context->dlt, context->id.c_str(), name_.c_str(),
                                     DLT_LOG_VERBOSE, DLT_TRACE_STATUS_OFF) == DLT_RETURN_OK;
      r.ids.insert(context->id);
    }
    it = r.byName.emplace(name_, std::move(context)).first;
  }
  context_ = it->second.get();
  ++context_->users;
}

Channel::~Channel() {
  if (context_ == nullptr)
    return;
  Registry& r = registry();
  std::unique_lock<std::shared_mutex> lock(r.mutex);
  if (--context_->users > 0)
    return;
  if (context_->registered && !r.closed)
    dlt_unregister_context(&context_->dlt);
  r.ids.erase(context_->id);
  r.byName.erase(name_);
}

void Channel::setFilterLevel(int16_t level) {
  filterLevel_.store(level, std::memory_order_relaxed);
}

void Channel::enable() {
  enabled_.store(true, std::memory_order_relaxed);
}

std::string Channel::contextId() const {
  if (context_ == nullptr || !context_->registered)
    return "";
  return context_->id;
}

bool Channel::log(int16_t level, const std::string& text) {
  if (!enabled_.load(std::memory_order_relaxed) ||
      level < filterLevel_.load(std::memory_order_relaxed) || context_ == nullptr ||
      !context_->registered)
    return false;
  Registry& r = registry();
  std::shared_lock<std::shared_mutex> lock(r.mutex);
  if (r.closed)
    return false;
  const auto dlt = static_cast<DltLogLevelType>(dltLevel(level));
  if (text.size() <= kMaxText)
    return dlt_log_string(&context_->dlt, dlt, text.c_str()) == DLT_RETURN_OK;
  const std::string cut = text.substr(0, kMaxText - 3) + "...";
  return dlt_log_string(&context_->dlt, dlt, cut.c_str()) == DLT_RETURN_OK;
}

}  // namespace tracing
