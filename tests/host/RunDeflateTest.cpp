// Hand-written deflate: Huffman codes are complete and within deflate's limits; run-length
// blocks (stored, fixed and dynamic; runs at a block's edges and longer than one match) and
// whole chunks (every plane as runs, or deflate's matches from a plane on) inflate to their
// bytes through zlib, through our reader and through HDF5's own shuffle and deflate filters,
// and cost no more than zlib's level 1 would take.
#include <gtest/gtest.h>
#include <hdf5.h>
#include <zlib.h>

#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "kq/ChunkCodec.hpp"
#include "kq/RunDeflate.hpp"
#include "support/TempDir.hpp"

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
  z_stream z{};
  inflateInit(&z);
  z.next_in = const_cast<unsigned char*>(stored.data());
  z.avail_in = uInt(stored.size());
  z.next_out = raw.data();
  z.avail_out = uInt(raw.size());
  const int rc = inflate(&z, Z_FINISH);
  EXPECT_EQ(rc, Z_STREAM_END) << (z.msg ? z.msg : "");
  size = uLongf(z.total_out);
  inflateEnd(&z);
  raw.resize(size);
  return raw;
}

template <class T>
std::vector<unsigned char> bytesOf(const std::vector<T>& v) {
  std::vector<unsigned char> b(v.size() * sizeof(T));
  std::memcpy(b.data(), v.data(), b.size());
  return b;
}

std::vector<unsigned char> shuffled(const std::vector<unsigned char>& raw, std::size_t size) {
  const std::size_t n = raw.size() / size;
  std::vector<unsigned char> planes(raw);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t b = 0; b < size; ++b) planes[b * n + i] = raw[i * size + b];
  return planes;
}

// Run-length blocks of `data`, split at `cut` into a block that is not final and one that
// is, as a zlib stream.
std::vector<unsigned char> runBlocks(const std::vector<unsigned char>& data, std::size_t cut) {
  std::vector<unsigned char> out = {0x78, 0x01};
  BitSink sink(out);
  RunTokens tokens;
  for (const bool last : {false, true}) {
    const std::size_t from = last ? cut : 0, to = last ? data.size() : cut;
    tokens.scan(data.data() + from, to - from);
    appendRunBlock(data.data() + from, tokens, planRunBlock(tokens), last, sink);
  }
  sink.alignToByte();
  sink.finish();
  const std::uint32_t adler = std::uint32_t(adler32(1, data.data(), uInt(data.size())));
  for (int b = 3; b >= 0; --b) out.push_back(static_cast<unsigned char>(adler >> (8 * b)));
  return out;
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
  const auto planes = elementSize > 1 ? shuffled(raw, elementSize) : raw;
  EXPECT_EQ(zlibInflate(stored, raw.size()), planes);
  std::vector<unsigned char> plain(compressBound(uLong(raw.size())));
  uLongf plainSize = uLongf(plain.size());
  EXPECT_EQ(compress2(plain.data(), &plainSize, planes.data(), uLong(raw.size()), 1), Z_OK);
  EXPECT_LE(stored.size(), plainSize * 1.02 + 16);
  return stored.size();
}

// Chunks of every kind a survey's fields hold, 65,536 values each.
struct Kinds {
  std::vector<double> measured, points, fours, constant;
  std::vector<std::uint32_t> noise, counter;
  std::vector<std::uint8_t> classes;
};

Kinds chunkKinds() {
  const std::size_t n = 65536;
  std::mt19937_64 rng(11);
  std::normal_distribution<double> normal(0.0, 1.0);
  Kinds k;
  for (std::size_t i = 0; i < n; ++i) {
    k.measured.push_back(1000.0 + normal(rng));  // low planes near random, high ones runs
    // x, y, z of points: each plane repeats every three bytes rather than from one to the next.
    k.points.push_back(i % 3 == 0 ? -800.0 + 0.01 * double(i) : i % 3 == 1 ? -29.4 : 9.0);
    k.noise.push_back(std::uint32_t(rng()));                     // every plane near random
    k.counter.push_back(std::uint32_t(17 + i * 5 / 2));          // deflate's longer matches pay
    k.classes.push_back(std::uint8_t(rng() % 50 == 0 ? 7 : 2));  // one-byte values, runs
  }
  for (std::size_t i = 0; i < n; i += 4)  // near-random planes whose values come in fours
    k.fours.insert(k.fours.end(), 4, normal(rng));
  k.constant.assign(n, 3.25);
  return k;
}

}  // namespace

TEST(RunDeflate, HuffmanLengthsAreCompleteAndWithinTheLimit) {
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

TEST(RunDeflate, BlocksInflateToTheirBytes) {
  std::mt19937 rng(7);
  for (std::size_t n : {0, 1, 2, 3, 4, 5, 31, 32, 33, 36, 100, 65535, 65536, 200000}) {
    for (int kind = 0; kind < 5; ++kind) {
      std::vector<unsigned char> data(n);
      // Uniform bytes (stored), skewed bytes (Huffman), one value (runs of the longest
      // match), runs of random lengths, and a pattern of three bytes (matches at distance 3).
      std::size_t runLeft = 0;
      unsigned char value = 0;
      for (std::size_t i = 0; i < n; ++i) {
        if (runLeft == 0) runLeft = 1 + rng() % 300, value = static_cast<unsigned char>(rng());
        --runLeft;
        data[i] = kind == 0   ? static_cast<unsigned char>(rng())
                  : kind == 1 ? static_cast<unsigned char>(std::min(rng() % 64, rng() % 256))
                  : kind == 2 ? 42
                  : kind == 3 ? value
                              : static_cast<unsigned char>(i % 3 == 1 ? 0 : i % 3 * 40 + 1);
      }
      for (std::size_t cut : {std::size_t(0), n / 2, n}) {
        const auto out = runBlocks(data, cut);
        EXPECT_EQ(zlibInflate(out, n), data) << "size " << n << " kind " << kind;
        if (kind == 0) {
          EXPECT_LE(out.size(), n + 64);
        } else if (n >= 65535) {
          EXPECT_LT(out.size(), kind == 1 ? n * 0.8 : n / 20.0);
        }
      }
    }
  }
}

TEST(RunDeflate, RunsAtTheEdgesOfABlockAndLongerThanOneMatch) {
  // A run's first byte is a literal; a run of 258 + 1 or + 2 leaves literals after the match.
  for (std::size_t run : {2, 3, 4, 258, 259, 260, 261, 516, 517, 1000}) {
    std::vector<unsigned char> data(run, 9);
    data.insert(data.begin(), {1, 2});  // runs starting after others and ending the block
    data.insert(data.end(), run, 200);
    RunTokens tokens;
    tokens.scan(data.data(), data.size());
    std::size_t covered = 0;
    for (std::size_t k = 0; k < tokens.size(); ++k)
      covered += tokens.tokens()[k] < 256 ? 1 : (tokens.tokens()[k] - 256) % 256 + 3;
    EXPECT_EQ(covered, data.size()) << "run " << run;
    EXPECT_EQ(zlibInflate(runBlocks(data, data.size() / 2), data.size()), data) << "run " << run;
  }
}

TEST(RunDeflate, ChunksOfEveryKindRoundTripAtDeflatesSize) {
  const Kinds k = chunkKinds();
  const std::size_t n = 65536;
  EXPECT_LT(roundTrip(bytesOf(k.measured), 8), n * 8 * 6 / 8);
  EXPECT_LT(roundTrip(bytesOf(k.points), 8), n * 8 / 10);
  EXPECT_LE(roundTrip(bytesOf(k.noise), 4), n * 4 + 64);
  EXPECT_LT(roundTrip(bytesOf(k.counter), 4), n / 8);
  EXPECT_LT(roundTrip(bytesOf(k.fours), 8), n * 8 / 2);
  EXPECT_LT(roundTrip(bytesOf(k.constant), 8), n / 50);
  EXPECT_LT(roundTrip(bytesOf(k.classes), 1), n / 4);
  // Tiny chunks, an empty one, and bytes past the last whole element.
  const auto measured = bytesOf(k.measured);
  for (std::size_t bytes : {0, 1, 8, 24, 1000, 1003})
    roundTrip(std::vector<unsigned char>(measured.begin(), measured.begin() + long(bytes)), 8);
}

// HDF5's own filters read what the codec writes: one dataset of the chunk kinds, stored with
// H5Dwrite_chunk and read with H5Dread.
TEST(RunDeflate, Hdf5FiltersReadTheChunks) {
  const Kinds k = chunkKinds();
  const std::vector<std::vector<unsigned char>> chunks = {bytesOf(k.measured), bytesOf(k.points),
                                                          bytesOf(k.noise),    bytesOf(k.counter),
                                                          bytesOf(k.fours),    bytesOf(k.constant)};
  const std::vector<std::size_t> sizes = {8, 8, 4, 4, 8, 8};
  quillo::test::TempDir dir;
  const hid_t file =
      H5Fcreate(dir.file("chunks.h5").c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  for (std::size_t c = 0; c < chunks.size(); ++c) {
    const hsize_t values = chunks[c].size() / sizes[c], dims[1] = {2 * values};
    const hid_t space = H5Screate_simple(1, dims, nullptr), props = H5Pcreate(H5P_DATASET_CREATE);
    H5Pset_chunk(props, 1, &values);
    H5Pset_shuffle(props);
    H5Pset_deflate(props, 1);
    const hid_t type = sizes[c] == 8 ? H5T_NATIVE_UINT64 : H5T_NATIVE_UINT32;
    const std::string name = "kind" + std::to_string(c);
    const hid_t set = H5Dcreate2(file, name.c_str(), type, space, H5P_DEFAULT, props, H5P_DEFAULT);
    std::vector<unsigned char> stored;
    encodeChunk(chunks[c].data(), chunks[c].size(), sizes[c], stored);
    for (hsize_t offset : {hsize_t(0), values})
      ASSERT_GE(H5Dwrite_chunk(set, H5P_DEFAULT, 0, &offset, stored.size(), stored.data()), 0);
    std::vector<unsigned char> back(2 * chunks[c].size());
    ASSERT_GE(H5Dread(set, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, back.data()), 0);
    EXPECT_TRUE(std::equal(chunks[c].begin(), chunks[c].end(), back.begin())) << name;
    EXPECT_TRUE(
        std::equal(chunks[c].begin(), chunks[c].end(), back.begin() + long(chunks[c].size())))
        << name;
    H5Dclose(set), H5Pclose(props), H5Sclose(space);
  }
  H5Fclose(file);
}
