#pragma once
// A fresh temporary directory, removed with its content at the end of the test, and whole-file
// read and write. TempDir is owned by one test; the free functions are reentrant.

#include <string>

namespace kel::vxp3::minfw::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory, without a final "/"; empty if it could not be made.
  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string file(const std::string& name) const;

 private:
  std::string path_;
};

// The whole content of a file ("" if it cannot be read).
std::string readFile(const std::string& path);
// Replaces the content of a file.
void writeFile(const std::string& path, const std::string& data);

}  // namespace kel::vxp3::minfw::testing
