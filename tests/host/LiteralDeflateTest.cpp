// Literal-only deflate blocks and the chunks that use them: the codes are complete and within
// deflate's limits, zlib (what HDF5's filter uses) and our reader inflate the chunks to the
// bytes given, and near-random planes cost no more than deflate would take for them.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <numeric>
#include <random>

#include "kq/ChunkCodec.hpp"
#include "kq/LiteralDeflate.hpp"

using namespace Tessal::kq;

namespace {

double kraftSum(const std::vector<std::uint8_t>& lengths) {
  double sum = 0;
  for (auto l : lengths)
    if (l != 0) sum += std::ldexp(1.0, -int(l));
  return sum;
}

std::vector<unsigned char> zlibInflate(const std::vector<unsigned char>& stored,
                                       std::size_t bytes) {
  std::vector<unsigned char> raw(bytes + 1);
  uLongf size = uLongf(raw.size());
  EXPECT_EQ(uncompress(raw.data(), &size, stored.data(), uLong(stored.size())), Z_OK);
  raw.resize(size);
  return raw;
}

template <class T>
std::vector<unsigned char> bytesOf(const std::vector<T>& v) {
  std::vector<unsigned char> b(v.size() * sizeof(T));
  std::memcpy(b.data(), v.data(), b.size());
  return b;
}

// Encodes, then checks that zlib and decodeChunk give the bytes back and that the chunk is
// at most 2 % larger than zlib's level 1 makes it; returns the size.
std::size_t roundTrip(const std::vector<unsigned char>& raw, std::size_t elementSize) {
  std::vector<unsigned char> stored;
  encodeChunk(raw.data(), raw.size(), elementSize, stored);
  std::vector<unsigned char> back(raw.size());
  EXPECT_TRUE(
      decodeChunk(stored.data(), stored.size(), elementSize, true, back.data(), back.size()));
  EXPECT_EQ(back, raw);
  // zlib sees the shuffled planes: shuffle by hand to compare.
  const std::size_t n = raw.size() / elementSize;
  std::vector<unsigned char> planes(raw.size());
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t b = 0; b < elementSize; ++b) planes[b * n + i] = raw[i * elementSize + b];
  std::copy(raw.begin() + n * elementSize, raw.end(), planes.begin() + n * elementSize);
  EXPECT_EQ(zlibInflate(stored, raw.size()), elementSize > 1 ? planes : raw);
  std::vector<unsigned char> plain(compressBound(uLong(raw.size())));
  uLongf plainSize = uLongf(plain.size());
  EXPECT_EQ(compress2(plain.data(), &plainSize, planes.data(), uLong(raw.size()), 1), Z_OK);
  EXPECT_LE(stored.size(), plainSize * 1.02 + 16);
  return stored.size();
}

}  // namespace

TEST(LiteralDeflate, HuffmanLengthsAreCompleteAndWithinTheLimit) {
  // Fibonacci frequencies give the deepest tree: 40 symbols would need 39 bits.
  std::vector<std::uint32_t> fib(40, 0);
  fib[0] = fib[1] = 1;
  for (int i = 2; i < 40; ++i) fib[i] = fib[i - 1] + fib[i - 2];
  for (int limit : {7, 15}) {
    const auto lengths = huffmanLengths(fib, limit);
    EXPECT_LE(*std::max_element(lengths.begin(), lengths.end()), limit);
    EXPECT_DOUBLE_EQ(kraftSum(lengths), 1.0);
  }
  // Optimal where no limit binds.
  EXPECT_EQ(huffmanLengths({1, 1, 2, 4}, 15), (std::vector<std::uint8_t>{3, 3, 2, 1}));
  // Unused symbols get no code; a lone symbol gets a partner, so the code is complete.
  EXPECT_EQ(huffmanLengths({0, 5, 0, 0}, 15), (std::vector<std::uint8_t>{1, 1, 0, 0}));
  EXPECT_EQ(huffmanLengths({0, 0, 3, 0, 9}, 7), (std::vector<std::uint8_t>{0, 0, 1, 0, 1}));
}

TEST(LiteralDeflate, BlocksInflateToTheirBytes) {
  std::mt19937 rng(7);
  const std::vector<std::size_t> sizes = {1, 2, 100, 65535, 65536, 200000};
  for (std::size_t n : sizes) {
    for (int kind = 0; kind < 3; ++kind) {
      std::vector<unsigned char> data(n);
      // Uniform bytes (stored), skewed bytes (Huffman) and one value (two-symbol code).
      for (auto& d : data)
        d = kind == 0 ? rng() : kind == 1 ? std::min<unsigned>(rng() % 64, rng() % 256) : 42;
      std::vector<unsigned char> out = {0x78, 0x01};
      BitSink sink(out);
      const std::size_t half = n / 2;
      // Two blocks, the first not final, then the alignment a separate stream would need.
      appendLiteralBlock(data.data(), half, literalCode(data.data(), half), false, sink);
      appendByteAlignment(sink);
      appendLiteralBlock(data.data() + half, n - half, literalCode(data.data() + half, n - half),
                         true, sink);
      sink.alignToByte();
      sink.finish();
      const std::uint32_t adler = std::uint32_t(adler32(1, data.data(), uInt(n)));
      for (int b = 3; b >= 0; --b) out.push_back(static_cast<unsigned char>(adler >> (8 * b)));
      EXPECT_EQ(zlibInflate(out, n), data) << "size " << n << " kind " << kind;
      if (kind == 0) {
        EXPECT_LE(out.size(), n + 64);
      } else if (kind == 1 && n >= 65535) {
        EXPECT_LT(out.size(), n * 0.8);
      }
    }
  }
}

TEST(LiteralDeflate, ChunksOfNearRandomPlanesRoundTripAtDeflatesSize) {
  std::mt19937_64 rng(11);
  std::normal_distribution<double> normal(0.0, 1.0);
  const std::size_t n = 65536;
  // Measured doubles: low planes near random, high ones repetitive.
  std::vector<double> measured(n);
  for (auto& v : measured) v = 1000.0 + normal(rng);
  EXPECT_LT(roundTrip(bytesOf(measured), 8), n * 8 * 6 / 8);

  // Every plane near random: literal blocks only, the last one final.
  std::vector<std::uint32_t> noise(n);
  for (auto& v : noise) v = std::uint32_t(rng());
  EXPECT_LE(roundTrip(bytesOf(noise), 4), n * 4 + 64);

  // A counter's low byte has every value equally often but repeats: deflate keeps it.
  std::vector<std::uint32_t> counter(n);
  std::iota(counter.begin(), counter.end(), 17u);
  EXPECT_LT(roundTrip(bytesOf(counter), 4), n / 20);

  // Near-random planes whose values come in fours: matches pay, deflate keeps them too.
  std::vector<double> fours(n);
  for (std::size_t i = 0; i < n; i += 4)
    fours[i] = fours[i + 1] = fours[i + 2] = fours[i + 3] = normal(rng);
  EXPECT_LT(roundTrip(bytesOf(fours), 8), n * 8 / 2);

  // Small chunks keep the plain path.
  std::vector<double> small(measured.begin(), measured.begin() + 1000);
  roundTrip(bytesOf(small), 8);
}
