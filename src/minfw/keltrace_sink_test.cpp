// KelTrace against a recording fake of tracing::Channel. The fake replaces the platform channel
// at link time (this test does not link platform_tracing), so the sink's own code is what runs.

#include "minfw/keltrace_sink.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
