#include "app/CrsOption.hpp"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/CliError.hpp"

namespace quillo::cli {

namespace {

// Files of a WKT text are small; anything larger is not one.
constexpr std::uintmax_t kMaxWktFileSize = 1 << 20;

std::string fileText(const std::string& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (ec || size > kMaxWktFileSize)
    throw CliError(kUsage, "--crs: " + path + " is not a WKT file (larger than 1 MB)");
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (!(text << in.rdbuf()) && size > 0) throw CliError(kUsage, "--crs: cannot read " + path);
  return text.str();
}

}  // namespace

geo::CoordinateSystem coordinateSystemOption(const std::string& value) {
  std::error_code ec;
  const bool isFile = std::filesystem::is_regular_file(value, ec);
  try {
    return geo::parseCoordinateSystem(isFile ? fileText(value) : value);
  } catch (const geo::CrsError& e) {
    throw CliError(kUsage, "--crs: " + (isFile ? value + ": " : "") + e.what());
  }
}

}  // namespace quillo::cli
