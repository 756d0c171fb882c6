// Loads a run result (.kq) and writes it as LAS 1.4 (see docs/las-export.md).
#include "app/ExportCommand.hpp"

#include <malloc.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "app/CliError.hpp"
#include "app/CrsOption.hpp"
#include "app/LasWriter.hpp"
#include "app/LoadKq.hpp"

namespace quillo::cli {

void addExportCommand(CLI::App& app) {
  auto input = std::make_shared<std::string>();
  auto output = std::make_shared<std::string>();
  auto options = std::make_shared<LasExportOptions>();
  CLI::App* c = app.add_subcommand("export", "Write a run result as a LAS 1.4 point cloud");
  c->add_option("result", *input, "A run result (.kq)")->required();
  c->add_option("output", *output, "The LAS file to write")->required();
  c->add_flag("--waveforms", options->waveforms,
              "Point format 9 with the exported waveforms (format 6 without)");
  c->add_option("--crs", options->crs, std::string(kCrsOptionHelp) + " (default: the result's)");
  c->callback([input, output, options] {
    // Each fragment allocates and frees the same buffers: keeping freed memory in the process
    // spares the page faults of fresh mappings (half of an export's time without it).
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    const auto summary = exportLas(loadKqFile(*input), *input, *output, *options);
    std::printf("%s: %llu points, point format %d, %s, coordinate system %s\n", output->c_str(),
                static_cast<unsigned long long>(summary.points), summary.pointFormat,
                summary.adjustedGpsTime ? "adjusted standard GPS time" : "GPS week time",
                summary.crs.empty() ? "none (give one with --crs)" : summary.crs.c_str());
    if (summary.intensityScale != 1.0)
      std::printf("%s: amplitudes exceed 65535 counts: intensity = amplitude x %.6g\n",
                  output->c_str(), summary.intensityScale);
    if (summary.leftOut)
      std::fprintf(stderr,
                   "quillo: warning: %s: %llu point(s) left out: their position is not finite "
                   "(a shot without a usable direction or origin, or an echo time that is not a "
                   "number)\n",
                   output->c_str(), static_cast<unsigned long long>(summary.leftOut));
  });
}

}  // namespace quillo::cli
