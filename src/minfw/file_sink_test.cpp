// File sink: the ten generations, the size limit, a path that cannot be opened. KelTrace runs
// against a recording fake of tracing::Channel that replaces the platform one at link time.

#include "minfw/file_sink.h"
#include "minfw/keltrace_sink.h"
#include "minfw/testing/temp_dir.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "minfw/log.h"
#include "minfw/str.h"

namespace {

// Everything the fake channels did, one text per event. A record containing "block" holds its
// writer inside the channel (so inside the sink's mutex) until `release` is set, or a bound.
class Recorder {
 public:
  void add(const std::string& event) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      events_.push_back(event);
    }
    if (event.find("block") != std::string::npos)
      release.get_future().wait_for(std::chrono::seconds(20));
  }
  std::vector<std::string> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::size_t count(const std::string& text) {
    std::size_t n = 0;
    for (const std::string& e : events())
      n += e.find(text) != std::string::npos ? 1 : 0;
    return n;
  }
  std::promise<void> release;

 private:
  std::mutex mutex_;  // guards events_
  std::vector<std::string> events_;
};

std::unique_ptr<Recorder> gRecorder = std::make_unique<Recorder>();

}  // namespace

// The fake platform channel.
namespace tracing {

using kel::vxp3::minfw::cat;

Channel::Channel(const std::string& name, int16_t defaultLevel, int32_t option)
    : name_(name), option_(option), context_(nullptr), filterLevel_(defaultLevel) {
  gRecorder->add(cat("new ", name_, " ", defaultLevel, " ", option));
}

Channel::~Channel() {
  gRecorder->add("delete " + name_);
}

void Channel::setFilterLevel(int16_t level) {
  filterLevel_ = level;
}
void Channel::enable() {
  enabled_ = true;
}

bool Channel::log(int16_t level, const std::string& text) {
  gRecorder->add(cat("log ", name_, " ", level, " ", filterLevel_.load(),
                     enabled_ ? " on [" : " off [", text, "]"));
  return true;
}

}  // namespace tracing

namespace kel::vxp3::minfw {
namespace {

namespace fs = std::filesystem;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;

// The file holds one line, the console line of the record (its time text aside).
void expectOneLine(const std::string& path, const std::string& name, const std::string& location,
                   const std::string& message) {
  char tail[512];
  std::snprintf(tail, sizeof(tail), "] %10s %25s | %s\033[0m\n", name.c_str(), location.c_str(),
                message.c_str());
  const std::string text = readFile(path);
  EXPECT_THAT(text, ::testing::EndsWith(tail)) << path;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << path;
}

TEST(FileSinkRotation, FirstWriteShiftsExistingGenerations) {
  // Generations on disk before the first write (0 the bare file, A .10), the old generation that
  // each of .01 ... .10 holds afterwards ('.': none), proves.
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"", "..........", "no file: nothing to shift"},
      {"0", "0.........", "the previous run's log becomes .01"},
      {"012", "012.......", "every generation moves up by one"},
      {"03", "0..3......", "a gap is kept as a gap"},
      {"12", "12........", "without a bare file nothing moves"},
      {"0123456789A", "0123456789", "with all ten present, the old .10 is lost"},
  };
  for (const auto& [present, after, proves] : rows) {
    SCOPED_TRACE(proves);
    TempDir dir;
    const std::string path = dir.file("") + "Orvane.log";
    auto generation = [&](int i) { return i == 0 ? path : cat(path, i < 10 ? ".0" : ".", i); };
    auto content = [](char g) { return std::string("generation ") + g + "\n"; };
    for (const char* g = present; *g != '\0'; ++g)
      writeFile(generation(*g == 'A' ? 10 : *g - '0'), content(*g));
    File sink(dir.file(""));
    sink.write("LUM", "Orvane", "GLOBAL", "main(1)", "fresh", 2);
    EXPECT_EQ(sink.path(), path);
    expectOneLine(path, "Orvane", "main(1)", "fresh");
    for (int i = 1; i <= File::kGenerations + 1; ++i) {
      const char held = i <= File::kGenerations ? after[i - 1] : '.';
      EXPECT_EQ(readFile(generation(i)), held == '.' ? "" : content(held)) << generation(i);
    }
  }
}

TEST(FileSinkRotation, CrossingTheLimitRotatesBeforeTheNextLine) {
  TempDir dir;
  const std::string path = dir.file("") + "Orvane.log";
  File sink(dir.file(""));
  const std::string message(1000, 'x');
  int lines = 0;
  // Until the file has grown past the limit (the line that crosses it is still written here).
  while (!fs::exists(path) || fs::file_size(path) <= 0x100000) {
    sink.write("LUM", "Orvane", "GLOBAL", "main(1)", message, 2);
    ++lines;
  }
  const auto full = fs::file_size(path);
  EXPECT_FALSE(fs::exists(path + ".01")) << "not rotated while at most 1 MiB";
  const auto openFiles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto open = openFiles();
  sink.write("LUM", "Orvane", "GLOBAL", "main(2)", "next", 2);
  EXPECT_EQ(openFiles(), open) << "the rotated file is closed";
  ASSERT_TRUE(fs::exists(path + ".01"));
  EXPECT_EQ(fs::file_size(path + ".01"), full) << "the full file moved whole";
  EXPECT_GT(full, 0x100000u);
  EXPECT_LT(full - 0x100000u, full / lines) << "it exceeds the limit by less than one line";
  expectOneLine(path, "Orvane", "main(2)", "next");
}

TEST(FileSink, NamesDirectoriesAndAnUnopenablePath) {
  TempDir dir;
  File sink(dir.file(""));
  sink.write("LUM", "First", "GLOBAL", "main(1)", "one", 2);
  sink.write("LUM", "Second", "GLOBAL", "main(2)", "two", 3);
  expectOneLine(dir.file("") + "First.log", "First", "main(1)", "one");
  EXPECT_THAT(readFile(dir.file("") + "Second.log"), ::testing::StartsWith("\033[36m["))
      << "a new name opens its own file; the warn colour, escapes kept in the file";
  EXPECT_EQ(sink.path(), dir.file("") + "Second.log");
  const std::string missing = dir.file("") + "no/such/dir/";
  ::testing::internal::CaptureStderr();
  {
    File lost(missing);
    lost.write("LUM", "Orvane", "GLOBAL", "main(1)", "lost", 4);
    lost.write("LUM", "Orvane", "GLOBAL", "main(2)", "lost too", 4);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Unable to open the file [" + missing + "Orvane.log]: No such file or directory (2)\n")
      << "reported once, then written to /dev/null";
  EXPECT_FALSE(fs::exists(missing));
}

class KelTraceTest : public ::testing::Test {
 protected:
  void SetUp() override { gRecorder = std::make_unique<Recorder>(); }
};

TEST_F(KelTraceTest, RecordsGoToTheChannelOfTheirName) {
  {
    KelTrace sink;
    sink.write("LUM", "Orvane", "GLOBAL", " orv::Logic::seqStart(120)", "started", 2);
    sink.write("LUM", "Orvane", "pers", "main(67)", "", 0);
    sink.write("LUM", "Orvane", "GLOBAL", "f(1)", "again", 6);
    sink.write("", "", "", "h(3)", "bare", 4);
  }
  // One channel per name "traceApp_name_tag" (default level 7, option 2), filter level 0 and
  // enabled before its first record; the text is "location: message", the level unchanged.
  std::vector<std::string> events = gRecorder->events();
  ASSERT_EQ(events.size(), 10u);
  events.resize(7);
  EXPECT_EQ(events, (std::vector<std::string>{
                        "new LUM_Orvane_GLOBAL 7 2",
                        "log LUM_Orvane_GLOBAL 2 0 on [ orv::Logic::seqStart(120): started]",
                        "new LUM_Orvane_pers 7 2", "log LUM_Orvane_pers 0 0 on [main(67): ]",
                        "log LUM_Orvane_GLOBAL 6 0 on [f(1): again]", "new __ 7 2",
                        "log __ 4 0 on [h(3): bare]"}));
  EXPECT_EQ(gRecorder->count("delete "), 3u) << "destruction deletes every channel";
}

TEST_F(KelTraceTest, DestructionWaitsForTheRecordInFlightAndDropsLaterOnes) {
  std::optional<KelTrace> sink;
  sink.emplace();
  KelTrace* raw = &*sink;  // the threads never touch the optional itself
  std::thread writer([raw] {
    pthread_setname_np(pthread_self(), "kt-writer");
    raw->write("LUM", "Orvane", "GLOBAL", "f(1)", "block here", 2);
  });
  for (int i = 0; i < 20000 && gRecorder->count("block") == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  // This thread destroys the sink while the record is inside the channel. A writer late for the
  // destruction (at exit, a thread still logging) is dropped at once, then lets the record go.
  std::thread late([raw] {
    pthread_setname_np(pthread_self(), "kt-late");
    for (int i = 0; i < 20000 && raw->enabled(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    raw->write("LUM", "Orvane", "GLOBAL", "f(2)", "late, known channel", 2);
    raw->write("LUM", "Orvane", "other", "f(3)", "late, new channel", 2);
    gRecorder->release.set_value();
  });
  sink.reset();
  writer.join();
  late.join();
  // No late record nor channel; the channel outlived the record in flight.
  EXPECT_EQ(gRecorder->events(),
            (std::vector<std::string>{"new LUM_Orvane_GLOBAL 7 2",
                                      "log LUM_Orvane_GLOBAL 2 0 on [f(1): block here]",
                                      "delete LUM_Orvane_GLOBAL"}));
}

TEST_F(KelTraceTest, ConcurrentWritersAndDestructionAreRaceFree) {
  constexpr int kThreads = 6, kRecords = 300;
  auto sink = std::make_shared<KelTrace>();
  std::vector<std::thread> writers;
  std::atomic<int> started{0};
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      pthread_setname_np(pthread_self(), "kt-writer");
      std::shared_ptr<KelTrace> own = sink;  // the logger's record in flight holds the sink
      ++started;
      for (int i = 0; i < kRecords; ++i)
        own->write("LUM", "Orvane", "tag" + std::to_string((t + i) % 4), "f(1)", std::to_string(i),
                   2);
    });
  }
  for (int i = 0; i < 20000 && started.load() < kThreads; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  sink.reset();  // the last writer to finish destroys the sink
  for (std::thread& w : writers)
    w.join();
  EXPECT_EQ(gRecorder->count("log "), static_cast<std::size_t>(kThreads * kRecords));
  EXPECT_EQ(gRecorder->count("new "), 4u) << "concurrent first records of a name";
  EXPECT_EQ(gRecorder->count("delete "), 4u);
}

}  // namespace
}  // namespace kel::vxp3::minfw
