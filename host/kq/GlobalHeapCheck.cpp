// Finds global heap collections by their signature ("GCOL", version 1, three zero bytes) and
// walks their objects the way HDF5 does: a 16-byte header (index, reference count, reserved,
// size), then the data padded to 8 bytes; index 0 marks free space of the given total size.
#include "kq/GlobalHeapCheck.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <set>
#include <tuple>
#include <vector>

namespace Tessal::kq {

namespace {

constexpr char kSignature[8] = {'G', 'C', 'O', 'L', 1, 0, 0, 0};
constexpr std::size_t kHeaderSize = 16;  // signature, version, reserved, 8-byte size
constexpr std::size_t kObjectHeaderSize = 16;
constexpr std::size_t kBlockSize = std::size_t(1) << 22;
constexpr std::time_t kSettledSeconds = 2;

std::uint64_t readLittleEndian(const unsigned char* p, int bytes) {
  std::uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

// What is wrong with the objects of one collection (the empty text when nothing is).
std::string checkObjects(const std::vector<unsigned char>& c) {
  std::size_t p = kHeaderSize;
  while (p < c.size()) {
    if (c.size() - p < kObjectHeaderSize) return "";  // a tail too small for an object
    const auto index = readLittleEndian(&c[p], 2);
    const std::uint64_t size = readLittleEndian(&c[p + 8], 8);
    const std::uint64_t left = c.size() - p;
    if (size > left) return "an object overruns the collection";
    const std::uint64_t need = index ? kObjectHeaderSize + (size + 7) / 8 * 8 : size;
    if (need == 0) return "an empty free-space object";
    if (need > left) return "an object overruns the collection";
    p += need;
  }
  return "";
}

std::string checkCollectionAt(std::ifstream& in, std::uint64_t at, std::uint64_t fileSize) {
  unsigned char header[kHeaderSize];
  in.clear();
  in.seekg(std::streamoff(at));
  if (!in.read(reinterpret_cast<char*>(header), kHeaderSize)) return "";
  const std::uint64_t size = readLittleEndian(header + 8, 8);
  // A collection running past the end makes HDF5's own read fail cleanly.
  if (size < kHeaderSize || size > fileSize - at) return "";
  std::vector<unsigned char> collection(size);
  in.seekg(std::streamoff(at));
  if (!in.read(reinterpret_cast<char*>(collection.data()), std::streamsize(size))) return "";
  const std::string problem = checkObjects(collection);
  if (problem.empty()) return "";
  return "damaged global heap collection at byte " + std::to_string(at) + ": " + problem;
}

// A file as it is now: any write since changes its size or modification time.
using FileState = std::tuple<dev_t, ino_t, off_t, std::int64_t, long>;

bool stateOf(const std::string& fileName, FileState& state, bool& settled) {
  struct stat s {};
  if (stat(fileName.c_str(), &s) != 0) return false;
  state = {s.st_dev, s.st_ino, s.st_size, std::int64_t(s.st_mtim.tv_sec), s.st_mtim.tv_nsec};
  // Modification times tick coarsely: a file changed within the last seconds could change
  // again (or be replaced, reusing its inode) and keep its time. Fuzzers do just that.
  settled = s.st_mtim.tv_sec + kSettledSeconds < std::time(nullptr);
  return true;
}

struct SoundFiles {
  std::mutex mutex;
  std::set<FileState> files;
};

SoundFiles& soundFiles() {
  static SoundFiles known;
  return known;
}

bool knownSound(const std::string& fileName) {
  FileState state;
  bool settled = false;
  if (!stateOf(fileName, state, settled)) return false;
  std::lock_guard<std::mutex> lock(soundFiles().mutex);
  return soundFiles().files.count(state) > 0;
}

std::string scanGlobalHeap(const std::string& fileName);

void remember(const std::string& fileName, bool evenIfRecent) {
  FileState state;
  bool settled = false;
  if (!stateOf(fileName, state, settled) || !(settled || evenIfRecent)) return;
  std::lock_guard<std::mutex> lock(soundFiles().mutex);
  soundFiles().files.insert(state);
}

}  // namespace

void markGlobalHeapSound(const std::string& fileName) {
  remember(fileName, true);
}

std::string damagedGlobalHeap(const std::string& fileName) {
  if (knownSound(fileName)) return "";
  const std::string problem = scanGlobalHeap(fileName);
  if (problem.empty()) remember(fileName, false);
  return problem;
}

namespace {

// The first signature in [data, data + length), as memmem finds it: its first byte is
// looked for with memchr, which skips most of a file's bytes many at a time.
const char* findSignature(const char* data, std::size_t length) {
  const char* end = data + length;
  for (const char* p = data; end - p >= std::ptrdiff_t(sizeof(kSignature)); ++p) {
    p = static_cast<const char*>(std::memchr(p, kSignature[0], std::size_t(end - p)));
    if (p == nullptr || end - p < std::ptrdiff_t(sizeof(kSignature))) return nullptr;
    if (std::memcmp(p, kSignature, sizeof(kSignature)) == 0) return p;
  }
  return nullptr;
}

std::string scanGlobalHeap(const std::string& fileName) {
  std::ifstream in(fileName, std::ios::binary);
  in.seekg(0, std::ios::end);
  const auto fileSize = std::uint64_t(std::max<std::streamoff>(0, in.tellg()));
  std::vector<char> block(kBlockSize + sizeof(kSignature));
  for (std::uint64_t start = 0; start < fileSize; start += kBlockSize) {
    // Each block overlaps the next by a signature's length, so none is missed at a border.
    const auto length = std::size_t(std::min<std::uint64_t>(block.size(), fileSize - start));
    in.clear();
    in.seekg(std::streamoff(start));
    if (!in.read(block.data(), std::streamsize(length))) return "";
    std::size_t offset = 0;
    while (const char* hit = findSignature(block.data() + offset, length - offset)) {
      offset = std::size_t(hit - block.data());
      if (offset >= kBlockSize) break;  // the next block finds it
      const std::string problem = checkCollectionAt(in, start + offset, fileSize);
      if (!problem.empty()) return problem;
      ++offset;
    }
  }
  return "";
}

}  // namespace

}  // namespace Tessal::kq
