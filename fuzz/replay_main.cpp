// Runs a harness without libFuzzer over every file of the folders (or the files) named on the
// command line, in name order, so that a build without clang replays the committed corpus and
// regression inputs under its sanitizers. A folder that does not exist is skipped (a harness
// without findings has no regression folder); no input at all is a failure.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i], error)) {
      for (const auto& entry : fs::directory_iterator(argv[i], error))
        if (entry.is_regular_file())
          files.push_back(entry.path());
    } else if (fs::is_regular_file(argv[i], error)) {
      files.emplace_back(argv[i]);
    } else {
      std::printf("replay: %s not there, skipped\n", argv[i]);
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
      std::ifstream in(file, std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      std::printf("replay: %s (%zu bytes)\n", file.c_str(), bytes.size());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::printf("replay: %zu inputs\n", count);
  return count > 0 ? 0 : 1;
}
