#pragma once
// tracing::Channel: one named trace channel of the platform, backed by COVESA DLT (libdlt).
//
// Every channel name maps to one DLT context. DLT ids are four characters, so each name gets its
// own four-character context id, taken from the last "_"-separated part of the name
// ("LUM_Orvane_GLOBAL" -> "GLOB") and made unique within the process ("GLO1", "GLO2", ...); the
// full name is the context description. Channel objects of the same name share the context.
// The application is registered once per process; its id is the first four letters or digits of
// the process name, upper-cased ("orvane" -> "ORVA"), its description the process name.
//
// Levels are the logger's: 0 trace, 1 debug, 2 info, 3 warn, 4 error, 5 fatal, sent as DLT
// VERBOSE, DEBUG, INFO, WARN, ERROR, FATAL; any other level is sent as INFO. Contexts are
// registered at DLT VERBOSE, so the daemon's default threshold filters nothing (dlt-control can
// still lower it at run time). The channel's own filter level is on the logger's scale: a record
// passes when it is enabled and its level is at least the filter level. The default level given
// at construction is the filter level until setFilterLevel() changes it.
//
// Without a running daemon logging neither blocks nor fails the caller: libdlt buffers and then
// drops. Process exit does not wait for the daemon. libdlt's own diagnostics go to standard
// error (unless DLT_LOG_MODE in the environment says otherwise), never to standard output.
//
// Threading: thread-safe. Filter level and enable flag are atomics; a process-wide mutex guards
// the registry of names, context ids and DLT registration; libdlt serialises writes itself.

#include <atomic>
#include <cstdint>
#include <string>

namespace tracing {

class Channel {
 public:
  // `option` is kept for the platform API's signature; the DLT backend has no use for it.
  Channel(const std::string& name, int16_t defaultLevel, int32_t option);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  void setFilterLevel(int16_t level);
  // Until enabled, log() drops every record.
  void enable();

  // True when the record went to libdlt; false when it was filtered, the channel is not enabled,
  // the context could not be registered or libdlt dropped it (buffer full without a daemon).
  // A text longer than one DLT message holds (1383 bytes) is cut and ends in "...".
  bool log(int16_t level, const std::string& text);

  const std::string& name() const { return name_; }
  int32_t option() const { return option_; }
  // The four-character DLT context id of this channel ("" if registration failed).
  std::string contextId() const;

  // The DLT log level (DltLogLevelType value) that a logger level is sent with.
  static int dltLevel(int16_t level);
  // The application id this process registers with.
  static std::string appId();

  // Backend detail: the per-name state, defined by the implementation.
  struct Context;

 private:
  const std::string name_;
  const int32_t option_;
  Context* context_;  // shared per name; owned by the process-wide registry
  std::atomic<int16_t> filterLevel_;
  std::atomic<bool> enabled_{false};
};

}  // namespace tracing
