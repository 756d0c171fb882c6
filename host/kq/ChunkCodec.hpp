// The filters of a .kq dataset done by hand: byte shuffle, then deflate in zlib format (what
// HDF5's shuffle and deflate filters store, so any HDF5 reader reads the chunks): the planes
// by PlaneDeflate.hpp, inflated by libdeflate, which unpacks several times faster than zlib.
// The compression of a finished chunk needs no HDF5 call and so no HDF5 lock.
#pragma once

#include <cstddef>
#include <vector>

namespace Tessal::kq {

inline constexpr int kDeflateLevel = 1;

// Shuffles `bytes` bytes of elements of `elementSize` bytes and deflates them into `out`.
void encodeChunk(const unsigned char* raw, std::size_t bytes, std::size_t elementSize,
                 std::vector<unsigned char>& out);

// Inflates a stored chunk into exactly `bytes` bytes and undoes the shuffle (when
// `shuffled`); false when the data are damaged or of another size.
bool decodeChunk(const unsigned char* stored, std::size_t storedBytes, std::size_t elementSize,
                 bool shuffled, unsigned char* raw, std::size_t bytes);

}  // namespace Tessal::kq
