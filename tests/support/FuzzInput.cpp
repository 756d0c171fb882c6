#include "support/FuzzInput.hpp"

#include <unistd.h>
#include <fstream>

namespace quillo::fuzz {

ScratchFile::ScratchFile(const std::uint8_t* data, std::size_t size, const std::string& suffix)
    : path_(std::filesystem::temp_directory_path() /
            ("quillo-fuzz-" + std::to_string(::getpid()) + suffix)) {
  std::ofstream out(path_, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), std::streamsize(size));
  written_ = bool(out.flush());
}

ScratchFile::~ScratchFile() {
  std::error_code ec;
  std::filesystem::remove(path_, ec);
}

}  // namespace quillo::fuzz
