// Deflate's bit-level pieces: the bit sink, Huffman code lengths and canonical codes, the
// dynamic block header, stored blocks; see DeflateBlocks.hpp.
#include "kq/DeflateBlocks.hpp"

#include <algorithm>
#include <cstring>

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

namespace {

constexpr int kMaxSymbols = kLitLenSymbols;

// Optimal code lengths (no limit) by the two-queue Huffman construction over the symbols
// of nonzero frequency, taken in order of frequency (ties by symbol).
void unlimitedLengths(const std::uint32_t* freq, int n, std::uint8_t* lengths) {
  std::uint64_t order[kMaxSymbols];  // frequency above, symbol below: sorts ties by symbol
  int m = 0;
  for (int s = 0; s < n; ++s)
    if (freq[s] != 0) order[m++] = std::uint64_t(freq[s]) << 16 | unsigned(s);
  std::fill(lengths, lengths + std::max(n, 0), std::uint8_t(0));
  if (m == 0) return;
  std::sort(order, order + m);
  std::uint64_t weight[2 * kMaxSymbols];
  int left[2 * kMaxSymbols], right[2 * kMaxSymbols];
  for (int i = 0; i < m; ++i) weight[i] = order[i] >> 16;
  int nodes = m, leaf = 0, inner = m;
  auto lighter = [&]() -> int {
    if (leaf < m && (inner >= nodes || weight[leaf] <= weight[inner])) return leaf++;
    return inner++;
  };
  for (int k = 1; k < m; ++k) {
    const int a = lighter(), b = lighter();
    weight[nodes] = weight[a] + weight[b];
    left[nodes] = a, right[nodes] = b;
    ++nodes;
  }
  std::uint8_t depth[2 * kMaxSymbols];
  depth[std::max(nodes - 1, 0)] = 0;  // the root
  for (int j = nodes; j-- > m;) depth[left[j]] = depth[right[j]] = std::uint8_t(depth[j] + 1);
  for (int i = 0; i < m; ++i) lengths[order[i] & 0xffff] = depth[i];
}

}  // namespace

void huffmanLengths(const std::uint32_t* given, int n, int maxLength, std::uint8_t* lengths) {
  std::uint32_t freq[kMaxSymbols];
  std::copy(given, given + n, freq);
  int used = int(std::count_if(freq, freq + n, [](auto f) { return f != 0; }));
  for (int s = 0; used < 2 && s < n; ++s)
    if (freq[s] == 0) freq[s] = 1, ++used;
  for (;;) {
    unlimitedLengths(freq, n, lengths);
    if (*std::max_element(lengths, lengths + n) <= maxLength) return;
    // Flatter frequencies give a shallower tree; all equal gives the balanced one.
    for (int s = 0; s < n; ++s)
      if (freq[s] != 0) freq[s] = (freq[s] >> 1) | 1;
  }
}

std::vector<std::uint8_t> huffmanLengths(const std::vector<std::uint32_t>& freq, int maxLength) {
  std::vector<std::uint8_t> lengths(freq.size());
  huffmanLengths(freq.data(), int(freq.size()), maxLength, lengths.data());
  return lengths;
}

void canonicalCodes(const std::uint8_t* length, int n, std::uint16_t* code) {
  int count[17] = {};
  for (int s = 0; s < n; ++s) ++count[length[s]];
  count[0] = 0;
  int next[17] = {};
  for (int bits = 1, c = 0; bits <= 16; ++bits) next[bits] = c = (c + count[bits - 1]) << 1;
  for (int s = 0; s < n; ++s) {
    const int len = length[s];
    code[s] = 0;
    if (len == 0) continue;
    unsigned c = unsigned(next[len]++), reversed = 0;
    for (int b = 0; b < len; ++b, c >>= 1) reversed = (reversed << 1) | (c & 1);
    code[s] = std::uint16_t(reversed);
  }
}

const std::array<std::uint8_t, kFixedLitLenCodes>& fixedLitLenLengths() {
  static const auto lengths = [] {
    std::array<std::uint8_t, kFixedLitLenCodes> l{};
    for (int s = 0; s < kFixedLitLenCodes; ++s) l[s] = s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8;
    return l;
  }();
  return lengths;
}

namespace {

// Order in which the code-length code's lengths are sent.
constexpr int kLengthOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
constexpr int kExtraOf[19] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 3, 7};

}  // namespace

DynamicHeader::DynamicHeader(const std::uint8_t* litLen, int litLenCount,
                             const std::uint8_t* distance, int distanceCount) {
  for (int s = litLenCount; s-- > litLenSent_;)
    if (litLen[s] != 0) {
      litLenSent_ = s + 1;
      break;
    }
  for (int d = 0; d < distanceCount; ++d)
    if (distance[d] != 0) distanceSent_ = std::max(distanceSent_, d + 1);
  // One sequence of lengths, runs of it sent as repeats (16) or runs of zeros (17, 18).
  std::vector<std::uint8_t> all(litLen, litLen + litLenSent_);
  all.insert(all.end(), distance, distance + distanceSent_);
  std::uint32_t freq[19] = {};
  const auto emit = [&](int symbol, int extra) {
    symbols_.push_back(std::uint8_t(symbol));
    extra_.push_back(std::uint8_t(extra));
    ++freq[symbol];
  };
  for (std::size_t i = 0; i < all.size();) {
    const std::uint8_t l = all[i];
    std::size_t run = 1;
    while (i + run < all.size() && all[i + run] == l) ++run;
    i += run;
    if (l == 0) {
      for (; run >= 11; run -= std::min<std::size_t>(run, 138))
        emit(18, int(std::min<std::size_t>(run, 138) - 11));
      if (run >= 3) emit(17, int(run - 3)), run = 0;
    } else {
      emit(l, 0), --run;
      for (; run >= 3; run -= std::min<std::size_t>(run, 6))
        emit(16, int(std::min<std::size_t>(run, 6) - 3));
    }
    for (; run > 0; --run) emit(l, 0);
  }
  huffmanLengths(freq, 19, 7, clLength_.data());
  canonicalCodes(clLength_.data(), 19, clCode_.data());
  for (int i = 0; i < 19; ++i)
    if (clLength_[kLengthOrder[i]] != 0) clSent_ = std::max(clSent_, i + 1);
  bits_ = 3 + 5 + 5 + 4 + 3 * std::uint64_t(clSent_);
  for (std::size_t k = 0; k < symbols_.size(); ++k)
    bits_ += clLength_[symbols_[k]] + kExtraOf[symbols_[k]];
}

void DynamicHeader::put(bool final, BitSink& sink) const {
  sink.put(final ? 1 : 0, 1);
  sink.put(2, 2);  // dynamic Huffman codes
  sink.put(unsigned(litLenSent_ - 257), 5);
  sink.put(unsigned(distanceSent_ - 1), 5);
  sink.put(unsigned(clSent_ - 4), 4);
  for (int i = 0; i < clSent_; ++i) sink.put(clLength_[kLengthOrder[i]], 3);
  for (std::size_t k = 0; k < symbols_.size(); ++k) {
    sink.put(clCode_[symbols_[k]], clLength_[symbols_[k]]);
    sink.put(extra_[k], kExtraOf[symbols_[k]]);
  }
}

namespace {

constexpr std::size_t kStoredMax = 65535;

}  // namespace

std::uint64_t storedBits(std::size_t n) {
  const std::uint64_t pieces = std::max<std::uint64_t>(1, (n + kStoredMax - 1) / kStoredMax);
  return 8 * std::uint64_t(n) + pieces * (3 + 7 + 32);
}

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

void appendByteAlignment(BitSink& sink) {
  putStored(nullptr, 0, false, sink);
}

}  // namespace Tessal::kq
