// Independent pieces of work shared among threads: each thread takes the next piece when it
// is done with one, so pieces of unequal cost still keep every thread busy.
#pragma once

#include <cstddef>
#include <functional>

namespace quillo::cli {

// Calls `work(i)` for every i below `count` on up to `threads` threads, this one included,
// and returns once all have ended. Pieces run in no particular order and must not share
// what they change. When pieces throw, the error of the lowest-numbered one is thrown (as a
// CliError) once all have ended; the other pieces still run.
void spreadOver(unsigned threads, std::size_t count, const std::function<void(std::size_t)>& work);

}  // namespace quillo::cli
