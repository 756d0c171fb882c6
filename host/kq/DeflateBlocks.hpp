// The bit-level pieces of deflate blocks written by hand: a bit sink, length-limited Huffman
// codes, the header of a dynamic-Huffman block (code lengths run-length coded, as zlib sends
// them), stored blocks and the fixed code. RunDeflate.cpp builds whole blocks from them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tessal::kq {

// Appends bits to `out` the way deflate packs them: least significant bit first. The bytes
// go to the end of `out`; finish() trims it to what was written.
class BitSink {
 public:
  explicit BitSink(std::vector<unsigned char>& out) : out_(out), at_(out.size()) {}
  void put(std::uint32_t bits, unsigned count) {  // count <= 32
    buffer_ |= std::uint64_t(bits) << filled_;
    filled_ += count;
    if (filled_ >= 32) spill();
  }
  // Pads with zero bits to the next byte boundary and writes out what is held.
  void alignToByte();
  void putBytes(const unsigned char* data, std::size_t n);  // after alignToByte
  // Makes room for `bytes` more bytes at once (the writes grow `out` as they go otherwise).
  void reserve(std::size_t bytes);
  std::size_t finish();  // after alignToByte; returns the size of `out`

  // For loops that keep the bits in registers: the state, and where the next bytes go
  // (reserve() first); take it back with restore().
  struct State {
    unsigned char* out;
    std::uint64_t buffer;
    unsigned filled;
  };
  State state() { return {out_.data() + at_, buffer_, filled_}; }
  void restore(const State& s) {
    at_ = std::size_t(s.out - out_.data());
    buffer_ = s.buffer;
    filled_ = s.filled;
  }

 private:
  void spill();
  std::vector<unsigned char>& out_;
  std::size_t at_;
  std::uint64_t buffer_ = 0;
  unsigned filled_ = 0;
};

// Code lengths of a Huffman code for `freq` (n symbols), none longer than `maxLength`, into
// `lengths`; symbols of frequency 0 get length 0. At least two symbols get a length (a code
// of one symbol is not complete, which some inflaters refuse).
void huffmanLengths(const std::uint32_t* freq, int n, int maxLength, std::uint8_t* lengths);
std::vector<std::uint8_t> huffmanLengths(const std::vector<std::uint32_t>& freq, int maxLength);

// Canonical codes of `n` symbols from their lengths, bit-reversed as deflate sends them.
void canonicalCodes(const std::uint8_t* length, int n, std::uint16_t* code);

inline constexpr int kLitLenSymbols = 286;  // bytes, the end of block, 29 length codes
inline constexpr int kEndOfBlock = 256;

// The literal/length and distance code lengths of the fixed-Huffman block; its code has two
// more symbols than are ever used, which its canonical codes must count.
inline constexpr int kFixedLitLenCodes = 288;
const std::array<std::uint8_t, kFixedLitLenCodes>& fixedLitLenLengths();
inline constexpr unsigned kFixedDistanceLength = 5;

// The header of a dynamic-Huffman block for the given code lengths: its size in bits and
// what put() sends.
class DynamicHeader {
 public:
  DynamicHeader(const std::uint8_t* litLen, int litLenCount, const std::uint8_t* distance,
                int distanceCount);
  std::uint64_t bits() const { return bits_; }
  void put(bool final, BitSink& sink) const;

 private:
  int litLenSent_ = 257, distanceSent_ = 1, clSent_ = 4;
  std::vector<std::uint8_t> symbols_;  // code-length symbols, each with its extra value
  std::vector<std::uint8_t> extra_;
  std::array<std::uint8_t, 19> clLength_{};
  std::array<std::uint16_t, 19> clCode_{};
  std::uint64_t bits_ = 0;
};

// The bits of `n` bytes as stored blocks (at most 65,535 bytes each), header included.
std::uint64_t storedBits(std::size_t n);
// `n` bytes as stored blocks; `final` marks the last of them as the stream's end.
void putStored(const unsigned char* data, std::size_t n, bool final, BitSink& sink);

// An empty stored block that is not the last: brings the stream to a byte boundary, so that
// a separately compressed deflate stream can follow byte for byte.
void appendByteAlignment(BitSink& sink);

}  // namespace Tessal::kq
