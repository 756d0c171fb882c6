#include "app/RunOptions.hpp"

#include <charconv>
#include <thread>

#include <sched.h>

#include "app/CliError.hpp"

namespace quillo::cli {

void addModuleOptions(CLI::App& c, ModuleOptions& o) {
  c.add_option("--mta", o.mta, "Zone: auto (resolve) or a fixed zone 0, 1, 2, ...")
      ->capture_default_str();
  c.add_option("--mode", o.mode, "Peak detection: gaussian, fast or nowidth")
      ->capture_default_str();
  c.add_option("--noise-level", o.noiseLevel,
               "Detection threshold above background in counts (0: estimated per waveform)");
  c.add_flag("--export-fwf", o.exportFWF, "Carry the waveform samples into the point clouds");
  c.add_flag("--skip-fwf", o.skipFWF, "Ignore the input's waveforms");
  c.add_flag("--skip-online", o.skipOnline, "Ignore the scanner's own echo records (OPP)");
  c.add_option("--segment", o.segment, "Data segment (0 or 1); default: the input's RDB_Segment");
  c.add_option("--fragments", o.fragments, "Fragment range A:B (from A up to, not including, B)");
  c.add_option("--peak-settings", o.peakSettings, "Peak detection settings file")
      ->check(CLI::ExistingFile);
}

// On: it breaks fewer than 1 in 100,000 right points on every full-size scene and refines
// over a moving window of fragments, so a run holds a few fragments more whatever the strip's
// length (figures: bench_zones, bench_refine --window, docs/how-zones-are-resolved.md).
constexpr bool kRefineByDefault = true;

void addRefineOption(CLI::App& c, ModuleOptions& o) {
  o.refine = kRefineByDefault;
  c.add_flag("--refine,!--no-refine", o.refine,
             std::string("Refine zones by surface continuity as the run goes: moves echoes off "
                         "their neighbours' surface, classifies echoes fitting none as noise; "
                         "holds a few fragments of output until the scan lines after them are "
                         "in (default: ") +
                 (kRefineByDefault ? "on" : "off") + ")");
}

namespace {

long parseCount(const std::string& text, const std::string& what) {
  long value = 0;
  auto r = std::from_chars(text.data(), text.data() + text.size(), value);
  if (r.ec != std::errc() || r.ptr != text.data() + text.size() || value < 0)
    throw CliError(kUsage, what + ": \"" + text + "\" is not a whole number of 0 or more");
  return value;
}

void applyFragments(const std::string& range, FullWaveform::Input& in) {
  if (range.empty()) return;
  const auto colon = range.find(':');
  if (colon == std::string::npos) throw CliError(kUsage, "--fragments: expected A:B, got " + range);
  const std::string a = range.substr(0, colon), b = range.substr(colon + 1);
  if (!a.empty()) in.fragBegin = static_cast<std::int32_t>(parseCount(a, "--fragments"));
  if (!b.empty()) in.fragEnd = static_cast<std::uint32_t>(parseCount(b, "--fragments"));
  if (!b.empty() && in.fragEnd <= std::uint32_t(in.fragBegin))
    throw CliError(kUsage, "--fragments: the range " + range + " holds no fragment");
}

}  // namespace

RunSettings settingsFrom(const ModuleOptions& o) {
  RunSettings s;
  auto& in = s.input;
  in.MTA = o.mta == "auto" ? -1 : static_cast<std::int32_t>(parseCount(o.mta, "--mta"));
  if (!FullWaveform::modusFromName(o.mode, in.fwfModus))
    throw CliError(kUsage, "--mode: unknown mode \"" + o.mode + "\" (gaussian, fast or nowidth)");
  in.noiseLevel = o.noiseLevel;
  in.exportFWF = o.exportFWF;
  in.skipFWF = o.skipFWF;
  in.skipOnline = o.skipOnline;
  in.peakDetectionPath = o.peakSettings;
  s.refine = o.refine;
  applyFragments(o.fragments, in);
  if (o.segment != -2) {
    if (o.segment < -1 || o.segment > 1) throw CliError(kUsage, "--segment: use -1, 0 or 1");
    in.RDB_SEGMENT = o.segment;
    s.segmentGiven = true;
  }
  return s;
}

unsigned usableCores() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 0)
    return unsigned(CPU_COUNT(&allowed));
  return std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace quillo::cli
