// A chunk's byte planes (after the shuffle) as one zlib stream, what HDF5's deflate filter
// reads. Each plane is one run-length block (RunDeflate.hpp) unless deflate's longer matches
// pay on it, which a sample shows; from the first such plane on, the rest of the chunk is
// deflated by libdeflate at level 1 (its stream cannot be continued, so it comes last).
#pragma once

#include <cstddef>
#include <vector>

namespace Tessal::kq {

// The `bytes` bytes at `data`, planes of `planeBytes` bytes one after the other (the last one
// takes what is left over), as a zlib stream into `out`.
void deflatePlanes(const unsigned char* data, std::size_t bytes, std::size_t planeBytes,
                   std::vector<unsigned char>& out);

}  // namespace Tessal::kq
