#include "kq/ChunkCodec.hpp"

#include <libdeflate.h>

#include <memory>

namespace Tessal::kq {

namespace {

struct CompressorDeleter {
  void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};
struct DecompressorDeleter {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// One of each per thread: libdeflate's objects must not be shared while in use.
libdeflate_compressor* compressor() {
  thread_local std::unique_ptr<libdeflate_compressor, CompressorDeleter> c(
      libdeflate_alloc_compressor(kDeflateLevel));
  return c.get();
}

libdeflate_decompressor* decompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> d(
      libdeflate_alloc_decompressor());
  return d.get();
}

// HDF5's shuffle: byte b of element i goes to b * count + i.
void shuffle(const unsigned char* in, std::size_t count, std::size_t size, unsigned char* out) {
  for (std::size_t b = 0; b < size; ++b) {
    unsigned char* plane = out + b * count;
    for (std::size_t i = 0; i < count; ++i) plane[i] = in[i * size + b];
  }
}

void unshuffle(const unsigned char* in, std::size_t count, std::size_t size, unsigned char* out) {
  for (std::size_t b = 0; b < size; ++b) {
    const unsigned char* plane = in + b * count;
    for (std::size_t i = 0; i < count; ++i) out[i * size + b] = plane[i];
  }
}

thread_local std::vector<unsigned char> shuffleBuffer;

}  // namespace

void encodeChunk(const unsigned char* raw, std::size_t bytes, std::size_t elementSize,
                 std::vector<unsigned char>& out) {
  const unsigned char* source = raw;
  // One-byte elements are left as they are, as HDF5's filter does.
  if (elementSize > 1) {
    shuffleBuffer.resize(bytes);
    shuffle(raw, bytes / elementSize, elementSize, shuffleBuffer.data());
    source = shuffleBuffer.data();
  }
  out.resize(libdeflate_zlib_compress_bound(compressor(), bytes));
  out.resize(libdeflate_zlib_compress(compressor(), source, bytes, out.data(), out.size()));
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
  if (planes) unshuffle(target, bytes / elementSize, elementSize, raw);
  return true;
}

}  // namespace Tessal::kq
