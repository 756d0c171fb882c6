// Fuzz entry: arbitrary bytes as a .kq file -> bundle loader -> module run, outputs dropped.
#include <filesystem>

#include "run/Quillo.hpp"
#include "support/FuzzEntries.hpp"
#include "support/FuzzInput.hpp"

namespace quillo::fuzz {

namespace {

// Fragments a run may touch: enough to reach cross-fragment state, few enough to stay quick.
constexpr std::uint32_t kMaxFragments = 3;

Vorlap::StrongPtr<Tessal::Grid> outputGrid(const std::filesystem::path& path) {
  if (path.empty()) return {};
  Tessal::BundlePtr bundle = Tessal::BundlePtr::make();
  return (*bundle.create())[0.0]->makeGrid("FWF");
}

}  // namespace

void loadAndRunKq(const std::uint8_t* data, std::size_t size) {
  ScratchFile file(data, size, ".kq");
  if (!file.written()) return;
  Tessal::BundlePtr bundle = Tessal::BundlePtr::make();
  bool loaded = false;
  Tessal::Bundle::load(loaded, Tessal::LoaderParameters({file.path().string()}), bundle);
  if (!loaded) return;
  FullWaveform::Input input;
  // A dated name, as the command line hands the module when the user gives --date.
  input.inputFileName = "fuzz_210315_093000.kq";
  input.fragEnd = kMaxFragments;
  input.fwfModus = FullWaveform::FWFModus(size % 3);
  input.setIsDataFrom_RDBX_File(bundle);
  const auto [firstPath, secondPath] = input.getOutFileName(input.inputFileName);
  const auto first = outputGrid(firstPath);
  const auto second = outputGrid(secondPath);
  FullWaveform::Quillo<unsigned short>(bundle, first, second, input);
}

}  // namespace quillo::fuzz
