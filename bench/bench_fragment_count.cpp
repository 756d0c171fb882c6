// Cost per fragment: the same simulated survey cut into few and into many fragments, each run
// end to end by `quillo run` (one input, fast mode unless told otherwise); prints the waves per
// second of each and their ratio. A run whose bookkeeping walks every fragment per fragment
// falls far behind with many fragments.
// The runs leave out the zone refinement (the work the module does alone) unless --refine.
// Both cuts are written and flushed to disk before any run is timed (the write-back of a file
// just written competes with the run for the cores); the runs alternate, few then many, for
// --repeat rounds, and each cut's fastest counts. With --progress the runs draw their progress
// (into a file, as a run whose output is redirected does), which reports every fragment.
// With --keep the cuts stay in their folder (printed), e.g. for a profiler.
//   bench_fragment_count [SHOTS] [FEW] [MANY] [MODE] [--threads N] [--refine] [--repeat N]
//                        [--progress] [--keep]
//   (default: 1000000 20 5000 fast, the run's default threads, 2 rounds)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include <unistd.h>

#include "sim/SurveyBundle.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/Schema.hpp"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct RunFigures {
  double seconds = 0.0;
  std::uint64_t waves = 0, points = 0;
};

// Waveform rows and online records of the input, from the file's structure alone.
std::uint64_t wavesIn(const std::string& file) {
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), bundle);
  double t = 0.0;
  auto slice = ok ? (*bundle.get())(t) : nullptr;
  std::uint64_t waves = 0;
  for (const char* gridName : {Tessal::schema::kWaveformsGrid, Tessal::schema::kOnlineGrid}) {
    auto grid = slice ? (*slice)(gridName) : nullptr;
    auto field = grid ? (*grid)(Tessal::schema::kGPSTime, "") : nullptr;
    if (!field) continue;
    auto ids = field->getFragmentIDCollection();
    for (std::size_t f = 0; f < ids->size(); ++f)
      waves += field->getCreator(ids->at(f))->extents()[0];
  }
  return waves;
}

std::uint64_t pointsInReport(const fs::path& report) {
  std::ifstream in(report);
  const auto json = nlohmann::json::parse(in, nullptr, false);
  std::uint64_t points = 0;
  if (json.is_discarded()) return 0;
  for (const auto& run : json["runs"])
    for (const auto& output : run["outputs"]) points += output["points"].get<std::uint64_t>();
  return points;
}

struct Settings {
  std::uint64_t shots = 1000000;
  std::uint32_t few = 20, many = 5000;
  std::string mode = "fast";
  std::string threads;  // empty: the run's default
  bool refine = false;
  bool progress = false;  // draw the progress bar (to a file) rather than run --quiet
  bool keep = false;      // leave the cuts on disk
  int repeat = 2;
};

constexpr const char* kUsage =
    "usage: bench_fragment_count [SHOTS] [FEW] [MANY] [fast|gaussian] [--threads N] [--refine]\n"
    "                            [--repeat N] [--progress] [--keep]\n"
    "  defaults: 1000000 20 5000 fast, the run's default threads, 2 rounds\n";

[[noreturn]] void usageError(const std::string& what) {
  std::fprintf(stderr, "bench_fragment_count: %s\n%s", what.c_str(), kUsage);
  std::exit(2);
}

// A whole positive number, or a usage error naming the setting.
unsigned long long positiveNumber(const std::string& text, const char* name) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || value == 0)
    usageError(std::string(name) + " must be a whole number above 0, not \"" + text + "\"");
  return value;
}

void checkSettings(const Settings& s) {
  if (s.mode != "fast" && s.mode != "gaussian")
    usageError("the mode must be fast or gaussian, not \"" + s.mode + "\"");
  if (s.few > s.shots || s.many > s.shots)
    usageError("cannot cut " + std::to_string(s.shots) + " shots into " +
               std::to_string(std::max(s.few, s.many)) + " fragments");
}

// Positional settings in their order; the options anywhere. Bad settings end the bench with
// its usage.
Settings parse(int argc, char** argv) {
  Settings s;
  int position = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::printf("%s", kUsage);
      std::exit(0);
    }
    if (arg == "--threads" && i + 1 < argc) {
      s.threads = std::to_string(positiveNumber(argv[++i], "--threads"));
      continue;
    }
    if (arg == "--repeat" && i + 1 < argc) {
      s.repeat = int(std::min(positiveNumber(argv[++i], "--repeat"), 1000ull));
      continue;
    }
    if (arg == "--refine" || arg == "--progress" || arg == "--keep") {
      (arg == "--refine" ? s.refine : arg == "--progress" ? s.progress : s.keep) = true;
      continue;
    }
    if (arg.rfind("--", 0) == 0) usageError("unknown option or missing value: " + arg);
    switch (position++) {
      case 0:
        s.shots = positiveNumber(arg, "SHOTS");
        break;
      case 1:
        s.few = std::uint32_t(std::min(positiveNumber(arg, "FEW"), 1ull << 31));
        break;
      case 2:
        s.many = std::uint32_t(std::min(positiveNumber(arg, "MANY"), 1ull << 31));
        break;
      case 3:
        s.mode = arg;
        break;
      default:
        usageError("too many settings: " + arg);
    }
  }
  checkSettings(s);
  return s;
}

fs::path inputOf(const fs::path& dir, std::uint32_t fragments) {
  return dir / ("cut" + std::to_string(fragments) + "_210315_093000.kq");
}

bool writeCut(const fs::path& dir, std::uint32_t fragments, const Settings& settings,
              RunFigures& figures) {
  const fs::path input = inputOf(dir, fragments);
  quillo::sim::SurveyConfig config;
  quillo::sim::presetConfig("demo", config);
  config.shots = settings.shots;
  config.fragmentShots = std::uint32_t((settings.shots + fragments - 1) / fragments);
  if (const auto error = quillo::sim::writeSurvey(config, input.string()); !error.empty())
    return std::fprintf(stderr, "%s\n", error.c_str()), false;
  figures.waves = wavesIn(input.string());
  return true;
}

// One timed run of a cut; keeps the fastest in `figures`.
bool runOnce(const fs::path& dir, std::uint32_t fragments, const Settings& settings,
             RunFigures& figures) {
  const fs::path input = inputOf(dir, fragments);
  const fs::path out = dir / ("out" + std::to_string(fragments)), report = out / "run.json";
  const std::string threads = settings.threads.empty() ? "" : " --threads " + settings.threads;
  // The bar's lines go to a file; without --progress the run's messages stay on the terminal.
  const std::string barOrQuiet =
      settings.progress ? " 2>" + (dir / "progress.txt").string() + " " : " --quiet ";
  const std::string command =
      std::string(QUILLO_CLI) + " run" + barOrQuiet + "--mode " + settings.mode + threads +
      (settings.refine ? " --refine" : " --no-refine") + " --out-dir " + out.string() +
      " --report " + report.string() + " " + input.string() + " >/dev/null";
  const auto start = Clock::now();
  if (std::system(command.c_str()) != 0)
    return std::fprintf(stderr, "failed: %s\n", command.c_str()), false;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (figures.seconds == 0.0 || seconds < figures.seconds) figures.seconds = seconds;
  figures.points = pointsInReport(report);
  fs::remove_all(out);
  ::sync();  // the outputs' write-back must not fall into the next run
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = parse(argc, argv);
  const std::uint32_t few = settings.few, many = settings.many;
  const fs::path dir =
      fs::temp_directory_path() / ("bench_fragment_count_" + std::to_string(getpid()));
  fs::create_directories(dir);
  RunFigures figures[2];
  const std::uint32_t counts[2] = {few, many};
  for (int i = 0; i < 2; ++i)
    if (!writeCut(dir, counts[i], settings, figures[i])) return fs::remove_all(dir), 1;
  ::sync();
  for (int round = 0; round < settings.repeat; ++round)
    for (int i = 0; i < 2; ++i)
      if (!runOnce(dir, counts[i], settings, figures[i])) return fs::remove_all(dir), 1;
  for (int i = 0; i < 2; ++i)
    std::printf("%6u fragments: %.2f s, %llu waves, %llu points, %.0f k waves/s\n", counts[i],
                figures[i].seconds, (unsigned long long)figures[i].waves,
                (unsigned long long)figures[i].points, figures[i].waves / figures[i].seconds / 1e3);
  if (settings.keep)
    std::printf("cuts kept in %s\n", dir.string().c_str());
  else
    fs::remove_all(dir);
  const double ratio =
      (figures[1].waves / figures[1].seconds) / (figures[0].waves / figures[0].seconds);
  std::printf(
      "%u fragments run at %.0f %% of the speed of %u (%s mode, %llu shots, %s threads, best of "
      "%d)\n",
      many, 100.0 * ratio, few, settings.mode.c_str(), (unsigned long long)settings.shots,
      settings.threads.empty() ? "default" : settings.threads.c_str(), settings.repeat);
  return 0;
}
