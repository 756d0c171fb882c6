// Fuzz entry: arbitrary bytes decoded into rows of waveform samples, their FWFLength values,
// a mode and a noise level, then run through peak detection.
#include "support/Arrays.hpp"
#include "support/FuzzEntries.hpp"
#include "support/FuzzInput.hpp"
#include "waveform/PeakDetection.hpp"

namespace quillo::fuzz {

namespace {

// Bounds that keep one input quick while covering empty, short and long rows.
constexpr std::uint32_t kMaxSamplesPerRow = 1024;
constexpr std::uint32_t kMaxRows = 8;

using Samples = Tessal::MemArray<2, std::uint16_t>;

struct DecodedRows {
  FullWaveform::FWFModus mode;
  std::int32_t noiseLevel;
  Vorlap::StrongPtr<Samples> samples;
  std::vector<std::uint16_t> lengths;
};

// Header: mode, noise level, samples per row, rows, one FWFLength per row; then the samples,
// little-endian, row after row (missing ones are zero).
DecodedRows decode(ByteReader& in) {
  DecodedRows d;
  d.mode = FullWaveform::FWFModus(in.below(3));
  d.noiseLevel = in.take<std::int32_t>();
  const std::uint32_t perRow = in.below(kMaxSamplesPerRow + 1);
  const std::uint32_t rows = in.below(kMaxRows) + 1;
  for (std::uint32_t r = 0; r < rows; ++r) d.lengths.push_back(in.take<std::uint16_t>());
  d.samples = Vorlap::makeStrong<Samples>(Samples::Extents{perRow, rows});
  for (std::size_t k = 0; k < std::size_t(perRow) * rows; ++k)
    d.samples->set(k, in.take<std::uint16_t>());
  return d;
}

}  // namespace

void detectPeaksInRows(const std::uint8_t* data, std::size_t size) {
  ByteReader in(data, size);
  DecodedRows d = decode(in);
  const std::size_t rows = d.lengths.size();
  FullWaveform::ScannerDevice scanner;
  scanner.sampleInterval = 1e-9;
  const auto perRow = std::uint32_t(d.samples->extent(0));
  FullWaveform::PeakDetectionFamily<unsigned short> detector(d.mode, scanner, {}, "fuzz.kq",
                                                             perRow);
  if (!detector.errorText().empty()) return;
  std::vector<double> times;
  for (std::size_t r = 0; r < rows; ++r) times.push_back(100.0 + double(r) * 1e-6);
  detector.apply(d.samples, test::makeArray(d.lengths), test::makeArray(times),
                 test::makeArray(std::vector<double>(rows, 1e-6)),
                 test::makeArray(std::vector<std::uint8_t>(rows, 1)), d.noiseLevel, "Fragment_0");
}

}  // namespace quillo::fuzz
