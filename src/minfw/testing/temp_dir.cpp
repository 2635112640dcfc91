#include "minfw/testing/temp_dir.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace kel::vxp3::minfw::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "orvane-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr)
    path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty())
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const {
  return path_ + "/" + name;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

}  // namespace kel::vxp3::minfw::testing
