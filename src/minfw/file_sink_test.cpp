// File sink: rotation of the ten generations, the size limit, the fallback for a path that cannot
// be opened, and whole lines from many threads through the logger. KelTrace against a recording
// fake of tracing::Channel, which replaces the platform channel at link time (this test does not
// link platform_tracing), so the sink's own code is what runs.

#include "minfw/file_sink.h"
#include "minfw/keltrace_sink.h"
#include "minfw/testing/temp_dir.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "minfw/log.h"

namespace {

// Everything the fake channels did, in order. Its mutex is taken inside the sink's, never the
// other way round.
struct Event {
  enum Kind { kCreated, kLog, kDestroyed } kind;
  std::string channel;
  int16_t level = 0;  // kCreated: default level; kLog: record level
  int32_t option = 0;
  int16_t filterLevel = 0;
  bool enabled = false;
  std::string text;
  const void* self = nullptr;
};

class Recorder {
 public:
  void add(Event e) {
    std::unique_lock<std::mutex> lock(mutex_);
    events_.push_back(std::move(e));
    changed_.notify_all();
    if (events_.back().kind == Event::kLog &&
        events_.back().text.find("block") != std::string::npos)
      changed_.wait_for(lock, std::chrono::seconds(20), [this] { return released_; });
  }
  std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::vector<Event> of(Event::Kind kind) {
    std::vector<Event> out;
    for (const Event& e : events())
      if (e.kind == kind)
        out.push_back(e);
    return out;
  }
  void reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
    released_ = false;
  }
  // A record whose text contains "block" holds its writer inside the channel (and so inside the
  // sink's mutex) until release() (or a bound, so a broken sink fails instead of hanging).
  bool waitForBlocked() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [this] {
      return !events_.empty() && events_.back().text.find("block") != std::string::npos;
    });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;  // guards events_ and released_
  std::condition_variable changed_;
  std::vector<Event> events_;
  bool released_ = false;
};

Recorder& recorder() {
  static Recorder r;
  return r;
}

}  // namespace

// The fake platform channel.
namespace tracing {

Channel::Channel(const std::string& name, int16_t defaultLevel, int32_t option)
    : name_(name), option_(option), context_(nullptr), filterLevel_(defaultLevel) {
  recorder().add({Event::kCreated, name_, defaultLevel, option, defaultLevel, false, "", this});
}

Channel::~Channel() {
  recorder().add({Event::kDestroyed, name_, 0, option_, 0, false, "", this});
}

void Channel::setFilterLevel(int16_t level) {
  filterLevel_ = level;
}

void Channel::enable() {
  enabled_ = true;
}

bool Channel::log(int16_t level, const std::string& text) {
  recorder().add({Event::kLog, name_, level, option_, filterLevel_, enabled_, text, this});
  return true;
}

}  // namespace tracing

namespace kel::vxp3::minfw {
namespace {

namespace fs = std::filesystem;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;

// The console line of a record, its time text aside.
std::string lineTail(const std::string& name, const std::string& location,
                     const std::string& message) {
  char tail[512];
  std::snprintf(tail, sizeof(tail), "] %10s %25s | %s\033[0m\n", name.c_str(), location.c_str(),
                message.c_str());
  return tail;
}

TEST(FileSinkRotation, FirstWriteShiftsExistingGenerations) {
  struct Row {
    const char* present;  // generations on disk before the first write: 0 the bare file, A .10
    const char* after;    // which old generation .01 ... .10 hold afterwards ('.': none)
    const char* proves;
  };
  const Row rows[] = {
      {"", "..........", "no file: nothing to shift"},
      {"0", "0.........", "the previous run's log becomes .01"},
      {"012", "012.......", "every generation moves up by one"},
      {"03", "0..3......", "a gap is kept as a gap"},
      {"12", "12........", "without a bare file nothing moves"},
      {"0123456789A", "0123456789", "with all ten present, the old .10 is lost"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    TempDir dir;
    const std::string path = dir.file("") + "Orvane.log";
    auto generation = [&](int i) {
      char suffix[8];
      std::snprintf(suffix, sizeof(suffix), ".%02d", i);
      return i == 0 ? path : path + suffix;
    };
    auto content = [](char g) { return std::string("generation ") + g + "\n"; };
    for (const char* g = row.present; *g != '\0'; ++g)
      writeFile(generation(*g == 'A' ? 10 : *g - '0'), content(*g));

    File sink(dir.file(""));
    sink.write("LUM", "Orvane", "GLOBAL", "main(1)", "fresh", 2);
    EXPECT_EQ(sink.path(), path);
    const std::string fresh = readFile(path);
    EXPECT_THAT(fresh, ::testing::EndsWith(lineTail("Orvane", "main(1)", "fresh")));
    EXPECT_EQ(std::count(fresh.begin(), fresh.end(), '\n'), 1) << "a fresh file";
    for (int i = 1; i <= File::kGenerations + 1; ++i) {
      const char held = i <= File::kGenerations ? row.after[i - 1] : '.';
      EXPECT_EQ(readFile(generation(i)), held == '.' ? "" : content(held)) << generation(i);
      EXPECT_EQ(fs::exists(generation(i)), held != '.') << generation(i);
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
  sink.write("LUM", "Orvane", "GLOBAL", "main(2)", "next", 2);

  ASSERT_TRUE(fs::exists(path + ".01"));
  EXPECT_EQ(fs::file_size(path + ".01"), full) << "the full file moved whole";
  EXPECT_GT(full, 0x100000u);
  EXPECT_LT(full - 0x100000u, full / lines) << "it exceeds the limit by less than one line";
  const std::string fresh = readFile(path);
  EXPECT_THAT(fresh, ::testing::EndsWith(lineTail("Orvane", "main(2)", "next")));
  EXPECT_EQ(std::count(fresh.begin(), fresh.end(), '\n'), 1);
}

TEST(FileSink, NamesDirectoriesAndAnUnopenablePath) {
  TempDir dir;
  File sink(dir.file(""));
  sink.write("LUM", "First", "GLOBAL", "main(1)", "one", 2);
  sink.write("LUM", "Second", "GLOBAL", "main(2)", "two", 3);
  EXPECT_THAT(readFile(dir.file("") + "First.log"),
              ::testing::EndsWith(lineTail("First", "main(1)", "one")));
  EXPECT_THAT(readFile(dir.file("") + "Second.log"), ::testing::StartsWith("\033[36m["))
      << "a new name opens its own file; the warn colour, escapes kept in the file";
  EXPECT_EQ(sink.path(), dir.file("") + "Second.log");

  const std::string name = "orvane-file-sink-test-" + std::to_string(getpid());
  {
    File tmp;
    tmp.write("LUM", name, "GLOBAL", "main(1)", "in tmp", 2);
    EXPECT_EQ(tmp.path(), "/tmp/" + name + ".log") << "the default directory";
  }
  EXPECT_THAT(readFile("/tmp/" + name + ".log"),
              ::testing::EndsWith(lineTail(name, "main(1)", "in tmp")));
  std::remove(("/tmp/" + name + ".log").c_str());

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

TEST(FileSinkThroughLogger, ConcurrentWritersNeverInterleaveLines) {
  constexpr int kThreads = 8;
  constexpr int kRecords = 400;
  TempDir dir;
  Logger& logger = Logger::instance();
  logger.init("Many", "LUM", 0);
  logger.setSink(std::make_shared<File>(dir.file("")));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      pthread_setname_np(pthread_self(), "log-writer");
      for (int i = 0; i < kRecords; ++i)
        MLOG_INFO("GLOBAL", "writer ", t, " record ", i, " ",
                  std::string(static_cast<size_t>(t * 7), '.'));
    });
  }
  for (std::thread& t : threads)
    t.join();
  logger.setSink(nullptr);

  const std::regex line(
      "\033\\[32m\\[\\d\\d:\\d\\d:\\d\\d:\\d\\d\\d\\]       Many +\\S+\\(\\d+\\) \\| "
      "writer (\\d) record (\\d+) \\.*\033\\[0m");
  std::ifstream in(dir.file("") + "Many.log");
  std::string text;
  std::vector<int> next(kThreads, 0);
  int count = 0;
  while (std::getline(in, text)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, line)) << "line " << count << ": " << text;
    const int writer = std::stoi(m[1]);
    EXPECT_EQ(std::stoi(m[2]), next[writer]++) << "each writer's records in order";
    ++count;
  }
  EXPECT_EQ(count, kThreads * kRecords);
}

class KelTraceTest : public ::testing::Test {
 protected:
  void SetUp() override { recorder().reset(); }
};

TEST_F(KelTraceTest, RecordsGoToTheChannelOfTheirName) {
  struct Row {
    const char* traceApp;
    const char* name;
    const char* tag;
    const char* location;
    const char* message;
    uint8_t level;
    const char* channel;
    const char* text;
    const char* proves;
  };
  const Row rows[] = {
      {"LUM", "Orvane", "GLOBAL", " orv::Logic::seqStart(120)", "started", 2, "LUM_Orvane_GLOBAL",
       " orv::Logic::seqStart(120): started", "name is traceApp_name_tag; text location: message"},
      {"LUM", "Orvane", "pers", "main(67)", "", 0, "LUM_Orvane_pers",
       "main(67): ", "another tag is another channel; trace level 0 passes; empty message"},
      {"LUM", "Orvane", "GLOBAL", "f(1)", "again", 5, "LUM_Orvane_GLOBAL", "f(1): again",
       "the same name reuses its channel"},
      {"LUM", "Orvane", "hmi", "g(2)", "six", 6, "LUM_Orvane_hmi", "g(2): six",
       "a level above fatal is passed unchanged"},
      {"", "", "", "h(3)", "bare", 4, "__", "h(3): bare", "empty names still join with '_'"},
  };
  {
    KelTrace sink;
    for (const Row& row : rows)
      sink.write(row.traceApp, row.name, row.tag, row.location, row.message, row.level);
    EXPECT_TRUE(recorder().of(Event::kDestroyed).empty());
  }
  EXPECT_EQ(recorder().of(Event::kDestroyed).size(), 4u) << "destruction destroys every channel";

  const std::vector<Event> logs = recorder().of(Event::kLog);
  ASSERT_EQ(logs.size(), std::size(rows));
  for (std::size_t i = 0; i < logs.size(); ++i) {
    SCOPED_TRACE(rows[i].proves);
    EXPECT_EQ(logs[i].channel, rows[i].channel);
    EXPECT_EQ(logs[i].text, rows[i].text);
    EXPECT_EQ(logs[i].level, rows[i].level);
    EXPECT_EQ(logs[i].filterLevel, 0) << "filter level set to 0 before the first record";
    EXPECT_TRUE(logs[i].enabled) << "enabled before the first record";
  }
  EXPECT_EQ(logs[0].self, logs[2].self) << "one channel object per name";

  const std::vector<Event> created = recorder().of(Event::kCreated);
  ASSERT_EQ(created.size(), 4u) << "one channel per distinct name";
  for (const Event& e : created) {
    EXPECT_EQ(e.level, 7) << e.channel << ": default level";
    EXPECT_EQ(e.option, 2) << e.channel << ": third argument";
  }
}

TEST_F(KelTraceTest, DestructionWaitsForTheRecordInFlightAndDropsLaterOnes) {
  std::optional<KelTrace> sink;
  sink.emplace();
  KelTrace* raw = &*sink;  // the threads never touch the optional itself
  std::thread writer([raw] {
    pthread_setname_np(pthread_self(), "kt-writer");
    raw->write("LUM", "Orvane", "GLOBAL", "f(1)", "block here", 2);
  });
  ASSERT_TRUE(recorder().waitForBlocked());
  // This thread destroys the sink while the record is inside the channel. Once the destruction
  // has begun, a late writer (at exit, a thread still logging) gets its records dropped at
  // once, then lets the record in flight finish.
  std::thread late([raw] {
    pthread_setname_np(pthread_self(), "kt-late");
    for (int i = 0; i < 20000 && raw->enabled(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    raw->write("LUM", "Orvane", "GLOBAL", "f(2)", "late, known channel", 2);
    raw->write("LUM", "Orvane", "other", "f(3)", "late, new channel", 2);
    recorder().release();
  });
  sink.reset();
  writer.join();
  late.join();

  const std::vector<Event> events = recorder().events();
  ASSERT_EQ(events.size(), 3u) << "no late record, no channel made after destruction began";
  EXPECT_EQ(events[0].kind, Event::kCreated);
  EXPECT_EQ(events[1].kind, Event::kLog);
  EXPECT_EQ(events[2].kind, Event::kDestroyed) << "the channel outlived the record in flight";
}

TEST_F(KelTraceTest, ConcurrentWritersAndDestructionAreRaceFree) {
  constexpr int kThreads = 6;
  constexpr int kRecords = 300;
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

  EXPECT_EQ(recorder().of(Event::kLog).size(), static_cast<std::size_t>(kThreads * kRecords));
  EXPECT_EQ(recorder().of(Event::kCreated).size(), 4u) << "concurrent first records of a name";
  EXPECT_EQ(recorder().of(Event::kDestroyed).size(), 4u);
}

}  // namespace
}  // namespace kel::vxp3::minfw
