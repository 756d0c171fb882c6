// Runs independent work over index chunks on a few threads. The chunks are fixed by the
// count alone (never by the threads), so results gathered per chunk and joined in chunk order
// are the same for any number of threads.
#pragma once

#include <cstddef>
#include <functional>

namespace FullWaveform {

// Chunks of [0, n) of at least `least` indices; at most `most` of them.
std::size_t chunkCount(std::size_t n, std::size_t least = 4096, std::size_t most = 64);
// Calls `work(chunk, lo, hi)` for every chunk of [0, n), on up to `threads` threads (the
// calling one among them), and returns once all are done. Where no thread can be started,
// the calling thread does them all.
void forEachChunk(std::size_t n, std::size_t chunks, unsigned threads,
                  const std::function<void(std::size_t, std::size_t, std::size_t)>& work);

}  // namespace FullWaveform
