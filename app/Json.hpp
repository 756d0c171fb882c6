// Machine-readable output of the commands: JSON documents (nlohmann::json) as UTF-8 text, and
// files written whole or not at all.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace quillo::cli {

using Json = nlohmann::json;

// The document on one line, ending in a newline. Not-a-number and infinities become null;
// bytes that are not UTF-8 (a file name may hold any) become U+FFFD, so the text stays valid.
std::string jsonText(const Json& document);

// Writes `text` to `path` through a temporary file renamed into place; throws CliError.
void writeFileAtomically(const std::string& path, const std::string& text);

}  // namespace quillo::cli
