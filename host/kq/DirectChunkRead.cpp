#include "kq/DirectChunkRead.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

#include "kq/ChunkCodec.hpp"
#include "kq/Hdf5.hpp"

namespace Tessal::kq {

namespace {

constexpr int kMaxRank = 3;

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

}  // namespace

bool readChunksDirectly(hid_t set, hid_t memoryType, void* out, std::size_t bytes) {
  Hid stored(H5Dget_type(set), H5Tclose);
  if (!stored.ok() || H5Tequal(stored.get(), memoryType) <= 0) return false;
  ChunkLayout layout;
  if (!chunkLayout(set, layout)) return false;
  const std::size_t elementSize = H5Tget_size(memoryType);
  std::size_t rowBytes = elementSize;
  for (int d = 1; d < layout.rank; ++d) rowBytes *= layout.dims[d];
  if (rowBytes * layout.dims[0] != bytes) return false;
  const std::size_t chunkBytes = rowBytes * layout.chunk[0];
  std::vector<unsigned char> packed, edge;
  hsize_t offset[kMaxRank] = {0, 0, 0};
  auto* target = static_cast<unsigned char*>(out);
  for (hsize_t row = 0; row < layout.dims[0]; row += layout.chunk[0]) {
    offset[0] = row;
    hsize_t storedBytes = 0;
    uint32_t skipped = 0;
    // A size deflate cannot reach (a damaged file) is left to HDF5 rather than allocated.
    if (H5Dget_chunk_storage_size(set, offset, &storedBytes) < 0 || storedBytes == 0 ||
        storedBytes > chunkBytes + chunkBytes / 16 + 1024)
      return false;
    packed.resize(storedBytes);
    if (H5Dread_chunk(set, H5P_DEFAULT, offset, &skipped, packed.data()) < 0 || skipped != 0)
      return false;
    const std::size_t rows = std::min<hsize_t>(layout.chunk[0], layout.dims[0] - row);
    unsigned char* into = target + row * rowBytes;
    // A last chunk is stored whole: unpacked aside, its rows past the end dropped.
    if (rows < layout.chunk[0]) edge.resize(chunkBytes), into = edge.data();
    if (!decodeChunk(packed.data(), packed.size(), elementSize, layout.shuffled, into, chunkBytes))
      return false;
    if (into == edge.data()) std::memcpy(target + row * rowBytes, edge.data(), rows * rowBytes);
  }
  return true;
}

}  // namespace Tessal::kq
