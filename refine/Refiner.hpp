// The surface-continuity refiner shared by its two files: the fit test and the judgement
// (SurfaceFit.cpp), the placement of the neighbours in cells and the iterations of moves
// (RefineIterations.cpp). Internal to the refinement.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "output/PointGeometry.hpp"
#include "refine/LargeArrays.hpp"
#include "refine/ScanLines.hpp"
#include "refine/SurfaceFit.hpp"

namespace FullWaveform::surface_fit {

using Gemwold::PhysicalSpace::point;

constexpr int kMinLinesToJudge = 3;  // fewer lines with echoes nearby: too little to judge
constexpr int kStraddleShots = 2;    // shots either side of a line change: no neighbour
constexpr int kBlockReach = 1;       // a wrong block: its own line and at most one each side
constexpr int kSurfaceBeyond = 2;    // lines each side of a wrong block that must fit the move
constexpr int kFarthestBin = 10;     // bins searched each side where the near ones hold none
constexpr int kRunSamples = 8;       // echoes along a line an echo's continuity is tested on

// An echo along its line under one assignment of zones: its emitting shot and range.
struct RunSample {
  std::int64_t shot;
  double range;
};

// An echo under one assignment of zones as the along-line test reads it: its emitting shot,
// that shot's scan line (kNotPlaced where the shot is not in the table or the echo would be
// nearer than the run accepts) and its range.
struct AlongPlacement {
  static constexpr std::uint32_t kNotPlaced = 0xffffffffu;
  std::int64_t shot;
  double range;
  std::uint32_t line;
};

// The echoes along a line an echo's continuity is tested on, by field: shots as doubles
// (exact: shot indices are far below 2^53, and so their differences), with a spare slot
// for the last pair of lanes (any value).
struct RunOthers {
  alignas(16) double shot[kRunSamples + 1];
  alignas(16) double range[kRunSamples + 1];
  int count = 0;
};
// Whether an echo at `selfShot` and `selfRange` lies within `tolerance` of the straight
// line through the ranges of at least `needed` (>= 1) pairs of `others` of two shots
// (refine/AlongLineRuns.cpp).
bool continuesPairs(double selfShot, double selfRange, const RunOthers& others, double tolerance,
                    int needed);

// An echo at one shot it may come from (line-end fans).
struct FanSample {
  std::int64_t shot;
  double range;
  std::uint32_t echo;
};

template <class A>
inline double squared(const A& a, const A& b) {
  const double dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

// A neighbour as the fit test reads it: its position, range, scan angle and emitting shot;
// stored by cell so that a line's adjacent bins are contiguous.
struct Neighbour {
  point position;
  double reach;
  float angle;
  std::uint32_t echo, emitter;
};

// What bounds the fit test's tolerance for every neighbour of a cell: the spread of their
// shots' origins and directions around the first one's, and their farthest range.
struct CellReach {
  point origin{};
  Gemwold::PhysicalSpace::vector direction{};
  double originRadius = 0.0, directionRadius = 0.0, reach = 0.0;
};

// A neighbour as the amplitude tests read it (beside its record, by the same index): its
// channel and amplitude, 0 where its amplitude tells nothing. Read in cell order, they spare
// those tests a load from the echoes for every neighbour.
struct Tone {
  float amplitude;
  std::uint8_t channel;
};

// The neighbours of each cell, placed with their current zones.
struct Placement {
  LargeVector<std::uint32_t> start, fill;  // cell c holds members[start[c], start[c+1])
  LargeVector<Neighbour> members;
  LargeVector<Tone> tones;       // per member, for the final neighbourhood only (toneMembers)
  LargeVector<CellReach> reach;  // per cell
  // One line's neighbours while it is sorted again: those that stay and those that join.
  std::vector<Neighbour> line, joining;
};

// Cells in line order, a cell's neighbours in scan-angle order.
inline bool byCellAndAngle(const Neighbour& a, const Neighbour& b, const ShotCells& cells) {
  const std::int32_t binA = cells.bin[a.emitter], binB = cells.bin[b.emitter];
  if (binA != binB) return binA < binB;
  return a.angle != b.angle ? a.angle < b.angle : a.echo < b.echo;
}

struct Fit {
  int lines = 0, fitting = 0;
  // Which lines hold echoes, and which fit: bit k - 1 for the line k before, 16 + k - 1 after.
  std::uint32_t lineMask = 0, fitMask = 0;
};

inline std::uint32_t lineBit(int side, int k) {
  return 1u << ((side < 0 ? 0 : 16) + k - 1);
}

struct AmplitudeTally;  // BrightEchoes.cpp
struct MatchTally;      // UnmatchedAmplitudes.cpp

// A stretch along a beam (m from the shot's origin).
struct AlongSpan {
  double lo, hi;
};
// The narrowest stretch holding all but a tenth of the distances `along[0, count)` (sorts
// them), where it is at most `width` long; else the whole spread (refine/OwnLineBand.cpp).
AlongSpan surfaceBand(double* along, int count, double width);

// A neighbour that moved, and the cells it leaves and joins.
struct CellMove {
  std::uint32_t echo, from, to;
};

// One echo's judgement.
struct Verdict {
  int zone = -1;       // the zone to move to; -1: stay
  bool off = false;    // the current zone fits too few lines
  bool unfit = false;  // no candidate fits any line
  std::uint32_t emitter = 0;
  double oneWay = 0.0;
};

// Per echo in recording order: its recording and emitting shots, one-way time and the
// emitting shot's time, read contiguously by the along-line tests of every zone. Shots as
// 32-bit signed numbers: a table holds far fewer than 2^31 shots (emitters are 32-bit), and
// differences between them stay signed.
struct RecordOrder {
  std::vector<std::int32_t> record, emitter;
  std::vector<double> oneWay, emitTime;
};

// The refiner's arrays per shot, echo and cell. A window refines block after block: kept
// for the next block, their pages are neither faulted in nor zeroed again (that was about a
// fifth of a block's time). Every use sizes and fills them anew.
struct WorkArrays {
  ShotCells cells;
  Placement placed;
  LargeVector<std::uint32_t> emitter;
  LargeVector<double> oneWay;
  std::vector<std::uint8_t> active, straddles;  // bytes: read for every echo each iteration
  LargeVector<std::uint32_t> byShot, shotCounts;
  std::vector<std::uint32_t> byRecord, recordCounts;
  RecordOrder inRecord;
  std::vector<std::uint8_t> moving;
  std::vector<std::uint32_t> movingList;
  std::vector<CellMove> cellMoves;
  std::vector<std::uint8_t> off, unfitWhenJudged;
  std::vector<std::uint16_t> judgedAt, changedAt;
  std::vector<std::vector<std::pair<std::uint32_t, Verdict>>> chunkMoves;
  // Of run(), markNoise() and shiftRoughRuns().
  std::vector<std::uint8_t> judgeNow, nearChange, unfit, untold;
  // Of the first verdicts carried: per cell, whether a cell its echoes' judgements read
  // changed since the block before; per echo, whether its verdict is carried.
  std::vector<std::uint64_t> digest;
  std::vector<std::uint8_t> cellChanged, readsChanged, verdictCarried;
  std::vector<std::pair<std::uint32_t, Verdict>> moves;
  std::vector<std::uint32_t> changedCells, smoothIn, bestRun;
  std::vector<std::uint8_t> rough;  // per echo in recording order: rough where it is
  std::vector<std::int8_t> bestZone;

  // Room for a block of `echoes` and `shots` (the cells' arrays: for `cells`), with some to
  // spare: blocks differ in size, and an array grown to just fit the largest block so far
  // moves to fresh pages whenever a larger one comes, each of them faulted in and zeroed
  // again. Room never written costs no memory.
  void makeRoom(std::size_t echoes, std::size_t shots);
  void makeCellRoom(std::size_t cellCount);
};

class Refiner {
 public:
  Refiner(const ShotTable& t, const RefineEchoes& e, const RefineSettings& s,
          const BlockBounds& bounds, WorkArrays& work);

  RefineResult run();

 private:
  using Verdict = surface_fit::Verdict;
  bool active(std::size_t i) const { return active_[i] != 0; }
  // An echo placed within two shots of a line change (as first placed) may belong to the
  // other line, and such echoes go wrong together, line after line, into a ghost strip that
  // fits itself: they are judged, but are no neighbours.
  bool straddlesLines(std::size_t i) const {
    const std::int64_t e = emitter_[i], last = std::int64_t(shots_.time.size()) - 1;
    const auto shot = [&](std::int64_t k) {
      return std::size_t(std::clamp<std::int64_t>(k, 0, last));
    };
    return cells_.line[shot(e - kStraddleShots)] != cells_.line[shot(e + kStraddleShots)];
  }
  bool isNeighbour(std::size_t i) const { return active(i) && straddles_[i] == 0; }
  point positionOf(std::size_t i) const {
    const std::uint32_t e = emitter_[i];
    return placeEcho(oneWay_[i], shots_.direction[e], shots_.origin[e], shots_.lightSpeed).position;
  }
  Neighbour neighbourOf(std::uint32_t i) const {
    const std::uint32_t e = emitter_[i];
    const point at = positionOf(i);
    return {at, std::sqrt(squared(at, shots_.origin[e])), float(cells_.angle[e]), i, e};
  }
  // The shot after which echo i was recorded: the same for every zone.
  std::int64_t recordOf(std::size_t i) const { return std::int64_t(emitter_[i]) + result_.zone[i]; }
  void shiftRoughRuns();  // refine/AlongLineRuns.cpp
  // Line-end fans (refine/LineEnds.cpp).
  void placeLineEnds(std::uint16_t stamp);
  bool fanSample(std::uint32_t i, std::int64_t shot, double& range) const;
  bool onSurface(std::uint32_t i) const;
  int fanZone(std::uint32_t i, std::int64_t last, const std::vector<FanSample>& samples,
              int& current) const;
  void fanSamples(std::int64_t last, std::vector<std::uint32_t>& fan,
                  std::vector<FanSample>& samples) const;
  void orderByRecord();
  std::size_t aloneInRuns() const;
  void smoothZones(std::vector<std::uint32_t>& zones) const;
  // Echoes along a line in recording order: [before, own) before the echo's recording shot,
  // [after, end) after it.
  struct AlongLine {
    std::size_t before, own, after, end;
  };
  AlongLine alongLineOf(std::size_t k) const;
  AlongLine nextAlongLine(std::size_t k, const AlongLine& previous) const;
  void placeAlongLine(std::size_t lo, std::size_t hi, int zone, AlongPlacement* out) const;
  static bool smoothAlongLine(std::size_t k, const AlongLine& span, const AlongPlacement* placed,
                              std::size_t base, double tolerance, int pairs);
  void markRough(std::size_t lo, std::size_t hi, std::vector<std::uint8_t>& rough) const;
  int zoneLimit() const { return std::min(maxZone_, 31); }  // the along-line tests' zones
  bool inTableInEveryZone(std::int64_t record) const;
  bool carried(std::size_t k, const AlongLine& span, std::uint8_t what) const;
  void carryOut(std::size_t k, const AlongLine& span, std::uint8_t what, std::uint32_t zones) const;
  void dropShortRoughChains(std::size_t first, std::vector<std::uint8_t>& rough) const;
  void smoothZonesOf(std::size_t lo, std::size_t hi, const std::vector<std::uint8_t>& rough,
                     std::vector<std::uint32_t>& zones) const;
  void fillCells();
  void updateCells(std::vector<CellMove>& moved);
  bool unchangedSinceJudged(std::size_t i) const;
  void markNoise();
  std::size_t noiseShotEnd() const;
  std::int64_t lastLineReadForNoise() const;
  void sortLine(std::size_t line);
  void boundCells(std::size_t cellLo, std::size_t cellHi);  // refine/CellReach.cpp
  double farGap(std::size_t cellLo, std::size_t cellHi, const point& origin,
                const Gemwold::PhysicalSpace::vector& direction) const;
  bool fitsNothing(std::size_t i) const;
  // Lone echoes (LoneEchoes.cpp): what an off echo fits, it fits by chance under every zone.
  bool lone(std::size_t i) const;
  bool byChance(std::size_t self, std::uint32_t emitter, const point& p) const;
  bool ownLineBearsOut(std::size_t self, std::uint32_t emitter, const point& p,
                       double spreadShare = 1.0, double band = 0.0) const;
  // Second echoes (SecondEchoes.cpp): another echo of the same emitting shot is the surface.
  void markSecondEchoes(std::vector<std::uint8_t>& noise) const;
  bool outdone(std::size_t i, const std::uint32_t* from, const std::uint32_t* to) const;
  int ownLineNear(std::size_t self, std::uint32_t emitter, const point& p) const;
  // Bright echoes (BrightEchoes.cpp): many times the amplitude of the surface they lie on.
  void markBrightEchoes(std::vector<std::uint8_t>& noise) const;
  bool outshines(std::size_t i, const LargeVector<float>& faintest, double gainRatio) const;
  void toneMembers();
  void faintestPerCell(LargeVector<float>& faintest) const;
  void tallyAmplitudes(std::size_t cellLo, std::size_t cellHi, std::uint8_t channel,
                       std::uint32_t emitter, const point* p, double limit,
                       AmplitudeTally& tally) const;
  // ChannelGains.cpp; from the first `enough` pairs where fewer than all will do.
  double channelGainRatio(std::size_t enough = SIZE_MAX) const;
  // Unmatched amplitudes (UnmatchedAmplitudes.cpp): unlike every echo of the surface around.
  void markUnmatchedEchoes(std::vector<std::uint8_t>& noise) const;
  bool unmatched(std::size_t i, const LargeVector<float>& typical) const;
  void typicalPerCell(LargeVector<float>& typical) const;
  std::int64_t otherChannelOf(std::size_t i) const;
  void tallyMatches(std::size_t cellLo, std::size_t cellHi, std::uint8_t channel,
                    std::uint32_t emitter, const point* p, float low, float high, int enough,
                    MatchTally& tally) const;
  int linesBeyond(double share) const;
  std::pair<int, int> candidateZones(int z) const;
  int supportOf(std::size_t self, std::uint32_t emitter, const point& p) const;
  // Echo i placed at the emitting shot `zone` would give (same arrival); false when that shot
  // is not in the table or the echo would be nearer than the run accepts.
  struct Candidate {
    std::uint32_t emitter = 0;
    double oneWay = 0.0;
    point position{};
  };
  bool placeAsZone(std::size_t i, int zone, Candidate& out) const;
  // What a candidate must still reach to matter: fitting lines and their share, and whether
  // any fit at all is still to be found (for the noise test).
  struct Hope {
    int fitting = 0;
    double share = 0.0;
    bool needAny = false;
  };
  Fit fitOf(std::size_t self, std::uint32_t emitter, const point& p, int enough,
            const Hope* hope = nullptr) const;
  static bool hopeless(const Fit& fit, int remaining, const Hope& hope);
  // A placement as the fit test reads it in every line: the echo, its place and shot, its
  // scan angle, its bin (from the first) and where that bin's angles start (radians); the
  // calling thread's neighbours that fitted last (by line).
  struct FitQuery {
    std::size_t self;
    point p, origin;
    Gemwold::PhysicalSpace::vector direction;
    float angle;
    std::int32_t at;
    double binLo, binWidth;
    std::uint32_t* lastFit;
  };
  bool lineFits(std::uint32_t line, const FitQuery& q, bool& hasEchoes) const;
  // Whether `m` lies near `p`, seen from the shot at `origin` looking along `direction`.
  // Inline: the fit test and the noise tests ask it for most neighbours they read.
  bool near(const Neighbour& m, const point& p, const point& origin,
            const Gemwold::PhysicalSpace::vector& direction) const {
    const double gap = squared(m.position, p);
    if (gap < settings_.fitTolerance * settings_.fitTolerance) return true;  // however far apart
    return nearBeyondFlat(m, gap, origin, direction);
  }
  // The same for a neighbour `gap` (squared) from the query, beyond the flat tolerance.
  bool nearBeyondFlat(const Neighbour& m, double gap, const point& origin,
                      const Gemwold::PhysicalSpace::vector& direction) const {
    // Surfaces slope: allow more height the farther apart the two footprints are.
    const double apart = std::sqrt(squared(shots_.origin[m.emitter], origin)) +
                         m.reach * std::sqrt(squared(shots_.direction[m.emitter], direction));
    const double tolerance = settings_.fitTolerance + settings_.fitPerMetre * apart;
    return gap < tolerance * tolerance;
  }
  bool anyNear(std::size_t cellLo, std::size_t cellHi, std::size_t own, const FitQuery& q,
               std::uint32_t& hint, bool& hasEchoes) const;
  Verdict outnumbered(std::size_t i, const Fit& now) const;
  bool fitsByChance(std::size_t i, const Candidate& c, int nowFitting) const;  // ChanceFits.cpp
  Verdict sparseCanopy(std::size_t i, Verdict v) const;                        // SparseCanopy.cpp
  // Block edges (BlockEdges.cpp): the surface beyond a wide wrong block's edge.
  bool atBlockEdge(std::size_t i, const Fit& now, const Fit& candidate, const Candidate& c) const;
  Verdict blockEdge(std::size_t i, const Fit& now) const;
  Verdict judge(std::size_t i) const;
  void judgeMarked(const std::vector<std::uint8_t>& judgeNow, std::uint16_t stamp,
                   std::vector<std::pair<std::uint32_t, Verdict>>& moves);
  // First verdicts carried between a window's blocks (CarriedVerdicts.cpp).
  void digestLine(std::size_t line, std::uint64_t* digest) const;
  void keepFirstPlacement();
  void markCarriedVerdicts();
  bool readsNoChange(std::size_t i) const;
  Verdict carriedVerdict(std::size_t i) const;
  void carryOutVerdict(std::size_t i, const Verdict& v) const;
  void keepSupportedMoves(std::vector<std::pair<std::uint32_t, Verdict>>& moves);
  void applyMoves(const std::vector<std::pair<std::uint32_t, Verdict>>& moves, std::uint16_t stamp,
                  std::vector<std::uint32_t>& changedCells);
  void markNearChanges(const std::vector<std::uint32_t>& changedCells,
                       std::vector<std::uint8_t>& near) const;

  const ShotTable& shots_;
  const RefineEchoes& echoes_;
  RefineSettings settings_;
  WorkArrays& work_;
  ShotCells& cells_;
  Placement& placed_;
  LargeVector<std::uint32_t>& emitter_;
  LargeVector<double>& oneWay_;
  int maxZone_ = 0;
  std::size_t settled_ = 0;  // echoes [0, settled_) are final: neighbours, never judged
  std::size_t kept_ = 0;     // echoes [kept_, n) are context: their results are dropped
  // The along-line findings of the block before, and this block's for the next one.
  const AlongLineMemo* given_ = nullptr;
  AlongLineMemo* found_ = nullptr;
  const FirstVerdicts* givenVerdicts_ = nullptr;
  FirstVerdicts* foundVerdicts_ = nullptr;
  std::int64_t lastSettledRecord_ = -1;
  std::vector<std::uint8_t>&active_, &straddles_;
  LargeVector<std::uint32_t>& byShot_;    // echoes by first emitting shot
  std::vector<std::uint32_t>& byRecord_;  // echoes by recording shot (along-line runs)
  RecordOrder& inRecord_;
  std::vector<std::uint8_t>& moving_echoes_;  // echoes about to move, marked for a while
  std::vector<std::uint32_t>& movingList_;
  // While set, the echoes marked here count as no neighbours (they are about to move).
  const std::vector<std::uint8_t>* moving_ = nullptr;
  std::vector<CellMove>& cellMoves_;
  // Per echo its last verdict (off; no zone fits) and when it was given (iteration + 1); per
  // cell the last iteration + 1 that changed it.
  std::vector<std::uint8_t>&off_, &unfitWhenJudged_;  // bytes: written by several threads
  std::vector<std::uint16_t>&judgedAt_, &changedAt_;
  std::vector<std::uint8_t> onLineEnd_;  // per echo: on a line of a line-end fan (no noise)
  RefineResult result_;
  std::vector<std::vector<std::pair<std::uint32_t, Verdict>>>& chunkMoves_;  // per chunk judged
};

}  // namespace FullWaveform::surface_fit
