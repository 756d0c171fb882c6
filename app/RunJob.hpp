// One run of the module on one input file: load, run, add the map chart and success mark,
// save both outputs atomically and verify them. Used by `quillo run` and `quillo demo`.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "run/Input.hpp"

namespace quillo::cli {

struct RunSettings {
  FullWaveform::Input input;  // fileName, progress and segment are set per input
  bool segmentGiven = false;
  std::string outDir;  // empty: beside the input
  std::string date;    // YYMMDD_HHMMSS when the input name carries none
  bool verbose = false, quiet = false, hist = false;
  bool refine = false;   // the zone refinement after the run (holds the outputs in memory)
  unsigned threads = 1;  // for the fragments of this input
};

struct OutputSummary {
  std::string path;
  std::uint64_t points = 0, noisePoints = 0;
  std::uint64_t pointsWithoutPosition = 0;     // not finite: unusable shot direction or echo time
  std::map<int, std::uint64_t> pointsPerZone;  // zone 255: none
  std::string verification;                    // text of the conversion check
};

struct RunSummary {
  std::string input;
  std::string result;  // the module's text; empty on success
  std::vector<OutputSummary> outputs;
  std::map<std::string, double> secondsPerStage;  // load, run, map, save, verify
  std::uint32_t fragments = 0;
  std::uint64_t waves = 0;  // waveform rows and online records of the input
  bool refined = false;
  std::uint64_t refineMoved = 0, refineMarkedNoise = 0;  // points changed by the refinement
};

// Runs one input; throws CliError for problems the user must fix before a run can start.
// `loaded`: the input as the check loaded it (empty: loaded here).
RunSummary runOne(const std::string& inputPath, const RunSettings& settings,
                  Tessal::BundlePtr loaded = {});

// The name the module sees: the input's own when it carries a date, else one with `date`.
std::string moduleFileName(const std::string& inputPath, const std::string& date);
bool nameCarriesDate(const std::string& path);

}  // namespace quillo::cli
