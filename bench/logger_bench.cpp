// Logger throughput through the File sink against spdlog writing the same lines to a file.
//
// Both flush after every line (the File sink does so that a crash loses nothing; spdlog is told
// to with flush_on(trace)), so both pay one write per line. spdlog gets the location text ready
// made as its source function and the colour escapes in its pattern, so its lines are
// byte-for-byte those of the File sink:
//   "\e[32m[HH:MM:SS:mmm]     Orvane  orv::Logic::seqProgress(42) | progress 17 of 100\e[0m"

#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "minfw/file_sink.h"
#include "minfw/log.h"

namespace orv {
struct Logic {
  static constexpr int kProgressLine = __LINE__ + 3;
  // Logs like the service does: the macro supplies signature, name and line.
  static void seqProgress(int done, int total) {
    MLOG_INFO("GLOBAL", "progress ", done, " of ", total);
  }
};
}  // namespace orv

namespace {

namespace fs = std::filesystem;
using kel::vxp3::minfw::File;
using kel::vxp3::minfw::Logger;

class TempDir {
 public:
  TempDir() {
    std::string templ = (fs::temp_directory_path() / "orvane-logger-bench-XXXXXX").string();
    if (mkdtemp(templ.data()) != nullptr)
      path_ = templ + "/";
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Both benchmarks must write the same bytes per line, their time texts and counters aside.
void checkFirstLine(benchmark::State& state, const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  const std::string head = "]     Orvane  orv::Logic::seqProgress(" +
                           std::to_string(orv::Logic::kProgressLine) + ") | progress ";
  const std::string tail = " of 100\033[0m";
  const bool same = line.size() > 18 + head.size() + tail.size() &&
                    line.compare(0, 6, "\033[32m[") == 0 &&
                    line.compare(18, head.size(), head) == 0 &&
                    line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
  if (!same)
    state.SkipWithError(("unexpected line: " + line).c_str());
}

void BM_FileSink(benchmark::State& state) {
  TempDir dir;
  Logger& logger = Logger::instance();
  logger.init("Orvane", "LUM", 0);
  logger.setSink(std::make_shared<File>(dir.path()));
  int i = 0;
  for (auto _ : state)
    orv::Logic::seqProgress(++i % 100, 100);
  logger.setSink(nullptr);
  checkFirstLine(state, dir.path() + "Orvane.log");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileSink)->UseRealTime();

void BM_Spdlog(benchmark::State& state) {
  TempDir dir;
  auto logger = spdlog::basic_logger_mt("Orvane", dir.path() + "spdlog.log", true);
  logger->set_pattern("\033[32m[%H:%M:%S:%e] %10n %25! | %v\033[0m");
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  // The location text the logger would compute, passed as spdlog's source function.
  const std::string location =
      " orv::Logic::seqProgress(" + std::to_string(orv::Logic::kProgressLine) + ")";
  const spdlog::source_loc where{__FILE__, orv::Logic::kProgressLine, location.c_str()};
  int i = 0;
  for (auto _ : state)
    logger->log(where, spdlog::level::info, "progress {} of {}", ++i % 100, 100);
  spdlog::drop("Orvane");
  logger.reset();
  checkFirstLine(state, dir.path() + "spdlog.log");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Spdlog)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
