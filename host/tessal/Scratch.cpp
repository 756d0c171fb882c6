// Scratch files of the data model (see header): unlinked files in the host's scratch folder.
#include "tessal/Scratch.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace Tessal {

namespace {

struct ScratchSettings {
  std::mutex mutex;
  bool folderSet = false;
  std::filesystem::path folder;
  ScratchFactory factory;
};

ScratchSettings& settings() {
  static ScratchSettings s;
  return s;
}

class FolderScratchFile final : public ScratchFile {
 public:
  explicit FolderScratchFile(int descriptor) : descriptor_(descriptor) {}
  ~FolderScratchFile() override { close(descriptor_); }

  std::int64_t append(const std::vector<std::uint8_t>& bytes) override {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = pwrite(descriptor_, bytes.data() + done, bytes.size() - done,
                               off_t(end_ + std::int64_t(done)));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return -1;  // a full disk: the caller keeps the bytes
      done += std::size_t(n);
    }
    const std::int64_t start = end_;
    end_ += std::int64_t(bytes.size());
    return start;
  }

  bool read(std::int64_t offset, std::size_t count, std::vector<std::uint8_t>& out,
            std::string& error) const override {
    out.resize(count);
    std::size_t done = 0;
    while (done < count) {
      const ssize_t n =
          pread(descriptor_, out.data() + done, count - done, off_t(offset + std::int64_t(done)));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = n < 0 ? std::strerror(errno) : "the file ends early";
        return false;
      }
      done += std::size_t(n);
    }
    return true;
  }

 private:
  int descriptor_;
  std::int64_t end_ = 0;
};

std::unique_ptr<ScratchFile> openInFolder(const std::filesystem::path& folder) {
  if (folder.empty()) return nullptr;
  std::string name = (folder / "quillo-scratch-XXXXXX").string();
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) return nullptr;
  unlink(name.c_str());  // the open descriptor keeps it until it is closed
  return std::make_unique<FolderScratchFile>(descriptor);
}

}  // namespace

void setScratchFolder(const std::filesystem::path& folder) {
  std::lock_guard lock(settings().mutex);
  settings().folder = folder;
  settings().folderSet = true;
}

std::filesystem::path scratchFolder() {
  std::lock_guard lock(settings().mutex);
  if (settings().folderSet) return settings().folder;
  std::error_code ec;
  auto folder = std::filesystem::temp_directory_path(ec);
  return ec ? std::filesystem::path() : folder;
}

void setScratchFactory(ScratchFactory factory) {
  std::lock_guard lock(settings().mutex);
  settings().factory = std::move(factory);
}

std::unique_ptr<ScratchFile> openScratchFile() {
  ScratchFactory factory;
  {
    std::lock_guard lock(settings().mutex);
    factory = settings().factory;
  }
  return factory ? factory() : openInFolder(scratchFolder());
}

}  // namespace Tessal
