// Literal-only deflate blocks: the bytes' Huffman code (limited to deflate's 15 bits), the
// block header that describes it, and the bytes coded; see LiteralDeflate.hpp.
#include "kq/LiteralDeflate.hpp"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace Tessal::kq {

void BitSink::spill() {
  if (at_ + 8 > out_.size()) out_.resize(std::max<std::size_t>(2 * out_.size(), at_ + 64));
  const std::uint32_t low = std::uint32_t(buffer_);
  for (int b = 0; b < 4; ++b) out_[at_ + b] = static_cast<unsigned char>(low >> (8 * b));
  at_ += 4;
  buffer_ >>= 32;
  filled_ -= 32;
}

void BitSink::alignToByte() {
  filled_ = (filled_ + 7) / 8 * 8;
  if (at_ + 8 > out_.size()) out_.resize(std::max<std::size_t>(2 * out_.size(), at_ + 64));
  for (; filled_ > 0; filled_ -= 8, buffer_ >>= 8)
    out_[at_++] = static_cast<unsigned char>(buffer_);
  buffer_ = 0;
}

void BitSink::putBytes(const unsigned char* data, std::size_t n) {
  if (n == 0) return;
  reserve(n);
  std::memcpy(out_.data() + at_, data, n);
  at_ += n;
}

void BitSink::reserve(std::size_t bytes) {
  if (at_ + bytes + 8 > out_.size()) out_.resize(at_ + bytes + 8);
}

std::size_t BitSink::finish() {
  out_.resize(at_);
  return at_;
}

void BitSink::putCodes(const unsigned char* data, std::size_t n, const std::uint16_t* code,
                       const std::uint8_t* length) {
  reserve(n * 2 + 8);  // at most 16 bits a byte
  unsigned char* out = out_.data() + at_;
  std::uint64_t buffer = buffer_;
  unsigned filled = filled_;
  for (std::size_t i = 0; i < n; ++i) {
    buffer |= std::uint64_t(code[data[i]]) << filled;
    filled += length[data[i]];
    if (filled >= 32) {
      const std::uint32_t low = std::uint32_t(buffer);
      std::memcpy(out, &low, 4);  // little-endian hosts only, as the shuffle assumes
      out += 4;
      buffer >>= 32;
      filled -= 32;
    }
  }
  at_ = std::size_t(out - out_.data());
  buffer_ = buffer;
  filled_ = filled;
}

namespace {

// Optimal code lengths (no limit) by the two-queue Huffman construction over the symbols
// of nonzero frequency, taken in order of frequency (ties by symbol).
std::vector<std::uint8_t> unlimitedLengths(const std::vector<std::uint32_t>& freq) {
  std::vector<int> order;
  for (int s = 0; s < int(freq.size()); ++s)
    if (freq[s] != 0) order.push_back(s);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return freq[a] < freq[b]; });
  struct Node {
    std::uint64_t weight;
    int left, right;
  };
  const std::size_t m = order.size();
  std::vector<Node> nodes;
  nodes.reserve(2 * m);
  for (int s : order) nodes.push_back({freq[s], -1, -1});
  std::size_t leaf = 0, inner = m;
  auto lighter = [&]() -> int {
    if (leaf < m && (inner >= nodes.size() || nodes[leaf].weight <= nodes[inner].weight))
      return int(leaf++);
    return int(inner++);
  };
  for (std::size_t k = 1; k < m; ++k) {
    const int a = lighter(), b = lighter();
    nodes.push_back({nodes[a].weight + nodes[b].weight, a, b});
  }
  std::vector<std::uint8_t> depth(nodes.size(), 0);
  for (std::size_t j = nodes.size(); j-- > m;) {
    depth[nodes[j].left] = depth[nodes[j].right] = std::uint8_t(depth[j] + 1);
  }
  std::vector<std::uint8_t> lengths(freq.size(), 0);
  for (std::size_t i = 0; i < m; ++i) lengths[order[i]] = depth[i];
  return lengths;
}

// Canonical codes from lengths, bit-reversed as deflate sends them.
template <std::size_t N>
void canonicalCodes(const std::uint8_t* length, std::array<std::uint16_t, N>& code) {
  int count[17] = {};
  for (std::size_t s = 0; s < N; ++s) ++count[length[s]];
  count[0] = 0;
  int next[17] = {};
  for (int bits = 1, c = 0; bits <= 16; ++bits) next[bits] = c = (c + count[bits - 1]) << 1;
  for (std::size_t s = 0; s < N; ++s) {
    const int len = length[s];
    if (len == 0) continue;
    unsigned c = unsigned(next[len]++), reversed = 0;
    for (int b = 0; b < len; ++b, c >>= 1) reversed = (reversed << 1) | (c & 1);
    code[s] = std::uint16_t(reversed);
  }
}

// Order in which the code-length code's lengths are sent.
constexpr int kLengthOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
constexpr int kDistanceCodes = 2;  // two of length 1: a complete code, though none is used
constexpr int kHeaderLengths = kLiteralSymbols + kDistanceCodes;

struct BlockHeader {
  std::array<std::uint8_t, kHeaderLengths> lengths{};  // literal then distance code lengths
  std::array<std::uint8_t, 19> clLength{};
  std::array<std::uint16_t, 19> clCode{};
  int sentLengths = 4;  // code-length code lengths sent (HCLEN + 4)
  std::uint64_t bits = 0;
};

BlockHeader headerOf(const LiteralCode& code) {
  BlockHeader h;
  std::copy(code.length.begin(), code.length.end(), h.lengths.begin());
  for (int d = 0; d < kDistanceCodes; ++d) h.lengths[kLiteralSymbols + d] = 1;
  std::vector<std::uint32_t> freq(19, 0);
  for (std::uint8_t l : h.lengths) ++freq[l];
  const auto cl = huffmanLengths(freq, 7);
  std::copy(cl.begin(), cl.end(), h.clLength.begin());
  canonicalCodes(h.clLength.data(), h.clCode);
  for (int i = 0; i < 19; ++i)
    if (h.clLength[kLengthOrder[i]] != 0) h.sentLengths = std::max(h.sentLengths, i + 1);
  h.bits = 3 + 5 + 5 + 4 + 3 * std::uint64_t(h.sentLengths);
  for (std::uint8_t l : h.lengths) h.bits += h.clLength[l];
  return h;
}

void putHeader(const BlockHeader& h, bool final, BitSink& sink) {
  sink.put(final ? 1 : 0, 1);
  sink.put(2, 2);  // dynamic Huffman codes
  sink.put(kLiteralSymbols - 257, 5);
  sink.put(kDistanceCodes - 1, 5);
  sink.put(unsigned(h.sentLengths - 4), 4);
  for (int i = 0; i < h.sentLengths; ++i) sink.put(h.clLength[kLengthOrder[i]], 3);
  for (std::uint8_t l : h.lengths) sink.put(h.clCode[l], h.clLength[l]);
}

constexpr std::size_t kStoredMax = 65535;

void putStored(const unsigned char* data, std::size_t n, bool final, BitSink& sink) {
  do {
    const std::size_t piece = std::min(n, kStoredMax);
    n -= piece;
    sink.put(final && n == 0 ? 1 : 0, 1);
    sink.put(0, 2);
    sink.alignToByte();
    const unsigned char lengths[4] = {
        static_cast<unsigned char>(piece), static_cast<unsigned char>(piece >> 8),
        static_cast<unsigned char>(~piece), static_cast<unsigned char>(~piece >> 8)};
    sink.putBytes(lengths, 4);
    sink.putBytes(data, piece);
    data += piece;
  } while (n > 0);
}

}  // namespace

std::vector<std::uint8_t> huffmanLengths(const std::vector<std::uint32_t>& given, int maxLength) {
  std::vector<std::uint32_t> freq = given;
  std::size_t used = std::count_if(freq.begin(), freq.end(), [](auto f) { return f != 0; });
  for (std::size_t s = 0; used < 2 && s < freq.size(); ++s)
    if (freq[s] == 0) freq[s] = 1, ++used;
  for (;;) {
    auto lengths = unlimitedLengths(freq);
    if (*std::max_element(lengths.begin(), lengths.end()) <= maxLength) return lengths;
    // Flatter frequencies give a shallower tree; all equal gives the balanced one.
    for (auto& f : freq)
      if (f != 0) f = (f >> 1) | 1;
  }
}

LiteralCode literalCode(const unsigned char* data, std::size_t n) {
  // Four histograms side by side: runs of one byte value do not wait on one counter.
  std::vector<std::uint32_t> h(4 * 256, 0);
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    ++h[data[i]];
    ++h[256 + data[i + 1]];
    ++h[512 + data[i + 2]];
    ++h[768 + data[i + 3]];
  }
  for (; i < n; ++i) ++h[data[i]];
  std::vector<std::uint32_t> freq(kLiteralSymbols, 0);
  for (int s = 0; s < 256; ++s) freq[s] = h[s] + h[256 + s] + h[512 + s] + h[768 + s];
  freq[256] = 1;  // the end of block, once
  LiteralCode code;
  const auto lengths = huffmanLengths(freq, 15);
  std::copy(lengths.begin(), lengths.end(), code.length.begin());
  canonicalCodes(code.length.data(), code.code);
  for (int s = 0; s < 256; ++s) code.bits += std::uint64_t(freq[s]) * code.length[s];
  return code;
}

void appendLiteralBlock(const unsigned char* data, std::size_t n, const LiteralCode& code,
                        bool final, BitSink& sink) {
  const BlockHeader header = headerOf(code);
  const std::uint64_t coded = header.bits + code.bits + code.length[256];
  const std::uint64_t pieces = std::max<std::uint64_t>(1, (n + kStoredMax - 1) / kStoredMax);
  const std::uint64_t stored = 8 * std::uint64_t(n) + pieces * (3 + 7 + 32);
  if (stored <= coded) return putStored(data, n, final, sink);
  putHeader(header, final, sink);
  sink.putCodes(data, n, code.code.data(), code.length.data());
  sink.put(code.code[256], code.length[256]);
}

void appendByteAlignment(BitSink& sink) {
  putStored(nullptr, 0, false, sink);
}

}  // namespace Tessal::kq
