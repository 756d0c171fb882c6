#include "app/FileCommands.hpp"

#include <cstdio>
#include <filesystem>

#include "app/CliError.hpp"
#include "app/FileInfo.hpp"
#include "app/FragmentProbe.hpp"
#include "app/LoadKq.hpp"
#include "app/RunOptions.hpp"
#include "run/Verification.hpp"

namespace quillo::cli {

void addInfoCommand(CLI::App& app) {
  auto file = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  CLI::App* c =
      app.add_subcommand("info", "Describe a .kq file: grids, fields, attributes, scanner");
  c->add_option("file", *file, "A .kq file")->required();
  c->add_flag("--json", *json, "Machine-readable output");
  c->callback([file, json] {
    Tessal::BundlePtr bundle = loadKqFile(*file);
    const FileInfo info = describe(bundle);
    std::fputs((*json ? infoAsJson(*file, info) : infoAsText(*file, info)).c_str(), stdout);
  });
}

void addVerifyCommand(CLI::App& app) {
  auto file = std::make_shared<std::string>();
  auto compare = std::make_shared<bool>(false);
  CLI::App* c = app.add_subcommand("verify", "Check that a file is a complete conversion result");
  c->add_option("file", *file, "A result .kq file")->required();
  c->add_flag("--compare-fragments", *compare,
              "Also require map and scanner positions in the same number of fragments");
  c->callback([file, compare] {
    const std::string text = FullWaveform::successfullyConverted(*file, *compare);
    if (!text.empty()) throw CliError(kFailure, text);
    std::printf("%s: complete conversion result\n", file->c_str());
  });
}

void addHistCommand(CLI::App& app) {
  struct Options {
    std::string file;
    std::uint32_t fragment = 0;
    ModuleOptions module;
  };
  auto o = std::make_shared<Options>();
  CLI::App* c = app.add_subcommand("hist", "Zone histogram of one fragment of an input");
  c->add_option("file", o->file, "An input .kq file")->required();
  c->add_option("--fragment", o->fragment, "Fragment number")->required();
  addModuleOptions(*c, o->module);
  c->callback([o] {
    RunSettings settings = settingsFrom(o->module);
    Tessal::BundlePtr bundle = loadKqFile(o->file);
    FragmentProbe probe(bundle, settings.input);
    if (o->fragment >= probe.fragmentCount())
      throw CliError(kUsage, o->file + " has " + std::to_string(probe.fragmentCount()) +
                                 " fragments; there is no fragment " + std::to_string(o->fragment));
    FragmentReport r;
    // Zone walks reach into earlier fragments: visit them in order, as a run does.
    for (std::uint32_t f = o->fragment > 0 ? o->fragment - 1 : 0; f <= o->fragment; ++f)
      r = probe.inspect(f);
    if (!r.processed)
      throw CliError(kInput, "fragment " + std::to_string(o->fragment) + " is broken or too small");
    std::printf("Fragment_%u: %u waves, %u uncertain, %u repaired%s", o->fragment, r.waves,
                r.uncertain, r.repaired, r.histogram.c_str());
  });
}

}  // namespace quillo::cli
