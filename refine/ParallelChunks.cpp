// Work over index chunks on a few threads: reads nothing but the count; the callers' work
// writes per chunk.
#include "refine/ParallelChunks.hpp"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace FullWaveform {

std::size_t chunkCount(std::size_t n, std::size_t least, std::size_t most) {
  return std::clamp<std::size_t>(n / std::max<std::size_t>(least, 1), 1,
                                 std::max<std::size_t>(most, 1));
}

void forEachChunk(std::size_t n, std::size_t chunks, unsigned threads,
                  const std::function<void(std::size_t, std::size_t, std::size_t)>& work) {
  chunks = std::max<std::size_t>(chunks, 1);
  std::atomic<std::size_t> next{0};
  // Chunks are taken in turn as threads come free: uneven chunks even out.
  const auto take = [&] {
    for (std::size_t c = next++; c < chunks; c = next++)
      work(c, n * c / chunks, n * (c + 1) / chunks);
  };
  std::vector<std::thread> helpers;
  for (std::size_t t = 1; t < std::min<std::size_t>(threads, chunks); ++t) {
    try {
      helpers.emplace_back(take);
    } catch (const std::system_error&) {
      break;  // fewer helpers: the calling thread takes their chunks
    }
  }
  take();
  for (std::thread& h : helpers) h.join();
}

}  // namespace FullWaveform
