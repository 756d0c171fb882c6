// Zone resolution accuracy on simulated surveys: for each scene the share of waves with the
// true zone, the share marked uncertain and the share repaired, against a fixed zone (the
// flight's nominal zone, the naive baseline); and waves per second of resolveMTA +
// repairUncertainMTA on one core. Also the time of each per-fragment stage.
#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <unordered_map>

#include "sim/FragmentSimulation.hpp"
#include "sim/SurveyBundle.hpp"
#include "store/WaveExtraction.hpp"
#include "zones/ResolveMTA.hpp"
#include "zones/ZoneAssignment.hpp"
#include "zones/ZoneInit.hpp"

using namespace FullWaveform;
using Clock = std::chrono::steady_clock;

namespace {

struct Tally {
  std::uint64_t waves = 0, correct = 0, uncertain = 0, repaired = 0, repairedCorrect = 0;
  double resolveSeconds = 0.0;
  std::map<std::string, double> stageSeconds;
};

double since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// True (emitting shot, zone) pairs of a fragment.
std::set<std::pair<std::uint64_t, int>> truthOf(const quillo::sim::Survey& survey,
                                                std::uint32_t f) {
  const auto d = quillo::sim::simulateFragment(survey, f);
  std::set<std::pair<std::uint64_t, int>> t;
  for (std::size_t i = 0; i < d.rowEmitter.size(); ++i) t.insert({d.rowEmitter[i], d.rowZone[i]});
  for (std::size_t i = 0; i < d.oppEmitter.size(); ++i) t.insert({d.oppEmitter[i], d.oppZone[i]});
  return t;
}

Tally evaluate(const quillo::sim::SurveyConfig& config, int fixedZone) {
  quillo::sim::Survey survey(config);
  std::unordered_map<double, std::uint64_t> shotByTime;
  for (std::uint64_t k = 0; k < config.shots; ++k) shotByTime[survey.shotTime(k)] = k;
  auto bundle = quillo::sim::surveyBundle(config);
  Input input;
  input.MTA = fixedZone;
  FatBoy<unsigned short> fb(bundle, input);
  Tally t;
  for (std::uint32_t f = 0; f < fb.nFragments; ++f) {
    auto start = Clock::now();
    if (!fb.ini(f)) continue;
    t.stageSeconds["ini"] += since(start), start = Clock::now();
    iniWavePoints(fb);
    t.stageSeconds["iniWavePoints"] += since(start), start = Clock::now();
    if (!fb.iniMTA()) continue;
    removeNearRangeWaves(fb);
    t.stageSeconds["iniMTA"] += since(start), start = Clock::now();
    std::vector<std::int32_t> before;
    if (fixedZone >= 0) {
      setFixedMTA(fb);
    } else {
      resolveMTA(fb);
      before = fb.mta;
      repairUncertainMTA(fb);
    }
    t.resolveSeconds += since(start);
    const auto truth = truthOf(survey, f);
    for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
      if (!fb.wavePoints[i]) continue;
      ++t.waves;
      auto shot = shotByTime.find(fb.getShotTime(i));
      const bool ok =
          fb.mta[i] >= 0 && shot != shotByTime.end() && truth.count({shot->second, fb.mta[i]});
      t.correct += ok;
      if (!fb.isCertainMTA(i)) {
        ++t.uncertain;
        if (!before.empty() && before[i] != fb.mta[i]) ++t.repaired, t.repairedCorrect += ok;
      }
    }
  }
  return t;
}

void row(const char* scene, const quillo::sim::SurveyConfig& c) {
  const Tally a = evaluate(c, -1);
  const int nominal = int(2.0 * c.altitude / c.lightSpeed * c.pulseRate);
  const Tally b = evaluate(c, nominal);
  std::printf(
      "%-28s %9llu  %8.3f %%  %7.3f %%  %7.3f %% (%6.2f %% right)  fixed zone %d: %8.3f %%  %6.2f "
      "M waves/s\n",
      scene, (unsigned long long)a.waves, 100.0 * a.correct / a.waves,
      100.0 * a.uncertain / a.waves, 100.0 * a.repaired / a.waves,
      a.repaired ? 100.0 * a.repairedCorrect / a.repaired : 0.0, nominal,
      100.0 * b.correct / b.waves, a.waves / a.resolveSeconds / 1e6);
  std::printf("%-28s stage seconds:", "");
  for (const auto& [stage, s] : a.stageSeconds) std::printf(" %s %.2f", stage.c_str(), s);
  std::printf(" (waves %.2f M/s through ini + iniWavePoints + iniMTA)\n",
              a.waves /
                  (a.stageSeconds.at("ini") + a.stageSeconds.at("iniWavePoints") +
                   a.stageSeconds.at("iniMTA")) /
                  1e6);
}

}  // namespace

int main() {
  std::printf("%-28s %9s  %10s  %9s  %27s\n", "scene", "waves", "true zone", "uncertain",
              "repaired");
  quillo::sim::SurveyConfig c;
  quillo::sim::presetConfig("tiny", c);
  row("tiny, line-wise", c);
  c.pattern = quillo::sim::Pattern::Radial;
  row("tiny, radial", c);
  quillo::sim::presetConfig("demo", c);
  c.shots = 400000;
  row("demo scene (400k shots)", c);
  c.altitude = 700.0;
  row("demo scene at 700 m", c);
  return 0;
}
