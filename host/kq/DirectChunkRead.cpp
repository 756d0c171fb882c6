#include "kq/DirectChunkRead.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "kq/ChunkCodec.hpp"
#include "kq/Hdf5.hpp"

namespace Tessal::kq {

namespace {

constexpr int kMaxRank = 3;
// Stored bytes fetched before they are unpacked, with the lock released when the caller
// allows it: other threads' HDF5 calls go on meanwhile.
constexpr std::size_t kBatchBytes = std::size_t(4) << 20;

struct ChunkLayout {
  int rank = 0;
  hsize_t dims[kMaxRank] = {0, 0, 0}, chunk[kMaxRank] = {0, 0, 0};
  bool shuffled = false;
};

// Shuffle then deflate, or deflate alone: nothing else is unpacked here.
bool knownFilters(hid_t create, bool& shuffled) {
  const int count = H5Pget_nfilters(create);
  if (count < 1 || count > 2) return false;
  H5Z_filter_t ids[2];
  for (int i = 0; i < count; ++i) {
    unsigned flags = 0, config = 0, values[8];
    std::size_t nValues = 8;
    char name[64];
    ids[i] =
        H5Pget_filter2(create, unsigned(i), &flags, &nValues, values, sizeof name, name, &config);
  }
  shuffled = count == 2;
  return ids[count - 1] == H5Z_FILTER_DEFLATE && (count == 1 || ids[0] == H5Z_FILTER_SHUFFLE);
}

bool chunkLayout(hid_t set, ChunkLayout& layout) {
  Hid create(H5Dget_create_plist(set), H5Pclose);
  if (!create.ok() || H5Pget_layout(create.get()) != H5D_CHUNKED) return false;
  if (!knownFilters(create.get(), layout.shuffled)) return false;
  Hid space(H5Dget_space(set), H5Sclose);
  layout.rank = H5Sget_simple_extent_ndims(space.get());
  if (layout.rank < 1 || layout.rank > kMaxRank) return false;
  H5Sget_simple_extent_dims(space.get(), layout.dims, nullptr);
  if (H5Pget_chunk(create.get(), layout.rank, layout.chunk) != layout.rank) return false;
  if (layout.chunk[0] == 0) return false;
  for (int d = 1; d < layout.rank; ++d)
    if (layout.chunk[d] != layout.dims[d]) return false;
  return true;
}

// Stored chunks fetched under the HDF5 lock, to be unpacked without it. One per thread, kept
// from dataset to dataset: a batch made per read grew chunk by chunk, copying what it held
// into fresh pages each time.
class PackedBatch {
 public:
  void clear() { used_ = 0, chunks_.clear(); }
  std::size_t bytes() const { return used_; }
  // Room for `bytes` with the batch empty, so that adding never copies.
  void reserve(std::size_t bytes) {
    if (bytes > capacity_) grow(bytes);
  }
  unsigned char* add(std::size_t bytes, hsize_t row) {
    if (used_ + bytes > capacity_) grow(std::max(used_ + bytes, 2 * capacity_));
    chunks_.push_back({used_, bytes, row});
    used_ += bytes;
    return data_.get() + chunks_.back().at;
  }
  // Unpacks every chunk into its rows of `target`.
  bool unpack(const ChunkLayout& layout, std::size_t elementSize, std::size_t rowBytes,
              unsigned char* target, std::vector<unsigned char>& edge) const {
    const std::size_t chunkBytes = rowBytes * layout.chunk[0];
    for (const Chunk& c : chunks_) {
      const std::size_t rows = std::min<hsize_t>(layout.chunk[0], layout.dims[0] - c.row);
      unsigned char* into = target + c.row * rowBytes;
      // A last chunk is stored whole: unpacked aside, its rows past the end dropped.
      if (rows < layout.chunk[0]) edge.resize(chunkBytes), into = edge.data();
      if (!decodeChunk(data_.get() + c.at, c.bytes, elementSize, layout.shuffled, into, chunkBytes))
        return false;
      if (into == edge.data()) std::memcpy(target + c.row * rowBytes, edge.data(), rows * rowBytes);
    }
    return true;
  }

 private:
  struct Chunk {
    std::size_t at, bytes;
    hsize_t row;
  };
  void grow(std::size_t bytes) {
    std::unique_ptr<unsigned char[]> larger(new unsigned char[bytes]);  // no zero-fill
    if (used_) std::memcpy(larger.get(), data_.get(), used_);
    data_ = std::move(larger), capacity_ = bytes;
  }
  std::unique_ptr<unsigned char[]> data_;
  std::size_t used_ = 0, capacity_ = 0;
  std::vector<Chunk> chunks_;
};

// Releases the caller's hold on the HDF5 lock for as long as it lives.
class Unlocked {
 public:
  explicit Unlocked(std::unique_lock<std::recursive_mutex>* lock) : lock_(lock) {
    if (lock_) lock_->unlock();
  }
  ~Unlocked() {
    if (lock_) lock_->lock();
  }
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;

 private:
  std::unique_lock<std::recursive_mutex>* lock_;
};

}  // namespace

bool readChunksDirectly(hid_t set, hid_t memoryType, void* out, std::size_t bytes,
                        std::unique_lock<std::recursive_mutex>* lock) {
  Hid stored(H5Dget_type(set), H5Tclose);
  if (!stored.ok() || H5Tequal(stored.get(), memoryType) <= 0) return false;
  ChunkLayout layout;
  if (!chunkLayout(set, layout)) return false;
  const std::size_t elementSize = H5Tget_size(memoryType);
  std::size_t rowBytes = elementSize;
  for (int d = 1; d < layout.rank; ++d) rowBytes *= layout.dims[d];
  if (rowBytes * layout.dims[0] != bytes) return false;
  const std::size_t chunkBytes = rowBytes * layout.chunk[0];
  const std::size_t largestStored = chunkBytes + chunkBytes / 16 + 1024;
  thread_local PackedBatch batch;
  thread_local std::vector<unsigned char> edge;
  batch.clear();
  // A batch is unpacked once it reaches kBatchBytes, so it never holds more than this.
  batch.reserve(std::min(bytes, kBatchBytes) + std::min(bytes, largestStored));
  hsize_t offset[kMaxRank] = {0, 0, 0};
  auto* target = static_cast<unsigned char*>(out);
  for (hsize_t row = 0; row < layout.dims[0]; row += layout.chunk[0]) {
    offset[0] = row;
    hsize_t storedBytes = 0;
    uint32_t skipped = 0;
    // A size deflate cannot reach (a damaged file) is left to HDF5 rather than allocated.
    if (H5Dget_chunk_storage_size(set, offset, &storedBytes) < 0 || storedBytes == 0 ||
        storedBytes > largestStored)
      return false;
    unsigned char* packed = batch.add(storedBytes, row);
    if (H5Dread_chunk(set, H5P_DEFAULT, offset, &skipped, packed) < 0 || skipped != 0) return false;
    if (batch.bytes() < kBatchBytes && row + layout.chunk[0] < layout.dims[0]) continue;
    Unlocked unlocked(lock);
    if (!batch.unpack(layout, elementSize, rowBytes, target, edge)) return false;
    batch.clear();
  }
  return true;
}

bool directlyReadable(hid_t set, hid_t memoryType, hsize_t& chunkRows, bool& shuffled) {
  Hid stored(H5Dget_type(set), H5Tclose);
  ChunkLayout layout;
  if (!stored.ok() || H5Tequal(stored.get(), memoryType) <= 0 || !chunkLayout(set, layout))
    return false;
  chunkRows = layout.chunk[0], shuffled = layout.shuffled;
  return true;
}

bool fetchChunk(hid_t set, hsize_t row, std::size_t chunkBytes,
                std::vector<unsigned char>& packed) {
  hsize_t offset[kMaxRank] = {row, 0, 0};
  hsize_t storedBytes = 0;
  uint32_t skipped = 0;
  if (H5Dget_chunk_storage_size(set, offset, &storedBytes) < 0 || storedBytes == 0 ||
      storedBytes > chunkBytes + chunkBytes / 16 + 1024)
    return false;
  packed.resize(storedBytes);
  return H5Dread_chunk(set, H5P_DEFAULT, offset, &skipped, packed.data()) >= 0 && skipped == 0;
}

}  // namespace Tessal::kq
