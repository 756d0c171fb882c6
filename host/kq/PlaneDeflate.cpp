// A chunk's byte planes as one zlib stream: run-length blocks per plane, libdeflate for the
// planes from the first one where longer matches pay; see PlaneDeflate.hpp.
#include "kq/PlaneDeflate.hpp"

#include <libdeflate.h>

#include <algorithm>
#include <memory>

#include "kq/ChunkCodec.hpp"
#include "kq/RunDeflate.hpp"

namespace Tessal::kq {

namespace {

struct CompressorDeleter {
  void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};

// One per thread: libdeflate's objects must not be shared while in use.
libdeflate_compressor* compressor() {
  thread_local std::unique_ptr<libdeflate_compressor, CompressorDeleter> c(
      libdeflate_alloc_compressor(kDeflateLevel));
  return c.get();
}

// The bytes of a plane deflate looks at in each of two places to judge whether its matches at
// any distance pay (counters, whose low byte repeats every 256 values, and patterns longer
// than four bytes); and how much smaller than the run-length blocks its output must be.
constexpr std::size_t kProbe = 2048;
constexpr double kMatchesPayBelow = 0.8;

// True when libdeflate makes samples of the plane clearly smaller than the plane's run-length
// block (`runBits` for all its `size` bytes) is for as many bytes.
bool matchesPay(const unsigned char* plane, std::size_t size, std::uint64_t runBits) {
  if (size < 2 * kProbe) return false;
  thread_local unsigned char packed[kProbe + 512];
  std::uint64_t deflateBits = 0;
  for (const std::size_t at : {size / 4, size / 4 * 3}) {
    const std::size_t deflated = libdeflate_deflate_compress(
        compressor(), plane + std::min(at, size - kProbe), kProbe, packed, sizeof packed);
    deflateBits += 8 * (deflated ? deflated : kProbe + 5);
  }
  return double(deflateBits) <
         kMatchesPayBelow * double(runBits) * double(2 * kProbe) / double(size);
}

void appendRest(const unsigned char* rest, std::size_t bytes, BitSink& sink,
                std::vector<unsigned char>& out) {
  appendByteAlignment(sink);
  sink.alignToByte();
  const std::size_t at = sink.finish();
  const std::size_t bound = libdeflate_deflate_compress_bound(compressor(), bytes);
  out.resize(at + bound);
  out.resize(at + libdeflate_deflate_compress(compressor(), rest, bytes, out.data() + at, bound));
}

}  // namespace

void deflatePlanes(const unsigned char* data, std::size_t bytes, std::size_t planeBytes,
                   std::vector<unsigned char>& out) {
  out.assign({0x78, 0x01});  // zlib header: deflate, 32 KiB window, fastest
  BitSink sink(out);
  thread_local RunTokens tokens;
  // At least one block, so that an empty chunk is a stream too.
  const std::size_t planes = planeBytes == 0 ? 1 : std::max<std::size_t>(1, bytes / planeBytes);
  std::size_t p = 0;
  for (; p < planes; ++p) {
    const unsigned char* plane = data + p * planeBytes;
    const std::size_t size = p + 1 == planes ? bytes - p * planeBytes : planeBytes;
    tokens.scan(plane, size);
    const RunBlock block = planRunBlock(tokens);
    if (matchesPay(plane, size, block.bits)) break;
    appendRunBlock(plane, tokens, block, p + 1 == planes, sink);
  }
  if (p < planes) {
    appendRest(data + p * planeBytes, bytes - p * planeBytes, sink, out);
  } else {
    sink.alignToByte();
    sink.finish();
  }
  const std::uint32_t adler = libdeflate_adler32(1, data, bytes);
  for (int b = 3; b >= 0; --b) out.push_back(static_cast<unsigned char>(adler >> (8 * b)));
}

}  // namespace Tessal::kq
