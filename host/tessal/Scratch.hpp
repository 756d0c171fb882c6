// Scratch space of the data model: where a run sets aside data it may read again (the
// module's shot-time index moves old blocks there). The host decides where it goes; the
// module only asks for a file and never learns the folder. Without scratch space the caller
// keeps its data in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Tessal {

// An append-only scratch file that disappears when it is closed or the process dies.
class ScratchFile {
 public:
  virtual ~ScratchFile() = default;
  // Appends the bytes and returns where they start; -1 when they could not all be written.
  virtual std::int64_t append(const std::vector<std::uint8_t>& bytes) = 0;
  // Reads `count` bytes written at `offset` into `out`; false with `error` saying why.
  virtual bool read(std::int64_t offset, std::size_t count, std::vector<std::uint8_t>& out,
                    std::string& error) const = 0;
  // The same for bytes in several places: appended one after the other, read back into the
  // pieces in turn. Saves the caller gathering them first (the folder's files read and write
  // them in place; other files through append and read).
  virtual std::int64_t appendPieces(const std::vector<std::span<const std::uint8_t>>& pieces);
  virtual bool readPieces(std::int64_t offset, const std::vector<std::span<std::uint8_t>>& pieces,
                          std::string& error) const;
};

// The folder for scratch files; by default the system's temporary folder. An empty path
// means no scratch files at all.
void setScratchFolder(const std::filesystem::path& folder);
std::filesystem::path scratchFolder();

// Replaces how scratch files are made (a host with its own storage; tests); an empty
// function restores the folder-backed files.
using ScratchFactory = std::function<std::unique_ptr<ScratchFile>()>;
void setScratchFactory(ScratchFactory factory);

// A new scratch file, or null when none can be made.
std::unique_ptr<ScratchFile> openScratchFile();

}  // namespace Tessal
