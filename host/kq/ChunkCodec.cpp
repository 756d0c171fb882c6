#include "kq/ChunkCodec.hpp"

#include <libdeflate.h>

#include <memory>

#include "kq/LiteralDeflate.hpp"
#include "vorlap/CpuClones.hpp"

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

// Byte planes of at least this size are looked at for literal-only blocks; below it the
// look costs more than it can save.
constexpr std::size_t kPlaneMin = 16384;
// A plane whose literal code takes at least this share of 8 bits a byte is near random.
constexpr double kNearRandom = 0.94;
constexpr std::size_t kProbe = 2048;

// True when deflate's matches would not pay on a plane: its bytes are near random, and
// deflate of two samples of it does no better than the literal code. (Near-random bytes
// that still repeat, as a counter's low byte does, fail the second test.)
bool literalsPay(const unsigned char* plane, std::size_t n, const LiteralCode& code) {
  const double ratio = double(code.bits) / (8.0 * double(n));
  if (ratio < kNearRandom) return false;
  thread_local unsigned char probe[kProbe + 512];
  for (const std::size_t at : {n / 4, n / 4 * 3}) {
    const std::size_t size =
        libdeflate_deflate_compress(compressor(), plane + at, kProbe, probe, sizeof probe);
    if (size != 0 && double(size) < (ratio - 0.01) * double(kProbe)) return false;
  }
  return true;
}

// The chunk's leading near-random planes (the low bytes come first) as literal blocks, the
// rest deflated as usual after them, in one zlib stream. False when no plane qualifies.
bool encodePlanes(const unsigned char* source, std::size_t bytes, std::size_t elementSize,
                  std::vector<unsigned char>& out) {
  const std::size_t n = bytes / elementSize;
  thread_local std::vector<LiteralCode> codes;
  codes.clear();
  for (std::size_t p = 0; p < elementSize; ++p) {
    LiteralCode code = literalCode(source + p * n, n);
    if (!literalsPay(source + p * n, n, code)) break;
    codes.push_back(code);
  }
  if (codes.empty()) return false;
  const std::size_t literal = codes.size() * n, rest = bytes - literal;
  out.assign({0x78, 0x01});  // zlib header: deflate, 32 KiB window, fastest
  BitSink sink(out);
  sink.reserve(literal + literal / 64 + 1024);
  for (std::size_t p = 0; p < codes.size(); ++p)
    appendLiteralBlock(source + p * n, n, codes[p], rest == 0 && p + 1 == codes.size(), sink);
  if (rest > 0) appendByteAlignment(sink);
  sink.alignToByte();
  const std::size_t at = sink.finish();
  if (rest > 0) {
    const std::size_t bound = libdeflate_deflate_compress_bound(compressor(), rest);
    out.resize(at + bound);
    out.resize(at + libdeflate_deflate_compress(compressor(), source + literal, rest,
                                                out.data() + at, bound));
  }
  const std::uint32_t adler = libdeflate_adler32(1, source, bytes);
  for (int b = 3; b >= 0; --b) out.push_back(static_cast<unsigned char>(adler >> (8 * b)));
  return true;
}

}  // namespace

void encodeChunk(const unsigned char* raw, std::size_t bytes, std::size_t elementSize,
                 std::vector<unsigned char>& out) {
  const unsigned char* source = raw;
  // One-byte elements are left as they are, as HDF5's filter does.
  if (elementSize > 1) {
    shuffleBuffer.resize(bytes);
    shuffle(raw, bytes / elementSize, elementSize, shuffleBuffer.data());
    source = shuffleBuffer.data();
    if (bytes / elementSize >= kPlaneMin && encodePlanes(source, bytes, elementSize, out)) return;
  }
  // Compressed into a reused buffer, then copied at its size: resizing `out` to the bound
  // first would zero-fill more bytes than the copy moves.
  thread_local std::unique_ptr<unsigned char[]> packed;
  thread_local std::size_t packedCapacity = 0;
  const std::size_t bound = libdeflate_zlib_compress_bound(compressor(), bytes);
  if (packedCapacity < bound) {
    packed.reset(new unsigned char[bound]);
    packedCapacity = bound;
  }
  const std::size_t size =
      libdeflate_zlib_compress(compressor(), source, bytes, packed.get(), packedCapacity);
  out.assign(packed.get(), packed.get() + size);
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
