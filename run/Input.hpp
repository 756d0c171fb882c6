// The run parameters: filled by the host, read-only during a run. speak() renders them as
// text, getOutFileName names the two output files, setIsDataFrom_RDBX_File reads the data
// segment from the input bundle.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include "run/Export.hpp"
#include "tessal/Bundle.hpp"
#include "vorlap/ProgressSink.hpp"
#include "waveform/FWFModus.hpp"

namespace FullWaveform {

struct QUILLO_API Input {
  std::int32_t MTA = -1;        // >= 0: fixed zone for every wave; < 0: resolve
  std::int32_t fragBegin = 0;   // negative counts as 0
  std::uint32_t fragEnd = ~0u;  // all bits: up to the last fragment
  // Fragments below it (from fragBegin) only carry their shots to the next one: a host that
  // runs a file in ranges starts each a fragment early and drops what that fragment gives.
  std::uint32_t carryOnlyBelow = 0;
  FWFModus fwfModus = FWF_GAUSSIAN_DECOMPOSITION;
  bool exportFWF = false;
  double noiseLevel = 0.0;  // truncated to an integer detection threshold
  std::string label;        // the host's own name for the run; the module ignores it
  bool skipFWF = false;
  bool skipOnline = false;
  // The host reads no waveform or online array once a fragment's points are made (no
  // refinement): they go then, before the host saves the fragment, not when the next is read.
  bool dropInputsAfterFragment = false;
  Vorlap::WeakPtr<Vorlap::ProgressSink> progress;
  std::string inputFileName;
  std::filesystem::path peakDetectionPath;
  std::int32_t RDB_SEGMENT = -1;  // -1: data without segment; 0 or 1: the segment

  std::string speak() const;
  std::pair<std::filesystem::path, std::filesystem::path> getOutFileName(
      const std::filesystem::path& inputFile) const;
  std::string setIsDataFrom_RDBX_File(Tessal::BundlePtr& bundle);
};

}  // namespace FullWaveform
