// Scratch files of the data model (see header): unlinked files in the host's scratch folder.
#include "tessal/Scratch.hpp"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
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

// Scattered bytes as the system's vectored calls take them; empty pieces left out.
template <class Byte>
std::vector<iovec> ioVectors(const std::vector<std::span<Byte>>& pieces) {
  std::vector<iovec> io;
  for (const auto& p : pieces)
    if (!p.empty()) io.push_back({const_cast<std::uint8_t*>(p.data()), p.size()});
  return io;
}

// Moves `done` bytes past the start of `io` (from `first` on): drops the pieces done, shortens
// the one partly done.
std::size_t skipDone(std::vector<iovec>& io, std::size_t first, std::size_t done) {
  while (first < io.size() && done >= io[first].iov_len) done -= io[first++].iov_len;
  if (first < io.size()) {
    io[first].iov_base = static_cast<std::uint8_t*>(io[first].iov_base) + done;
    io[first].iov_len -= done;
  }
  return first;
}

// pwritev or preadv over all of `io` from `offset`, resuming after short transfers; the
// bytes moved, short only at an error (errno set) or the file's end (read).
template <class Call>
std::size_t transferAll(std::vector<iovec> io, std::int64_t offset, Call call) {
  std::size_t moved = 0;
  for (std::size_t first = 0; first < io.size();) {
    const int count = int(std::min<std::size_t>(io.size() - first, IOV_MAX));
    const ssize_t n = call(io.data() + first, count, off_t(offset + std::int64_t(moved)));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    moved += std::size_t(n);
    first = skipDone(io, first, std::size_t(n));
  }
  return moved;
}

std::size_t totalBytes(const std::vector<iovec>& io) {
  std::size_t total = 0;
  for (const iovec& v : io) total += v.iov_len;
  return total;
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

  std::int64_t appendPieces(const std::vector<std::span<const std::uint8_t>>& pieces) override {
    const std::vector<iovec> io = ioVectors(pieces);
    const std::size_t total = totalBytes(io);
    const auto write = [&](const iovec* v, int n, off_t at) {
      return pwritev(descriptor_, v, n, at);
    };
    if (transferAll(io, end_, write) != total) return -1;  // a full disk: the caller keeps them
    const std::int64_t start = end_;
    end_ += std::int64_t(total);
    return start;
  }

  bool readPieces(std::int64_t offset, const std::vector<std::span<std::uint8_t>>& pieces,
                  std::string& error) const override {
    const std::vector<iovec> io = ioVectors(pieces);
    errno = 0;
    const auto read = [&](const iovec* v, int n, off_t at) {
      return preadv(descriptor_, v, n, at);
    };
    if (transferAll(io, offset, read) == totalBytes(io)) return true;
    error = errno ? std::strerror(errno) : "the file ends early";
    return false;
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

std::int64_t ScratchFile::appendPieces(const std::vector<std::span<const std::uint8_t>>& pieces) {
  std::vector<std::uint8_t> bytes;
  for (const auto& p : pieces) bytes.insert(bytes.end(), p.begin(), p.end());
  return append(bytes);
}

bool ScratchFile::readPieces(std::int64_t offset,
                             const std::vector<std::span<std::uint8_t>>& pieces,
                             std::string& error) const {
  std::size_t total = 0;
  for (const auto& p : pieces) total += p.size();
  std::vector<std::uint8_t> bytes;
  if (!read(offset, total, bytes, error)) return false;
  const std::uint8_t* next = bytes.data();
  for (const auto& p : pieces) std::copy_n(next, p.size(), p.data()), next += p.size();
  return true;
}

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
