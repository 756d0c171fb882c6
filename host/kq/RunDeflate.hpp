// Deflate blocks whose only matches are at distances 1 to 4: runs of one byte (what zlib's
// Z_RLE strategy looks for) or of a few bytes repeating, found in one linear pass without a
// hash table. After the shuffle most of a byte plane's redundancy is of that kind: exponents,
// high bytes and small integers repeat from one value to the next, or from one row to the
// next where rows hold 2 to 4 values (the x, y, z of points); the low bytes of measured values
// repeat nothing, and their block is one of literals. Each block takes the cheapest of a
// dynamic Huffman code over its own symbols, the fixed code, or stored bytes. Any inflater
// reads the blocks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "kq/DeflateBlocks.hpp"

namespace Tessal::kq {

inline constexpr std::size_t kMaxDistance = 4;  // the distance codes without extra bits

// Bytes as deflate symbols: literals, and matches of the bytes 1 to 4 before.
class RunTokens {
 public:
  // Replaces the tokens with those of `n` bytes at `data`.
  void scan(const unsigned char* data, std::size_t n);

  std::size_t size() const { return count_; }
  // A byte (below 256), or 256 + 256 * (distance - 1) + (length - 3) for a match.
  const std::uint16_t* tokens() const { return tokens_.get(); }
  // Literal/length symbol counts, the end of block counted once; distance symbol counts.
  const std::array<std::uint32_t, kLitLenSymbols>& freq() const { return freq_; }
  const std::array<std::uint32_t, kMaxDistance>& distanceFreq() const { return distanceFreq_; }
  std::uint64_t lengthExtraBits() const { return extraBits_; }
  std::size_t bytes() const { return bytes_; }

 private:
  std::unique_ptr<std::uint16_t[]> tokens_;
  std::size_t capacity_ = 0, count_ = 0, bytes_ = 0;
  std::array<std::uint32_t, kLitLenSymbols> freq_{};
  std::array<std::uint32_t, kMaxDistance> distanceFreq_{};
  std::uint64_t extraBits_ = 0;
};

// The cheapest block for a scan's tokens and its size in bits, header included.
struct RunBlock {
  enum class Kind { Stored, Fixed, Dynamic } kind = Kind::Stored;
  std::uint64_t bits = 0;
  std::array<std::uint8_t, kLitLenSymbols> length{};  // of the fixed or dynamic code
  std::array<std::uint8_t, kMaxDistance> distanceLength{};
};
RunBlock planRunBlock(const RunTokens& tokens);

// Appends the block planned for `tokens` (the scan of `data`); `final` marks the stream's
// last block.
void appendRunBlock(const unsigned char* data, const RunTokens& tokens, const RunBlock& block,
                    bool final, BitSink& sink);

}  // namespace Tessal::kq
