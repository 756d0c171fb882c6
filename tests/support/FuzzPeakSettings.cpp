// Fuzz entry: arbitrary bytes as a peak-detection settings file; what reads cleanly then
// drives detection on fixed synthetic rows in every mode.
#include "support/Arrays.hpp"
#include "support/FuzzEntries.hpp"
#include "support/FuzzInput.hpp"
#include "support/SyntheticWaveforms.hpp"
#include "waveform/PeakDetection.hpp"
#include "waveform/PeakSettings.hpp"

namespace quillo::fuzz {

namespace {

using Samples = Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>>;

// A lone echo, two overlapping ones, a clipped one and an empty row.
Samples fixedRows(std::uint32_t samples) {
  using test::SyntheticRow;
  const std::vector<SyntheticRow> rows = {{{{30.3, 400.0, 3.0}}},
                                          {{{28.0, 300.0, 3.0}, {32.5, 250.0, 3.0}}},
                                          {{{50.0, 9000.0, 4.0}}},
                                          {}};
  test::SyntheticSettings settings;
  settings.samples = samples;
  settings.clipLevel = 1023.0;
  return test::renderRows(rows, settings, 7);
}

void detectInEveryMode(const std::filesystem::path& settingsPath) {
  constexpr std::uint32_t kSamples = 96;
  const Samples samples = fixedRows(kSamples);
  const std::size_t rows = samples->extent(1);
  FullWaveform::ScannerDevice scanner;
  scanner.sampleInterval = 1e-9;
  for (FullWaveform::FWFModus mode : FullWaveform::allModes()) {
    FullWaveform::PeakDetectionFamily<unsigned short> detector(mode, scanner, settingsPath,
                                                               "fuzz.kq", kSamples);
    if (!detector.errorText().empty()) continue;
    detector.apply(samples, test::makeArray(std::vector<std::uint16_t>(rows, kSamples)),
                   test::makeArray(std::vector<double>(rows, 100.0)),
                   test::makeArray(std::vector<double>(rows, 1e-6)),
                   test::makeArray(std::vector<std::uint8_t>(rows, 1)), 0, "Fragment_0");
  }
}

}  // namespace

void readPeakSettingsThenDetect(const std::uint8_t* data, std::size_t size) {
  ScratchFile file(data, size, ".peaks");
  if (!file.written()) return;
  FullWaveform::PeakSettings settings;
  if (!FullWaveform::readPeakSettings(file.path(), settings).empty()) return;
  detectInEveryMode(file.path());
}

}  // namespace quillo::fuzz
