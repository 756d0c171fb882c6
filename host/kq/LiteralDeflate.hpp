// Deflate blocks that hold bytes as literals only (no matches): a dynamic Huffman block over
// the bytes' own frequencies, or a stored block when that is shorter. For byte planes that
// repeat nothing (the low bytes of measured floats) this is what a full deflate would write,
// at a fraction of its time, since no match is looked for. Any inflater reads the blocks.
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
  // Each of the `n` bytes as its code (bit-reversed) of its length, lengths up to 16.
  void putCodes(const unsigned char* data, std::size_t n, const std::uint16_t* code,
                const std::uint8_t* length);

 private:
  void spill();
  std::vector<unsigned char>& out_;
  std::size_t at_;
  std::uint64_t buffer_ = 0;
  unsigned filled_ = 0;
};

inline constexpr int kLiteralSymbols = 257;  // the 256 byte values and the end of block

struct LiteralCode {
  std::array<std::uint8_t, kLiteralSymbols> length{};
  std::array<std::uint16_t, kLiteralSymbols> code{};  // bit-reversed, ready for BitSink
  std::uint64_t bits = 0;  // the bytes' Huffman-coded size, block header not counted
};

// Code lengths of a Huffman code for `freq`, none longer than `maxLength`; symbols of
// frequency 0 get length 0. At least two symbols get a length (a code of one symbol is not
// complete, which some inflaters refuse).
std::vector<std::uint8_t> huffmanLengths(const std::vector<std::uint32_t>& freq, int maxLength);

// The literal code of `n` bytes: their histogram, lengths up to 15 bits and canonical codes.
LiteralCode literalCode(const unsigned char* data, std::size_t n);

// One block of `n` bytes as literals under `code` (from literalCode of the same bytes), or
// stored when that is no longer; `final` marks the last block of the stream.
void appendLiteralBlock(const unsigned char* data, std::size_t n, const LiteralCode& code,
                        bool final, BitSink& sink);

// An empty stored block that is not the last: brings the stream to a byte boundary, so that
// a separately compressed deflate stream can follow byte for byte.
void appendByteAlignment(BitSink& sink);

}  // namespace Tessal::kq
