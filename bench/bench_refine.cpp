// The zone refinement alone, on stored arrays. `--dump DIR` runs scenes of sim/Scenes through
// the module and stores, per scene, the arrays the refinement works on (each echo's channel and
// amplitude among them) with each echo's true zone and target (DIR/NAME.refine; a dump of the
// older format, without amplitudes, is refused: store it again); given such files it refines them
// (best of --repeat runs) and prints its time beside the module's, the points it moved, fixed and
// broke, and a hash of every echo's new zone and flag (a rework of the stage must leave it
// unchanged). Surface points it classified as noise are counted apart, with how many of them had
// the right zone.
// --broken lists the right points it moved, --marked the right surface points it made noise.
// --save DIR writes each result (every echo's new zone, then its flag) to DIR/NAME.result.
//   bench_refine --dump DIR [--small] [--shots N] [NAME-PART]
//   bench_refine [--repeat N] [--threads N] [--broken] [--marked] [--save DIR]
//                [--window [--context L] [--settled L] [--block L] [--fragment-shots N]] FILE...
// --threads: threads that judge the echoes (the result is the same for any number).
// With --window the arrays are cut into fragments of N shots (by recording shot; default
// 100,000 as the scenes' surveys) and refined over the moving window as `quillo run` does;
// it prints the figures of the windowed result and how many echoes got another zone or flag
// than over the whole strip.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "output/PointGeometry.hpp"
#include "refine/RefineWindow.hpp"
#include "refine/SurfaceFit.hpp"
#include "sim/Scenes.hpp"
#include "support/SceneRun.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;
using FullWaveform::RefineEcho;
using FullWaveform::ShotTable;

namespace {

constexpr std::uint32_t kMagic = 0x51524633;     // "QRF3": with each echo's channel and amplitude
constexpr std::uint32_t kOldMagic = 0x51524632;  // "QRF2": without them
constexpr std::int8_t kUntraced = -1;

struct Stored {
  ShotTable shots;
  FullWaveform::RefineEchoes echoes;
  std::vector<std::int8_t> trueZone;  // kUntraced where the echo traces to no truth
  std::vector<std::uint8_t> target;
  // Another echo of another zone at the same arrival (one return), else kUntraced: the echo is
  // right in either zone, as the scorer judges it.
  std::vector<std::int8_t> otherZone;
  std::vector<std::uint8_t> otherTarget;
  double runSeconds = 0.0;

  bool rightIn(std::size_t i, std::uint8_t zone) const {
    return trueZone[i] == zone || otherZone[i] == zone;
  }
  std::uint8_t targetIn(std::size_t i, std::uint8_t zone) const {
    return otherZone[i] == zone ? otherTarget[i] : target[i];
  }
};

template <class T>
void put(std::ofstream& out, const T& v) {
  out.write(reinterpret_cast<const char*>(&v), sizeof v);
}
template <class V>
void putAll(std::ofstream& out, const V& v) {
  out.write(reinterpret_cast<const char*>(v.data()),
            std::streamsize(v.size() * sizeof(typename V::value_type)));
}
template <class T>
void get(std::ifstream& in, T& v) {
  in.read(reinterpret_cast<char*>(&v), sizeof v);
}
template <class V>
void getAll(std::ifstream& in, V& v, std::size_t n) {
  v.resize(n);
  in.read(reinterpret_cast<char*>(v.data()), std::streamsize(n * sizeof(typename V::value_type)));
}

bool save(const Stored& s, const std::string& file) {
  std::ofstream out(file, std::ios::binary);
  put(out, kMagic);
  put(out, std::uint64_t(s.shots.time.size()));
  put(out, std::uint64_t(s.echoes.size()));
  put(out, s.shots.lightSpeed);
  put(out, std::uint8_t(s.shots.radial));
  put(out, s.runSeconds);
  putAll(out, s.shots.time);
  putAll(out, s.shots.origin);
  putAll(out, s.shots.direction);
  for (const RefineEcho& e : s.echoes) {
    put(out, e.emitter);
    put(out, e.oneWayTime);
    put(out, e.zone);
    put(out, std::uint8_t(e.noise));
    put(out, e.channel);
    put(out, e.amplitude);
  }
  putAll(out, s.trueZone);
  putAll(out, s.target);
  putAll(out, s.otherZone);
  putAll(out, s.otherTarget);
  return bool(out);
}

// Empty on success, else what is wrong with the file.
std::string load(const std::string& file, Stored& s) {
  std::ifstream in(file, std::ios::binary);
  std::uint32_t magic = 0;
  std::uint64_t shots = 0, echoes = 0;
  std::uint8_t radial = 0;
  get(in, magic);
  if (in && magic == kOldMagic)
    return "an older dump without the echoes' amplitudes and channels: store it again with "
           "--dump";
  if (!in || magic != kMagic) return "not a stored refinement input";
  get(in, shots), get(in, echoes), get(in, s.shots.lightSpeed), get(in, radial);
  get(in, s.runSeconds);
  s.shots.radial = radial != 0;
  getAll(in, s.shots.time, shots);
  getAll(in, s.shots.origin, shots);
  getAll(in, s.shots.direction, shots);
  s.echoes.resize(echoes);
  for (RefineEcho& e : s.echoes) {
    std::uint8_t noise = 0;
    get(in, e.emitter), get(in, e.oneWayTime), get(in, e.zone), get(in, noise);
    get(in, e.channel), get(in, e.amplitude);
    e.noise = noise != 0;
  }
  getAll(in, s.trueZone, echoes);
  getAll(in, s.target, echoes);
  getAll(in, s.otherZone, echoes);
  getAll(in, s.otherTarget, echoes);
  return in ? "" : "the stored refinement input is cut short";
}

std::string fileName(std::string name) {
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name.substr(0, 40) + ".refine";
}

int dump(int argc, char** argv) {
  const std::string dir = argv[2];
  SceneSize size = SceneSize::Full;
  std::uint64_t shots = 0;
  std::string only;
  for (int i = 3; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--small"))
      size = SceneSize::Small;
    else if (!std::strcmp(argv[i], "--shots") && i + 1 < argc)
      shots = std::strtoull(argv[++i], nullptr, 10);
    else
      only = argv[i];
  }
  std::filesystem::create_directories(dir);
  quillo::test::TempDir temp;
  for (Scene& scene : zoneScenes(size)) {
    if (!only.empty() && scene.name.find(only) == std::string::npos) continue;
    if (shots) scene.config.shots = shots;
    Stored s;
    std::string error;
    const auto keep = [&](Tessal::BundlePtr& input,
                          const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                          const ZoneScorer& scorer) {
      error = FullWaveform::refinementArrays(input, outputs, s.shots, s.echoes);
      for (const RefineEcho& e : s.echoes) {
        const ScoredPoint p{s.shots.time[e.emitter], e.oneWayTime * s.shots.lightSpeed, e.zone,
                            std::uint8_t(e.noise ? 7 : 1)};
        const std::vector<const TruthEcho*> at = scorer.echoesAt(p);
        const TruthEcho* t = at.empty() ? nullptr : at.front();
        const auto other = std::find_if(at.begin(), at.end(),
                                        [&](const TruthEcho* o) { return o->zone != t->zone; });
        s.trueZone.push_back(t ? std::int8_t(t->zone) : kUntraced);
        s.target.push_back(t ? std::uint8_t(t->target) : std::uint8_t(0));
        s.otherZone.push_back(other != at.end() ? std::int8_t((*other)->zone) : kUntraced);
        s.otherTarget.push_back(other != at.end() ? std::uint8_t((*other)->target) : 0);
      }
    };
    const auto result = quillo::test::runScene(scene.config, temp.path().string(), false, keep);
    s.runSeconds = result.runSeconds;
    const std::string file = (std::filesystem::path(dir) / fileName(scene.name)).string();
    if (!error.empty() || !save(s, file)) {
      std::fprintf(stderr, "%s: %s\n", scene.name.c_str(),
                   error.empty() ? "cannot write" : error.c_str());
      return 1;
    }
    std::printf("%-40s %9zu echoes, run %.1f s -> %s\n", scene.name.c_str(), s.echoes.size(),
                result.runSeconds, file.c_str());
    std::fflush(stdout);
  }
  return 0;
}

bool isOffSurface(std::uint8_t target) {
  return Target(target) == Target::Bird || Target(target) == Target::Dust;
}

double scanAngle(const ShotTable& t, std::size_t s) {
  const auto& d = t.direction[s];
  double a = t.radial ? std::atan2(d.y, d.x) : std::atan2(d.x, d.z);
  return a <= 0.0 ? a + 2 * 3.141592653589793 : a;
}

// Per broken echo (or, with `marked`, per right surface echo made noise): where it lies in its scan
// line, and how many echoes of the same scan angle (+-0.3 degree) in the four lines either side
// were wrong before the refinement.
void printBroken(const Stored& s, const FullWaveform::RefineResult& r, bool marked) {
  const std::size_t shots = s.shots.time.size();
  std::vector<std::uint32_t> line(shots, 0), lineStart{0};
  for (std::size_t k = 1; k < shots; ++k) {
    const bool jump = std::abs(scanAngle(s.shots, k) - scanAngle(s.shots, k - 1)) > 0.785;
    line[k] = line[k - 1] + jump;
    if (jump) lineStart.push_back(std::uint32_t(k));
  }
  lineStart.push_back(std::uint32_t(shots));
  std::vector<std::vector<std::uint32_t>> byShot(shots);
  for (std::uint32_t i = 0; i < s.echoes.size(); ++i) byShot[s.echoes[i].emitter].push_back(i);
  for (std::size_t i = 0; i < s.echoes.size(); ++i) {
    const bool rightMarked = !isOffSurface(s.targetIn(i, r.zone[i])) && s.rightIn(i, r.zone[i]) &&
                             !s.echoes[i].noise && (r.flag[i] & FullWaveform::kMarkedNoise);
    if (marked ? !rightMarked : (!s.rightIn(i, s.echoes[i].zone) || r.zone[i] == s.echoes[i].zone))
      continue;
    const std::uint32_t e = s.echoes[i].emitter, l = line[e];
    const double a = scanAngle(s.shots, e);
    int around = 0, wrong = 0, wrongAfter = 0;
    for (std::uint32_t m = l >= 4 ? l - 4 : 0; m <= l + 4 && m + 1 < lineStart.size(); ++m)
      for (std::uint32_t k = lineStart[m]; k < lineStart[m + 1]; ++k)
        if (m != l && std::abs(scanAngle(s.shots, k) - a) < 0.3 * 3.14159 / 180)
          for (const std::uint32_t j : byShot[k]) {
            if (s.echoes[j].noise) continue;
            ++around;
            wrong += !s.rightIn(j, s.echoes[j].zone);
            wrongAfter += !s.rightIn(j, r.zone[j]);
          }
    std::printf(
        "  %s %zu shot %u line %u at %u of %u zone %d -> %d (%s; its own echo %s) flag %d; "
        "channel %d amplitude %.1f; around %d, wrong %d, after %d\n",
        marked ? "marked" : "broken", i, e, l, e - lineStart[l], lineStart[l + 1] - lineStart[l],
        s.echoes[i].zone, r.zone[i], targetName(Target(s.targetIn(i, r.zone[i]))),
        targetName(Target(s.target[i])), r.flag[i], s.echoes[i].channel, s.echoes[i].amplitude,
        around, wrong, wrongAfter);
  }
}

// FNV-1a over every echo's zone and flag: a rework of the stage must leave it unchanged.
std::uint64_t resultHash(const FullWaveform::RefineResult& r) {
  std::uint64_t h = 1469598103934665603ull;
  for (std::size_t i = 0; i < r.zone.size(); ++i)
    for (const std::uint8_t b : {r.zone[i], r.flag[i]}) h = (h ^ b) * 1099511628211ull;
  return h;
}

void report(const std::string& file, const Stored& s, const FullWaveform::RefineResult& r,
            double seconds, double cpuSeconds) {
  std::uint64_t right = 0, fixed = 0, broken = 0, notNoise = 0, wrongBefore = 0, wrongAfter = 0,
                offSurface = 0, offMarked = 0, notNoiseBefore = 0, surfaceMarked = 0,
                rightMarked = 0;
  for (std::size_t i = 0; i < s.echoes.size(); ++i) {
    const bool wasRight = s.rightIn(i, s.echoes[i].zone), isRight = s.rightIn(i, r.zone[i]);
    const bool noise = s.echoes[i].noise || (r.flag[i] & FullWaveform::kMarkedNoise);
    right += wasRight, fixed += !wasRight && isRight, broken += wasRight && !isRight;
    notNoiseBefore += !s.echoes[i].noise, wrongBefore += !s.echoes[i].noise && !wasRight;
    notNoise += !noise, wrongAfter += !noise && !isRight;
    if (s.trueZone[i] != kUntraced && isOffSurface(s.targetIn(i, r.zone[i])))
      ++offSurface, offMarked += noise;
    else if (!s.echoes[i].noise && (r.flag[i] & FullWaveform::kMarkedNoise))
      ++surfaceMarked, rightMarked += isRight;
  }
  std::printf(
      "%-40s wrong/!7 %.3f %% -> %.4f %%  moved %llu fixed %llu broken %llu (%.2f per 100,000)  "
      "noise %llu (off-surface %.1f %%, surface %llu of which right %llu)  refine %.2f s (cpu %.2f "
      "s) / run %.1f s  result %016llx\n",
      std::filesystem::path(file).stem().c_str(),
      100.0 * double(wrongBefore) / double(notNoiseBefore),
      100.0 * double(wrongAfter) / double(notNoise), (unsigned long long)r.moved,
      (unsigned long long)fixed, (unsigned long long)broken, 1e5 * double(broken) / double(right),
      (unsigned long long)r.markedNoise,
      offSurface ? 100.0 * double(offMarked) / double(offSurface) : 0.0,
      (unsigned long long)surfaceMarked, (unsigned long long)rightMarked, seconds, cpuSeconds,
      s.runSeconds, (unsigned long long)resultHash(r));
  std::fflush(stdout);
}

struct WindowRun {
  FullWaveform::WindowSettings window;
  std::uint32_t fragmentShots = 100000;
  std::size_t mostHeld = 0;  // fragments held at once
  std::size_t blocks = 0;
};

// Feeds the stored arrays fragment by fragment through the window, refining what is ready
// after each, as a run does.
FullWaveform::RefineResult refineWindowed(const Stored& s, const FullWaveform::RefineSettings& set,
                                          WindowRun& w) {
  const ShotTable& t = s.shots;
  const std::size_t shots = t.time.size(), per = w.fragmentShots;
  const std::size_t count = (shots + per - 1) / per;
  std::vector<std::vector<std::uint32_t>> members(count);
  for (std::uint32_t i = 0; i < s.echoes.size(); ++i)
    members[std::min<std::size_t>((s.echoes[i].emitter + s.echoes[i].zone) / per, count - 1)]
        .push_back(i);
  FullWaveform::RefineResult r;
  for (const RefineEcho& e : s.echoes) r.zone.push_back(e.zone);
  r.flag.assign(s.echoes.size(), FullWaveform::kUntouched);
  FullWaveform::RefineWindow window(t.lightSpeed, t.radial, set, w.window);
  const auto apply = [&](const FullWaveform::RefinedBlock& b) {
    ++w.blocks;
    for (const auto& f : b.fragments)
      for (std::size_t j = 0; j < f.echo.size(); ++j) {
        if (f.echo[j] < 0) continue;
        const std::uint32_t i = members[f.key][j];
        const auto k = std::size_t(f.echo[j]);
        r.zone[i] = b.result.zone[k], r.flag[i] = b.result.flag[k];
        r.moved += (b.result.flag[k] & FullWaveform::kMovedZone) != 0;
        r.markedNoise += (b.result.flag[k] & FullWaveform::kMarkedNoise) != 0;
      }
  };
  for (std::size_t f = 0; f < count; ++f) {
    FullWaveform::FragmentShots fs;
    const std::size_t lo = f * per, hi = std::min(shots, lo + per);
    fs.time.assign(t.time.begin() + lo, t.time.begin() + hi);
    fs.origin.assign(t.origin.begin() + lo, t.origin.begin() + hi);
    fs.direction.assign(t.direction.begin() + lo, t.direction.begin() + hi);
    std::vector<FullWaveform::WindowEcho> echoes;
    for (const std::uint32_t i : members[f]) {
      const RefineEcho& e = s.echoes[i];
      echoes.push_back({t.time[e.emitter], e.oneWayTime, e.zone, e.noise, e.channel, e.amplitude});
    }
    window.add(f, std::move(fs), std::move(echoes));
    w.mostHeld = std::max(w.mostHeld, window.held());
    window.refineReady(false, apply);
  }
  window.refineReady(true, apply);
  return r;
}

std::size_t differing(const FullWaveform::RefineResult& a, const FullWaveform::RefineResult& b) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < a.zone.size(); ++i)
    n += a.zone[i] != b.zone[i] || a.flag[i] != b.flag[i];
  return n;
}

// Every echo's new zone, then its flag (one byte each), for studying a result beside the input.
bool saveResult(const FullWaveform::RefineResult& r, const std::string& dir,
                const std::string& file) {
  std::filesystem::create_directories(dir);
  std::ofstream out(
      std::filesystem::path(dir) / (std::filesystem::path(file).stem().string() + ".result"),
      std::ios::binary);
  putAll(out, r.zone);
  putAll(out, r.flag);
  return bool(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && !std::strcmp(argv[1], "--dump")) return dump(argc, argv);
  int repeat = 1;
  bool broken = false, marked = false, windowed = false;
  std::string saveDir;
  WindowRun w;
  FullWaveform::RefineSettings settings;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--repeat") && i + 1 < argc)
      repeat = std::max(1, std::atoi(argv[++i]));
    else if (!std::strcmp(argv[i], "--set") && i + 2 < argc) {
      const std::string name = argv[++i];
      const double value = std::atof(argv[++i]);
      if (name == "offShare")
        settings.offShare = value;
      else if (name == "onShare")
        settings.onShare = value;
      else if (name == "moveMargin")
        settings.moveMargin = int(value);
      else if (name == "contestedMiss")
        settings.contestedMiss = int(value);
      else if (name == "iterations")
        settings.iterations = int(value);
      else if (name == "outnumberedShare")
        settings.outnumberedShare = value;
      else if (name == "outnumberedSupport")
        settings.outnumberedSupport = value;
      else if (name == "chanceSupport")
        settings.chanceSupport = value;
      else if (name == "singleChanceSupport")
        settings.singleChanceSupport = value;
      else if (name == "edgeSupport")
        settings.edgeSupport = value;
      else if (name == "zeroReachesAll")
        settings.zeroReachesAll = value != 0.0;
      else if (name == "zoneReach")
        settings.zoneReach = int(value);
      else if (name == "loneLines")
        settings.loneLines = int(value);
      else if (name == "secondEchoMin")
        settings.secondEchoMin = value;
      else if (name == "secondEchoSpread")
        settings.secondEchoSpread = value;
      else if (name == "secondEchoMax")
        settings.secondEchoMax = value;
      else if (name == "ownLineNearShots")
        settings.ownLineNearShots = int(value);
      else if (name == "ownLineBand")
        settings.ownLineBand = value;
      else if (name == "acrossChannels")
        settings.acrossChannels = value != 0.0;
      else if (name == "brightRatio")
        settings.brightRatio = value;
      else if (name == "matchRatio")
        settings.matchRatio = value;
      else if (name == "runMinEchoes")
        settings.runMinEchoes = int(value);
      else if (name == "runShotReach")
        settings.runShotReach = int(value);
      else if (name == "runTolerance")
        settings.runTolerance = value;
      else if (name == "runPairs")
        settings.runPairs = int(value);
      else if (name == "lineEndEchoes")
        settings.lineEndEchoes = int(value);
      else if (name == "sparseLines")
        settings.sparseLines = int(value);
      else if (name == "sparseSupport")
        settings.sparseSupport = value;
      else if (name == "runShare")
        settings.runShare = value;
      else
        return std::fprintf(stderr, "unknown setting %s\n", name.c_str()), 2;
    } else if (!std::strcmp(argv[i], "--broken"))
      broken = true;
    else if (!std::strcmp(argv[i], "--marked"))
      marked = true;
    else if (!std::strcmp(argv[i], "--window"))
      windowed = true;
    else if (!std::strcmp(argv[i], "--save") && i + 1 < argc)
      saveDir = argv[++i];
    else if (!std::strcmp(argv[i], "--threads") && i + 1 < argc)
      settings.threads = unsigned(std::max(1, std::atoi(argv[++i])));
    else if (!std::strcmp(argv[i], "--context") && i + 1 < argc)
      w.window.contextLines = std::atoi(argv[++i]);
    else if (!std::strcmp(argv[i], "--settled") && i + 1 < argc)
      w.window.settledLines = std::atoi(argv[++i]);
    else if (!std::strcmp(argv[i], "--block") && i + 1 < argc)
      w.window.blockLines = std::atoi(argv[++i]);
    else if (!std::strcmp(argv[i], "--fragment-shots") && i + 1 < argc)
      w.fragmentShots = std::uint32_t(std::max(1, std::atoi(argv[++i])));
    else
      files.push_back(argv[i]);
  }
  if (files.empty()) {
    std::fprintf(
        stderr,
        "usage: bench_refine --dump DIR [--small] [--shots N] [NAME-PART]\n"
        "       bench_refine [--repeat N] [--threads N] [--broken] [--marked] [--save DIR] "
        "[--window [--context L] [--settled L] "
        "[--block L] [--fragment-shots N]] FILE...\n");
    return 2;
  }
  for (const std::string& file : files) {
    Stored s;
    if (const std::string problem = load(file, s); !problem.empty()) {
      std::fprintf(stderr, "%s: %s\n", file.c_str(), problem.c_str());
      return 1;
    }
    FullWaveform::RefineResult r;
    double best = 1e30, bestCpu = 1e30;
    for (int k = 0; k < repeat; ++k) {
      const auto start = std::chrono::steady_clock::now();
      const std::clock_t cpu = std::clock();
      r = FullWaveform::refineEchoZones(s.shots, s.echoes, settings);
      bestCpu = std::min(bestCpu, double(std::clock() - cpu) / CLOCKS_PER_SEC);
      best = std::min(
          best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    report(file, s, r, best, bestCpu);
    if (windowed) {
      const auto start = std::chrono::steady_clock::now();
      const std::clock_t cpu = std::clock();
      const FullWaveform::RefineResult wr = refineWindowed(s, settings, w);
      const double cpuSeconds = double(std::clock() - cpu) / CLOCKS_PER_SEC;
      report("  windowed", s, wr,
             std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
             cpuSeconds);
      std::printf(
          "  windowed: %zu blocks, at most %zu fragments held; %zu echoes differ from "
          "the whole strip's result\n",
          w.blocks, w.mostHeld, differing(r, wr));
      w.blocks = w.mostHeld = 0;
      r = wr;
    }
    if (broken || marked) printBroken(s, r, marked);
    if (!saveDir.empty() && !saveResult(r, saveDir, file)) {
      std::fprintf(stderr, "%s: cannot write the result to %s\n", file.c_str(), saveDir.c_str());
      return 1;
    }
  }
  return 0;
}
