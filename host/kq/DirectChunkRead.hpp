// Reading a dataset's chunks without HDF5's filter pipeline: the stored bytes are fetched as
// they are and unpacked by ChunkCodec (libdeflate), which inflates several times faster than
// HDF5's zlib filter. Only for the layouts the .kq writer makes: chunks of whole rows,
// shuffle and deflate (or deflate alone), values stored in the native type.
#pragma once

#include <hdf5.h>

#include <cstddef>
#include <mutex>
#include <vector>

namespace Tessal::kq {

// Fills `out` (`bytes` bytes, the whole dataset as `memoryType`); false, with `out` in any
// state, when the dataset is of another layout or a chunk does not unpack: then HDF5 reads it
// (and reports what is wrong). Given the caller's hold on the HDF5 lock (held once), the
// chunks are unpacked with it released, batch by batch; it is held again on return.
bool readChunksDirectly(hid_t set, hid_t memoryType, void* out, std::size_t bytes,
                        std::unique_lock<std::recursive_mutex>* lock = nullptr);

// Whether the dataset's chunks can be fetched and unpacked here when read as `memoryType`:
// chunks of whole rows, shuffle and deflate (or deflate alone), the values in that type.
// Gives the rows per chunk and whether the chunks are shuffled.
bool directlyReadable(hid_t set, hid_t memoryType, hsize_t& chunkRows, bool& shuffled);

// The stored bytes of the chunk starting at `row`, of at most `chunkBytes` unpacked; false
// when the chunk is not stored, went through a filter skipped, or is of an impossible size.
bool fetchChunk(hid_t set, hsize_t row, std::size_t chunkBytes, std::vector<unsigned char>& packed);

}  // namespace Tessal::kq
