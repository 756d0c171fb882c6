#include "app/LoadKq.hpp"

#include <filesystem>

#include "app/CliError.hpp"

namespace quillo::cli {

Tessal::BundlePtr loadKqFile(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!fs::exists(path, ec)) throw CliError(kInput, path + ": no such file");
  if (fs::is_directory(path, ec)) throw CliError(kInput, path + ": is a folder, not a .kq file");
  Tessal::BundlePtr bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({path}), bundle);
  if (!ok) throw CliError(kInput, path + ": cannot be read as a .kq file (see the message above)");
  return bundle;
}

}  // namespace quillo::cli
