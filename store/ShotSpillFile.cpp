// The shot-time index's temporary file (see header).
#include "store/ShotSpillFile.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace FullWaveform {

std::unique_ptr<ShotSpillFile> ShotSpillFile::open() {
  std::error_code ec;
  const auto folder = std::filesystem::temp_directory_path(ec);
  if (ec) return nullptr;
  std::string name = (folder / "quillo-shots-XXXXXX").string();
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) return nullptr;
  unlink(name.c_str());  // the open descriptor keeps it until the run ends
  return std::unique_ptr<ShotSpillFile>(new ShotSpillFile(descriptor));
}

ShotSpillFile::~ShotSpillFile() {
  close(descriptor_);
}

std::int64_t ShotSpillFile::append(const std::vector<std::uint8_t>& bytes) {
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

std::vector<std::uint8_t> ShotSpillFile::read(std::int64_t offset, std::size_t count) const {
  std::vector<std::uint8_t> bytes(count);
  std::size_t done = 0;
  while (done < count) {
    const ssize_t n =
        pread(descriptor_, bytes.data() + done, count - done, off_t(offset + std::int64_t(done)));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("shot-time index: cannot read back its temporary file");
    done += std::size_t(n);
  }
  return bytes;
}

}  // namespace FullWaveform
