// Loading a .kq file for a command, with the errors every command reports the same way.
#pragma once

#include <string>

#include "tessal/Bundle.hpp"

namespace quillo::cli {

// The file's bundle; throws CliError (exit code 3) when it is missing, a folder, or not a
// readable .kq file (the data model's console message says what is wrong inside it).
Tessal::BundlePtr loadKqFile(const std::string& path);

}  // namespace quillo::cli
