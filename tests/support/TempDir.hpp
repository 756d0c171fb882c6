// A temporary folder for one test, removed with everything in it when the test ends.
#pragma once

#include <filesystem>
#include <string>

namespace quillo::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// The whole file as bytes (empty when it cannot be read), for byte-for-byte comparisons.
std::string fileBytes(const std::filesystem::path& file);

}  // namespace quillo::test
