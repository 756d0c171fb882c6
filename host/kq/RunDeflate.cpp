// Run-length deflate blocks: the scan of a plane into bytes and runs, the choice of the block's
// code, and the coding; see RunDeflate.hpp.
#include "kq/RunDeflate.hpp"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Tessal::kq {

namespace {

constexpr unsigned kMinMatch = 3, kMaxMatch = 258;
constexpr int kTokenKinds = 256 + 256 * int(kMaxDistance);  // bytes, then matches

// Deflate's length codes: symbol, extra bits and their value for each match length.
struct LengthCode {
  std::uint16_t symbol = 0;
  std::uint8_t extraBits = 0;
  std::uint8_t extraValue = 0;
};

constexpr std::array<LengthCode, kMaxMatch + 1> makeLengthCodes() {
  constexpr unsigned base[29] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                 31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
  constexpr unsigned extra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                  2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
  std::array<LengthCode, kMaxMatch + 1> codes{};
  for (unsigned length = kMinMatch; length <= kMaxMatch; ++length) {
    int k = 28;
    while (base[k] > length) --k;
    codes[length] = {std::uint16_t(257 + k), std::uint8_t(extra[k]),
                     std::uint8_t(length - base[k])};
  }
  return codes;
}

constexpr auto kLengthCodes = makeLengthCodes();

// How many bytes from `at` (at most `limit`) equal those `distance` bytes before, eight at a
// time.
std::size_t matchLength(const unsigned char* at, std::size_t distance, std::size_t limit) {
  std::size_t length = 0;
  while (limit - length >= 8) {
    std::uint64_t here, there;
    std::memcpy(&here, at + length, 8);
    std::memcpy(&there, at + length - distance, 8);
    if (const std::uint64_t differ = here ^ there)
      return length + __builtin_ctzll(differ) / 8;  // little-endian hosts, as the shuffle
    length += 8;
  }
  while (length < limit && at[length] == at[length - distance]) ++length;
  return length;
}

// Bit k set where a match of at least 3 bytes at some distance 1 to 4 starts at at[k], for k
// from 0 to kWindow - 1; reads at[-4] to at[31].
constexpr std::size_t kWindow = 30;

std::uint32_t matchStarts(const unsigned char* at) {
  std::uint32_t starts = 0;
#if defined(__SSE2__)
  const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 16));
  for (std::size_t d = 1; d <= kMaxDistance; ++d) {
    const __m128i lowBefore = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at - d));
    const __m128i highBefore = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 16 - d));
    const std::uint32_t equal = std::uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(low, lowBefore))) |
                                std::uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(high, highBefore)))
                                    << 16;
    starts |= equal & (equal >> 1) & (equal >> 2);
  }
#else
  for (std::size_t d = 1; d <= kMaxDistance; ++d) {
    std::uint32_t equal = 0;
    for (std::size_t k = 0; k < 32; ++k) equal |= std::uint32_t(at[k] == at[k - d]) << k;
    starts |= equal & (equal >> 1) & (equal >> 2);
  }
#endif
  return starts & ((1u << kWindow) - 1);
}

}  // namespace

void RunTokens::scan(const unsigned char* data, std::size_t n) {
  // Room for a window's tokens written whole past the last one.
  if (capacity_ < n + 32) {
    tokens_.reset(new std::uint16_t[n + 32]);
    capacity_ = n + 32;
  }
  // Four histograms taken in turn: runs of one literal value do not wait on one counter.
  std::uint32_t histogram[4][256] = {};
  freq_.fill(0);
  distanceFreq_.fill(0);
  std::uint16_t* out = tokens_.get();
  std::uint64_t extraBits = 0;
  const auto count = [&](const unsigned char* from, std::size_t k) {
    std::size_t j = 0;
    for (; j + 4 <= k; j += 4) {
      ++histogram[0][from[j]];
      ++histogram[1][from[j + 1]];
      ++histogram[2][from[j + 2]];
      ++histogram[3][from[j + 3]];
    }
    for (; j < k; ++j) ++histogram[0][from[j]];
  };
  // Greedy: the longest match at distance 1 to 4 wherever one of at least 3 bytes starts,
  // else a literal. Stretches without any are found a window at a time.
  for (std::size_t i = 0; i < n;) {
    if (i >= kMaxDistance && n - i >= 32) {
      const std::uint32_t starts = matchStarts(data + i);
      const std::size_t plain = starts ? std::size_t(__builtin_ctz(starts)) : kWindow;
      for (std::size_t k = 0; k < 32; ++k) out[k] = data[i + k];  // whole, one vector
      out += plain;
      count(data + i, plain);
      i += plain;
      if (!starts) continue;
    }
    std::size_t best = 0, bestDistance = 0;
    const std::size_t limit = std::min<std::size_t>(n - i, kMaxMatch);
    for (std::size_t d = 1; d <= std::min<std::size_t>(i, kMaxDistance); ++d) {
      if (data[i] != data[i - d]) continue;
      const std::size_t length = matchLength(data + i, d, limit);
      if (length > best) best = length, bestDistance = d;
    }
    if (best < kMinMatch) {
      *out++ = data[i];
      ++histogram[0][data[i]];
      ++i;
      continue;
    }
    *out++ = std::uint16_t(256 + (bestDistance - 1) * 256 + (best - kMinMatch));
    ++freq_[kLengthCodes[best].symbol];
    ++distanceFreq_[bestDistance - 1];
    extraBits += kLengthCodes[best].extraBits;
    i += best;
  }
  for (int b = 0; b < 256; ++b)
    freq_[b] = histogram[0][b] + histogram[1][b] + histogram[2][b] + histogram[3][b];
  ++freq_[kEndOfBlock];
  count_ = std::size_t(out - tokens_.get());
  bytes_ = n;
  extraBits_ = extraBits;
}

namespace {

std::uint64_t codedBits(const RunTokens& t, const std::uint8_t* length,
                        const std::uint8_t* distanceLength) {
  std::uint64_t bits = t.lengthExtraBits();
  for (int s = 0; s < kLitLenSymbols; ++s) bits += std::uint64_t(t.freq()[s]) * length[s];
  for (std::size_t d = 0; d < kMaxDistance; ++d)
    bits += std::uint64_t(t.distanceFreq()[d]) * distanceLength[d];
  return bits;
}

}  // namespace

RunBlock planRunBlock(const RunTokens& t) {
  RunBlock best;
  best.bits = storedBits(t.bytes());
  const auto& fixed = fixedLitLenLengths();
  std::array<std::uint8_t, kMaxDistance> fixedDistance;
  fixedDistance.fill(kFixedDistanceLength);
  const std::uint64_t fixedBits = 3 + codedBits(t, fixed.data(), fixedDistance.data());
  if (fixedBits < best.bits) {
    best.kind = RunBlock::Kind::Fixed;
    best.bits = fixedBits;
    std::copy_n(fixed.begin(), kLitLenSymbols, best.length.begin());
    best.distanceLength = fixedDistance;
  }
  std::array<std::uint8_t, kLitLenSymbols> length;
  huffmanLengths(t.freq().data(), kLitLenSymbols, 15, length.data());
  std::array<std::uint8_t, kMaxDistance> distanceLength;
  huffmanLengths(t.distanceFreq().data(), int(kMaxDistance), 15, distanceLength.data());
  const DynamicHeader header(length.data(), kLitLenSymbols, distanceLength.data(),
                             int(kMaxDistance));
  const std::uint64_t dynamicBits =
      header.bits() + codedBits(t, length.data(), distanceLength.data());
  if (dynamicBits < best.bits) {
    best.kind = RunBlock::Kind::Dynamic;
    best.bits = dynamicBits;
    best.length = length;
    best.distanceLength = distanceLength;
  }
  return best;
}

namespace {

// Every token's bits and their count under the block's code: a byte's code, or a match's
// length code, its extra bits and its distance code.
struct TokenCodes {
  std::array<std::uint32_t, kTokenKinds> bits;
  std::array<std::uint8_t, kTokenKinds> count;
  std::uint16_t endBits;
  std::uint8_t endCount;
};

void makeTokenCodes(const RunBlock& block, TokenCodes& codes) {
  std::array<std::uint16_t, kFixedLitLenCodes> code;
  if (block.kind == RunBlock::Kind::Fixed)
    canonicalCodes(fixedLitLenLengths().data(), kFixedLitLenCodes, code.data());
  else
    canonicalCodes(block.length.data(), kLitLenSymbols, code.data());
  std::array<std::uint16_t, kMaxDistance> distanceCode;
  canonicalCodes(block.distanceLength.data(), int(kMaxDistance), distanceCode.data());
  for (int b = 0; b < 256; ++b) codes.bits[b] = code[b], codes.count[b] = block.length[b];
  for (std::size_t d = 0; d < kMaxDistance; ++d)
    for (unsigned length = kMinMatch; length <= kMaxMatch; ++length) {
      const LengthCode& l = kLengthCodes[length];
      const unsigned symbolBits = block.length[l.symbol], withExtra = symbolBits + l.extraBits;
      const std::size_t token = 256 + 256 * d + (length - kMinMatch);
      codes.bits[token] = code[l.symbol] | std::uint32_t(l.extraValue) << symbolBits |
                          std::uint32_t(distanceCode[d]) << withExtra;
      codes.count[token] = std::uint8_t(withExtra + block.distanceLength[d]);
    }
  codes.endBits = code[kEndOfBlock];
  codes.endCount = block.length[kEndOfBlock];
}

// Two tokens (at most 23 bits each) between flushes, and each flush writes eight bytes and
// keeps what is left of the last one: no branch per token.
void putTokens(const RunTokens& t, const TokenCodes& codes, std::uint64_t bits, BitSink& sink) {
  sink.reserve(bits / 8 + 16);
  BitSink::State s = sink.state();
  const std::uint16_t* token = t.tokens();
  const auto add = [&](std::uint16_t k) {
    s.buffer |= std::uint64_t(codes.bits[k]) << s.filled;
    s.filled += codes.count[k];
  };
  const auto flush = [&] {
    std::memcpy(s.out, &s.buffer, 8);  // little-endian hosts only, as the shuffle assumes
    s.out += s.filled / 8;
    s.buffer >>= s.filled & ~7u;  // at most 7 + 2 * 23 bits held: below 64
    s.filled &= 7;
  };
  // The sink holds fewer than 32 bits: spill them whole first.
  while (s.filled >= 8) {
    *s.out++ = static_cast<unsigned char>(s.buffer);
    s.buffer >>= 8;
    s.filled -= 8;
  }
  std::size_t i = 0;
  for (const std::size_t n = t.size(); i + 2 <= n; i += 2) {
    add(token[i]);
    add(token[i + 1]);
    flush();
  }
  if (i < t.size()) add(token[i]), flush();
  sink.restore(s);
}

}  // namespace

void appendRunBlock(const unsigned char* data, const RunTokens& t, const RunBlock& block,
                    bool final, BitSink& sink) {
  if (block.kind == RunBlock::Kind::Stored) return putStored(data, t.bytes(), final, sink);
  if (block.kind == RunBlock::Kind::Fixed) {
    sink.put(final ? 1 : 0, 1);
    sink.put(1, 2);
  } else {
    DynamicHeader(block.length.data(), kLitLenSymbols, block.distanceLength.data(),
                  int(kMaxDistance))
        .put(final, sink);
  }
  TokenCodes codes;  // on the stack: a thread_local one is looked up again per token
  makeTokenCodes(block, codes);
  putTokens(t, codes, block.bits, sink);
  sink.put(codes.endBits, codes.endCount);
}

}  // namespace Tessal::kq
