#include "kq/ChunkCodec.hpp"

#include <libdeflate.h>

#include <algorithm>
#include <memory>

#include "kq/PlaneDeflate.hpp"
#include "vorlap/CpuClones.hpp"

namespace Tessal::kq {

namespace {

struct DecompressorDeleter {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// One per thread: libdeflate's objects must not be shared while in use.
libdeflate_decompressor* decompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> d(
      libdeflate_alloc_decompressor());
  return d.get();
}

// HDF5's shuffle: byte b of element i goes to b * count + i. With the element size known at
// compile time the loops read and write whole vectors (about 5x faster for 4 and 8 bytes).
template <std::size_t Size>
void shuffleOf(const unsigned char* __restrict in, std::size_t count,
               unsigned char* __restrict out) {
  for (std::size_t i = 0; i < count; ++i)
    for (std::size_t b = 0; b < Size; ++b) out[b * count + i] = in[i * Size + b];
}

template <std::size_t Size>
void unshuffleOf(const unsigned char* __restrict in, std::size_t count,
                 unsigned char* __restrict out) {
  for (std::size_t i = 0; i < count; ++i)
    for (std::size_t b = 0; b < Size; ++b) out[i * Size + b] = in[b * count + i];
}

QUILLO_AVX2_CLONES void shuffle(const unsigned char* in, std::size_t count, std::size_t size,
                                unsigned char* out) {
  switch (size) {
    case 2:
      return shuffleOf<2>(in, count, out);
    case 4:
      return shuffleOf<4>(in, count, out);
    case 8:
      return shuffleOf<8>(in, count, out);
  }
  for (std::size_t b = 0; b < size; ++b) {
    unsigned char* plane = out + b * count;
    for (std::size_t i = 0; i < count; ++i) plane[i] = in[i * size + b];
  }
}

QUILLO_AVX2_CLONES void unshuffle(const unsigned char* in, std::size_t count, std::size_t size,
                                  unsigned char* out) {
  switch (size) {
    case 2:
      return unshuffleOf<2>(in, count, out);
    case 4:
      return unshuffleOf<4>(in, count, out);
    case 8:
      return unshuffleOf<8>(in, count, out);
  }
  for (std::size_t b = 0; b < size; ++b) {
    const unsigned char* plane = in + b * count;
    for (std::size_t i = 0; i < count; ++i) out[i * size + b] = plane[i];
  }
}

thread_local std::vector<unsigned char> shuffleBuffer;

}  // namespace

void encodeChunk(const unsigned char* raw, std::size_t bytes, std::size_t elementSize,
                 std::vector<unsigned char>& out) {
  // One-byte elements are left as they are, as HDF5's filter does.
  if (elementSize <= 1) return deflatePlanes(raw, bytes, bytes, out);
  const std::size_t count = bytes / elementSize, whole = count * elementSize;
  shuffleBuffer.resize(bytes);
  shuffle(raw, count, elementSize, shuffleBuffer.data());
  // Bytes past the last whole element stay where they are, as HDF5's filter leaves them.
  std::copy(raw + whole, raw + bytes, shuffleBuffer.data() + whole);
  deflatePlanes(shuffleBuffer.data(), bytes, count, out);
}

bool decodeChunk(const unsigned char* stored, std::size_t storedBytes, std::size_t elementSize,
                 bool shuffled, unsigned char* raw, std::size_t bytes) {
  const bool planes = shuffled && elementSize > 1;
  unsigned char* target = raw;
  if (planes) {
    shuffleBuffer.resize(bytes);
    target = shuffleBuffer.data();
  }
  std::size_t produced = 0;
  if (libdeflate_zlib_decompress(decompressor(), stored, storedBytes, target, bytes, &produced) !=
          LIBDEFLATE_SUCCESS ||
      produced != bytes)
    return false;
  if (planes) {
    const std::size_t count = bytes / elementSize, whole = count * elementSize;
    unshuffle(target, count, elementSize, raw);
    std::copy(target + whole, target + bytes, raw + whole);
  }
  return true;
}

}  // namespace Tessal::kq
