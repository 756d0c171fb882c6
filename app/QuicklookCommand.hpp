// `quillo quicklook RESULT.kq OUT.png [--color ...] [--size PIXELS]`: a top-view picture.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addQuicklookCommand(CLI::App& app);

}  // namespace quillo::cli
