// File sink: rotation of the ten generations, the size limit, the fallback for a path that cannot
// be opened, and whole lines from many threads through the logger.

#include "minfw/file_sink.h"
#include "minfw/testing/temp_dir.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "minfw/log.h"

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

}  // namespace
}  // namespace kel::vxp3::minfw
