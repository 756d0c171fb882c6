// Loads a run result and draws its quick-look picture (see docs/las-export.md).
#include "app/QuicklookCommand.hpp"

#include <filesystem>
#include <map>
#include <memory>

#include "app/CliError.hpp"
#include "app/LoadKq.hpp"
#include "app/Quicklook.hpp"

namespace quillo::cli {

void addQuicklookCommand(CLI::App& app) {
  auto input = std::make_shared<std::string>();
  auto output = std::make_shared<std::string>();
  auto options = std::make_shared<QuicklookOptions>();
  const std::map<std::string, QuicklookColor> colors{
      {"zone", QuicklookColor::Zone},
      {"height", QuicklookColor::Height},
      {"reflectance", QuicklookColor::Reflectance},
      {"classification", QuicklookColor::Classification}};
  CLI::App* c = app.add_subcommand("quicklook", "Draw a top view PNG of a run result");
  c->add_option("result", *input, "A run result (.kq)")->required();
  c->add_option("output", *output, "The PNG file to write")->required();
  c->add_option("--color", options->color, "zone, height, reflectance or classification")
      ->transform(CLI::CheckedTransformer(colors, CLI::ignore_case));
  c->add_option("--size", options->size, "Width and height in pixels (64 to 16384)");
  c->callback([input, output, options] {
    Tessal::BundlePtr bundle = loadKqFile(*input);
    writeQuicklook(bundle, *input, *output, *options);
  });
}

}  // namespace quillo::cli
