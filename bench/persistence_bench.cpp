// One change of the persistent record against the physical floor of a crash-safe write of the
// same bytes on the same file system: write + fsync of a sibling, rename, fsync of the
// directory, done directly with POSIX calls. The record's overhead is what lies above the
// floor: loading and parsing the file, serialising, the retry handle, chmod and chown.
//
// The directory is created under $ORVANE_BENCH_DIR when set, else under /tmp; it must be on
// the disk whose fsync cost is of interest (tmpfs makes fsync free and the floor meaningless).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "logic/persistence.h"
#include "minfw/log.h"

namespace {

class BenchDir {
 public:
  BenchDir() {
    const char* base = std::getenv("ORVANE_BENCH_DIR");
    std::string pattern =
        (std::filesystem::path(base != nullptr ? base : "/tmp") / "pers_bench_XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~BenchDir() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A record as it looks during an update: every key set.
void fill(orv::Persistence& record) {
  record.setChannel(1);
  record.setUpdateType(4);
  record.setRepairInstructionId(17);
  record.setStateHmi(3);
  record.setStateLum(5);
  record.setErrorCode(0);
  record.setProgress(42);
  record.setTrainName("NODBOX_TRAIN_2026_11_R1");
  record.setKeyManifest(std::string(600, 'k'));
  record.setStartDate("21.11.2026");
  record.setStartTime("10:11:12");
  record.setEndDate("--.--.----");
  record.setEndTime("--:--:--");
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void BM_PersistenceSetStateHmi(benchmark::State& state) {
  BenchDir dir;
  orv::Persistence record(dir.path(), "persistence.json");
  fill(record);
  uint32_t value = 0;
  for (auto _ : state) {
    record.setStateHmi(value);
    value = (value + 1) % 11;
  }
  state.counters["bytes"] = static_cast<double>(slurp(record.path()).size());
}
BENCHMARK(BM_PersistenceSetStateHmi)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_PersistenceGetStateHmi(benchmark::State& state) {
  BenchDir dir;
  orv::Persistence record(dir.path(), "persistence.json");
  fill(record);
  for (auto _ : state)
    benchmark::DoNotOptimize(record.getStateHmi(0));
}
BENCHMARK(BM_PersistenceGetStateHmi)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The floor: the same bytes, the same durability steps, nothing else.
bool floorWrite(const std::string& directory, const std::string& path, const std::string& bytes) {
  const std::string temp = path + ".new";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0)
    return false;
  const bool written =
      ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
      ::fsync(fd) == 0;
  if (::close(fd) != 0 || !written || std::rename(temp.c_str(), path.c_str()) != 0)
    return false;
  const int dirFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0)
    return false;
  const bool synced = ::fsync(dirFd) == 0;
  return ::close(dirFd) == 0 && synced;
}

std::string recordBytes(const std::string& directory) {
  orv::Persistence record(directory, "bytes.json");
  fill(record);
  return slurp(record.path());
}

void BM_PhysicalFloor(benchmark::State& state) {
  BenchDir dir;
  const std::string bytes = recordBytes(dir.path());
  const std::string path = dir.path() + "/floor.json";
  for (auto _ : state) {
    if (!floorWrite(dir.path(), path, bytes)) {
      state.SkipWithError("floor write failed");
      break;
    }
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_PhysicalFloor)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Both writes alternately in one loop, so disk noise from other processes hits both alike;
// "ratio" is the record's total time over the floor's.
void BM_RecordOverFloor(benchmark::State& state) {
  BenchDir dir;
  orv::Persistence record(dir.path(), "persistence.json");
  fill(record);
  const std::string bytes = slurp(record.path());
  const std::string floorPath = dir.path() + "/floor.json";
  using Clock = std::chrono::steady_clock;
  Clock::duration recordTime{};
  Clock::duration floorTime{};
  uint32_t value = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    record.setStateHmi(value);
    const auto middle = Clock::now();
    if (!floorWrite(dir.path(), floorPath, bytes)) {
      state.SkipWithError("floor write failed");
      break;
    }
    const auto end = Clock::now();
    recordTime += middle - start;
    floorTime += end - middle;
    value = (value + 1) % 11;
  }
  const double iterations = static_cast<double>(state.iterations());
  if (iterations > 0 && floorTime.count() > 0) {
    state.counters["record_us"] =
        std::chrono::duration<double, std::micro>(recordTime).count() / iterations;
    state.counters["floor_us"] =
        std::chrono::duration<double, std::micro>(floorTime).count() / iterations;
    state.counters["ratio"] = std::chrono::duration<double>(recordTime).count() /
                              std::chrono::duration<double>(floorTime).count();
  }
}
BENCHMARK(BM_RecordOverFloor)->Unit(benchmark::kMicrosecond)->UseRealTime()->MinTime(3.0);

}  // namespace

int main(int argc, char** argv) {
  // The first write of each run finds no file; that warning is expected.
  kel::vxp3::minfw::Logger::instance().setMinLevel(kel::vxp3::minfw::kError);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
