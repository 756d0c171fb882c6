#include "app/Json.hpp"

#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "app/CliError.hpp"

namespace quillo::cli {

std::string jsonText(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

void writeFileAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp-" + std::to_string(getpid());
  FILE* f = std::fopen(temporary.c_str(), "wb");
  if (!f) throw CliError(kOutput, "cannot write " + path);
  const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  const bool closed = std::fclose(f) == 0;
  std::error_code ec;
  if (!written || !closed) {
    std::filesystem::remove(temporary, ec);
    throw CliError(kOutput, "cannot write " + path + " (disk full?)");
  }
  std::filesystem::rename(temporary, path, ec);
  if (ec) {
    std::filesystem::remove(temporary, ec);
    throw CliError(kOutput, "cannot write " + path + ": " + ec.message());
  }
}

}  // namespace quillo::cli
