// channel_probe: the logging half of the trace channel test. libdlt reads DLT_PIPE_DIR from the
// environment when it starts, so every scenario runs in a process of its own.
//
//   channel_probe records   one record per level on channels whose names share their first
//                           four characters, one on a name whose last part collides, and a
//                           text too long for one DLT message
//   channel_probe flood     10000 records on one channel, which stays alive until exit
//
// Prints only its own result lines on standard output, so the test can prove that libdlt wrote
// nothing there.

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/tracing/channel.h"

namespace {

// Destroyed by the exit handlers, after libdlt's own, like the logger's trace sink.
std::unique_ptr<tracing::Channel> gLateChannel;

int records() {
  tracing::Channel global("LUM_Orvane_GLOBAL", 7, 2);
  tracing::Channel pers("LUM_Orvane_pers", 7, 2);
  tracing::Channel other("LUM_Other_GLOBAL", 7, 2);
  for (tracing::Channel* c : {&global, &pers, &other}) {
    c->setFilterLevel(0);
    c->enable();
  }
  for (int16_t level = 0; level <= 6; ++level)
    global.log(level, "global level " + std::to_string(level));
  pers.log(3, "pers warn");
  pers.log(2, "long " + std::string(1995, 'y'));  // more than one DLT message holds
  other.log(4, "other error");
  std::printf("ids %s %s %s\n", global.contextId().c_str(), pers.contextId().c_str(),
              other.contextId().c_str());
  return 0;
}

int flood() {
  gLateChannel = std::make_unique<tracing::Channel>("LUM_Orvane_GLOBAL", 7, 2);
  gLateChannel->setFilterLevel(0);
  gLateChannel->enable();
  int n = 0;
  for (; n < 10000; ++n)
    gLateChannel->log(static_cast<int16_t>(n % 6), "flood record " + std::to_string(n));
  std::printf("logged %d\n", n);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "records") == 0)
    return records();
  if (argc == 2 && std::strcmp(argv[1], "flood") == 0)
    return flood();
  std::fprintf(stderr, "usage: %s records|flood\n", argv[0]);
  return 2;
}
