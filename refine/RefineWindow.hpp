// The zone refinement over a moving window of fragments, on arrays. Reads each fragment's
// shots and echoes in fragment order; refines a block of fragments once the scan lines after
// it that the rule reaches have come in, together with as many lines before it, keeps the
// block's results and lets go of what no later block needs. Memory then holds a block and its
// context whatever the strip's length. Blocks and their context are counted in scan lines, so
// the result depends on the data alone, never on when the fragments arrive.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "refine/SurfaceFit.hpp"

namespace FullWaveform {

struct WindowSettings {
  // Scan lines after a block refined along, their results dropped. A move reaches the four
  // lines each side, but moves chain over the iterations: on the 13 full-size scenes 12
  // lines leave 0 to 8 echoes of 2 to 4 million with another zone or flag than the whole
  // strip gives, 8 lines up to 13 on the demo scene, 24 lines none
  // (bench_refine --window --context N).
  int contextLines = 12;
  // Scan lines a block gathers at least (whole fragments). A block's output is held until
  // the lines after it are in; fewer lines hold less but refine the context lines more often
  // (each block refines contextLines more). 0: one block of everything (the whole strip).
  int blockLines = 30;
  // Scan lines before a block read as neighbours with their final zones (refined with the
  // block before); never judged again. They must cover the lines a judgement reads: the four
  // each side of an echo's own line and of its candidates' (bench_refine --window --settled N).
  int settledLines = 6;
};

// An echo as a fragment's output gives it: its emitting shot by GPS time.
struct WindowEcho {
  double shotTime;
  double oneWayTime;  // s, from that shot
  std::uint8_t zone;
  bool noise;
  std::uint8_t channel = 0;
  float amplitude = 0.0f;  // 0: not known
};

// One fragment's shots in time order.
struct FragmentShots {
  LargeVector<double> time;
  LargeVector<Gemwold::PhysicalSpace::point> origin;
  LargeVector<Gemwold::PhysicalSpace::vector> direction;
};

// A refined block: the window's arrays, the result, and per fragment of the block (in the
// order added) its key and, per echo given, its position in `echoes` (-1: not placed; the
// window's own array, valid while the block is handed over).
struct RefinedBlock {
  const ShotTable& table;
  const RefineEchoes& echoes;
  const RefineResult& result;
  struct Fragment {
    std::uint64_t key;
    std::span<const std::int32_t> echo;
  };
  std::vector<Fragment> fragments;
};

// Puts the shots in time order (fragments normally come in that order already).
QUILLO_API void sortByTime(ShotTable& table);
// The shot of GPS time `t`, searched from `hint` on (points come in shot order), else in
// the whole table; false when there is none.
QUILLO_API bool findShot(const LargeVector<double>& times, double t, std::uint32_t& hint);

class RefineWindow {
 public:
  RefineWindow(double lightSpeed, bool radial, const RefineSettings& settings = {},
               const WindowSettings& window = {});
  // The next fragment, in fragment order; `key` names it in the results.
  void add(std::uint64_t key, FragmentShots shots, std::vector<WindowEcho> echoes);
  // Refines every block whose look-ahead has come in (with `last`, every fragment added) and
  // hands each to `apply`, in fragment order. Returns the number of fragments handed over.
  std::size_t refineReady(bool last, const std::function<void(const RefinedBlock&)>& apply);
  // Fragments held (their shots and echoes), for memory checks.
  std::size_t held() const { return held_.size(); }

 private:
  struct Held {
    std::uint64_t key;
    std::uint64_t firstShot;  // position of its first shot in the strip
    std::uint64_t shotCount;  // its shots are in `strip_`
    std::vector<WindowEcho> echoes;
    std::vector<std::uint64_t> lineStarts;  // strip positions of the lines starting in it
    // Per echo, what the last block's along-line tests found of it as context (none: empty).
    std::vector<std::uint8_t> alongState;
    std::vector<std::uint16_t> alongSpan;
    std::vector<std::uint32_t> alongZones;
    std::vector<std::uint8_t> verdict, judgedZone, moveTo;  // its first verdict likewise
    bool done = false;
  };
  struct Span {
    std::size_t blockEnd;      // held_ index after the block's last fragment
    std::uint64_t first, end;  // strip positions of the window's shots
  };
  bool nextSpan(bool last, Span& span) const;
  void refineSpan(const Span& span, const std::function<void(const RefinedBlock&)>& apply);
  static void settle(Held& h, const std::vector<std::int32_t>& at, const ShotTable& table,
                     const RefineEchoes& echoes, const RefineResult& result);
  void carryIn(const Held& h, const std::vector<std::int32_t>& at);
  void carryOut(Held& h, const std::vector<std::int32_t>& at) const;
  void dropBefore(std::uint64_t position);
  void eraseStripBefore(std::uint64_t position);
  void trimStrip(const Span& span);
  void restoreStrip();
  std::vector<std::uint64_t> lineStarts() const;

  double lightSpeed_;
  bool radial_;
  RefineSettings settings_;
  WindowSettings window_;
  std::vector<Held> held_;
  // The shots from the last block's first on, with their scan angles (worked out once, read
  // by every block): a block is refined on them in place, its look-ahead's tail set aside in
  // `tail_` meanwhile, so the shots are held once, not again as a block's copy.
  ShotTable strip_, tail_;
  std::uint64_t stripFirst_ = 0;  // strip position of strip_'s first shot
  RefineEchoes echoes_;           // the last block's echoes, their memory kept for the next
  RefineScratch scratch_;         // the refiner's arrays, kept for the next block likewise
  // The along-line findings given to a block (by its echoes) and those it found.
  AlongLineMemo given_, found_;
  FirstVerdicts givenVerdicts_, foundVerdicts_;
  // Per held fragment, its echoes' positions in the block's arrays (a block holds far fewer
  // than 2^31 echoes).
  std::vector<std::vector<std::int32_t>> at_;
  std::uint64_t shotsSeen_ = 0;
  double lastAngle_ = 0.0;
  Gemwold::PhysicalSpace::point lastOrigin_{};
};

}  // namespace FullWaveform
