// Fragments that wait for the writer in a scratch file rather than in memory. A worker whose
// range comes after others finishes fragments long before the writer reaches them; their
// arrays go to the worker's own unlinked scratch file (their encoded chunks, or raw element
// bytes when the outputs are not streamed) and are read back when their turn comes, so a run
// holds about one fragment of output per thread whatever the file's size. Without scratch space, or
// when a write fails, they stay in memory.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "app/FragmentHandover.hpp"
#include "tessal/Scratch.hpp"

namespace quillo::cli {

class FragmentSpill {
 public:
  // Moves the arrays' data to the scratch file; an array that cannot be written stays.
  void setAside(OutputPart& part);
  // Reads the set-aside arrays back; throws CliError when the scratch file fails.
  void bringBack(OutputPart& part) const;

 private:
  std::unique_ptr<Tessal::ScratchFile> file_;
  bool unavailable_ = false;
  std::vector<std::uint8_t> plain_;  // plain elements on their way out, kept for the next part
};

}  // namespace quillo::cli
