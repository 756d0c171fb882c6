// Surface-continuity refinement of echo zones, on plain arrays: the shot table and every
// echo's emitting shot, one-way time and zone. Reads nothing else; returns new zones and flags.
// Each echo's candidate zones are placed at their own emitting shots and tested against the
// echoes of the same scan-angle bin in the neighbouring scan lines (both sides, placed with
// their current zones). An echo moves only when its current zone fits clearly fewer lines
// than another candidate and, where the current zone fits some lines, only out of a narrow
// wrong block or to a candidate every line agrees with; an echo that fits no line under any
// candidate is noise. A zone that fits some lines gives way too where a candidate fits all
// of them with several times the echoes near it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "gemwold/PhysicalSpace.hpp"
#include "refine/LargeArrays.hpp"
#include "run/Export.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

struct ShotTable {
  LargeVector<double> time;
  LargeVector<Gemwold::PhysicalSpace::point> origin;
  LargeVector<Gemwold::PhysicalSpace::vector> direction;
  double lightSpeed = 0.0;
  bool radial = false;  // scan angle: the azimuth around the cone instead of across the track
  // Each shot's scan angle (scanAngleOf) where the caller has it already; empty: worked out.
  LargeVector<double> angle;
};

struct RefineEcho {
  std::uint32_t emitter;  // index into the shot table
  double oneWayTime;      // s, from that emitter
  std::uint8_t zone;
  bool noise;  // already classified as noise: neither judged nor a neighbour
  // The receiver channel and the amplitude as the run gives them (each channel has its own
  // gain); an amplitude of 0 tells nothing.
  std::uint8_t channel = 0;
  float amplitude = 0.0f;
};
using RefineEchoes = LargeVector<RefineEcho>;

struct RefineSettings {
  // Rounds of moves at most; most strips settle in a few, but moves out of ghost blocks that
  // fit each other chain on, and a window (whose settled lines have settled) must agree.
  int iterations = 20;
  int neighbourLines = 4;         // lines on each side searched for the surface
  double fitTolerance = 0.85;     // m, plus ...
  double fitPerMetre = 0.85;      // ... this much per metre between the two footprints
  double binDegrees = 0.1;        // scan-angle bin width
  double farLineDistance = 30.0;  // m between origins: a line of another flight line
  double offShare = 1.0 / 3.0;    // the current zone is off fitting at most this share of lines
  double onShare = 0.5;           // a candidate is on fitting at least this share ...
  int moveMargin = 2;             // ... and this many lines more than the current zone
  // Candidates: the zones this many either side of the current one. Three reaches the echoes
  // the block method puts three zones off; four starts to move right echoes at the ends of
  // lines without shots between them.
  int zoneReach = 3;
  // Zone 0 is also what the run leaves on echoes it could not resolve (the ends of lines
  // without shots between them): from there candidates reach every zone.
  bool zeroReachesAll = true;
  // Where the current zone fits some lines, the two zones contest the place (the surface
  // around may itself be wrong): a candidate must then fit all lines holding echoes but this
  // many.
  int contestedMiss = 0;
  // A zone fitting more lines than an off one still gives way where it fits at most this
  // share of them, a candidate fits every line holding echoes, and that candidate's place
  // has this many times the echoes near it (a share of 0: never).
  double outnumberedShare = 0.625;
  double outnumberedSupport = 4.0;
  // The lines an off zone fits are chance, not a contest, where a candidate otherwise clearly
  // on has this many times the echoes near it (0: never).
  double chanceSupport = 8.0;
  // ... or this many times where the off zone fits a single line (0: as many as above).
  double singleChanceSupport = 4.0;
  // Where the current zone fits no line, a candidate fitting at least this many lines, with
  // `sparseSupport` times the echoes near it, moves the echo (refine/SparseCanopy.cpp; 0: never).
  int sparseLines = 3;
  double sparseSupport = 4.0;
  // At the edge of a wrong block many lines wide, where on one side every line beyond the
  // next fits a candidate clearly on and none the current zone, with at least this many times
  // the current zone's echoes near it, the echo moves (refine/BlockEdges.cpp; 0: never).
  double edgeSupport = 1.0;
  // An off echo is noise too where every placement of it fits fewer than this many lines
  // and no echo of its own scan line lies near it: birds and dust fit a line by chance, a
  // surface continues along the line (0: never).
  int loneLines = 3;
  // Second echoes (refine/SecondEchoes.cpp): of two echoes of one emitting shot
  // `secondEchoMin` to `secondEchoMax` apart along the beam, one that nothing of its own scan
  // line bears out (nothing near, outside the line's echoes along the beam by more than
  // `secondEchoSpread` times their spread) is noise where the other has an echo of its line
  // near it: one pulse, one surface (a max of 0: never).
  double secondEchoMin = 1.0;  // m: nearer, the two are one echo reported twice
  double secondEchoMax = 8.0;  // m
  double secondEchoSpread = 0.5;
  // What bears an echo out in its own scan line where birds and dust are dense
  // (refine/OwnLineBand.cpp): for lone and second echoes, an echo of the shots within
  // `ownLineNearShots` of its own near it (0: of any shot at its scan angle); for lone echoes,
  // where all but a tenth of the line's echoes at its scan angle lie within `ownLineBand` m
  // along the beam (one surface), that band's spread instead of all the echoes' (0: never).
  int ownLineNearShots = 4;
  double ownLineBand = 5.0;  // m
  // Bright echoes (refine/BrightEchoes.cpp): an echo of at least this many times the
  // amplitude of every echo of its channel placed near it, and of its own scan line at its
  // scan angle, is noise (0: never).
  double brightRatio = 10.0;
  // ... and where its line holds no echo of its channel there, of the other channel's, at
  // the ratio of the channels' gains that echoes recorded in both give (ChannelGains.cpp).
  bool acrossChannels = true;
  // Unmatched amplitudes (refine/UnmatchedAmplitudes.cpp): an echo whose amplitude is within
  // this ratio, either way, of almost none of the echoes of its channel in its own scan line
  // at its scan angle and placed near it is noise (at most 1: never).
  double matchRatio = 1.4;
  // Along-line runs (refine/AlongLineRuns.cpp): an echo whose range does not continue its
  // line moves to the zone in which it and at least `runMinEchoes` echoes recorded within
  // `runShotReach` shots of each other continue their line to `runTolerance` (0: never).
  int runMinEchoes = 10;
  int runShotReach = 4;
  double runTolerance = 0.15;  // m
  int runPairs = 5;            // pairs of echoes along the line an echo must continue
  double runShare = 0.5;       // of the echoes a run spans that must be in it (or in its zone)
  // Line-end fans (refine/LineEnds.cpp): an echo recorded after a line's last shot, not on
  // a surface, moves to the shot where it lies on the longest straight line (range over
  // shots) of echoes of distinct shots, of at least this many (0: never).
  int lineEndEchoes = 3;
  // Threads that judge the echoes (each echo's verdict is its own); the result is the same
  // for any number.
  unsigned threads = 1;
};

// Bits of a point's "Refined" value.
enum RefineFlag : std::uint8_t {
  kUntouched = 0,
  kMovedZone = Tessal::schema::kRefinedMoved,
  kMarkedNoise = Tessal::schema::kRefinedNoise
};

struct RefineResult {
  std::vector<std::uint8_t> zone;  // per echo
  std::vector<std::uint8_t> flag;  // RefineFlag bits per echo
  std::uint64_t moved = 0, markedNoise = 0, judged = 0;
};

namespace surface_fit {
struct WorkArrays;
}

// Working memory one refinement after another may share (a window's blocks): its arrays
// keep their pages. Used by one refinement at a time.
class QUILLO_API RefineScratch {
 public:
  RefineScratch();
  ~RefineScratch();
  RefineScratch(const RefineScratch&) = delete;
  RefineScratch& operator=(const RefineScratch&) = delete;
  surface_fit::WorkArrays& arrays() { return *arrays_; }

 private:
  std::unique_ptr<surface_fit::WorkArrays> arrays_;
};

// The first `settled` echoes are final already (refined with an earlier block of a window):
// they are neighbours with their zones as given, never judged, moved nor made noise.
// `scratch`: memory to work in (none: its own).
QUILLO_API RefineResult refineEchoZones(const ShotTable& shots, const RefineEchoes& echoes,
                                        const RefineSettings& settings = {},
                                        std::size_t settled = 0, RefineScratch* scratch = nullptr);

// A window's block among the echoes given: [0, settled) final already (as above), [settled,
// kept) the block, whose results the caller keeps, and the rest the lines after it, judged and
// moved only for the moves they pass on to the block. Their own results are dropped, so the
// work that only they would read (their noise tests) is left out: their flags are not to be
// used.
//
// The along-line tests of an echo read only the echoes recorded within a few shots of it, so
// a context echo's findings hold for the next block, whose echo it is, wherever those are the
// same echoes in both: `given` brings them in by echo (from the block before), `found` takes
// them out for the context echoes (both optional).
struct AlongLineMemo {
  static constexpr std::uint8_t kKnown = 1;       // whether it continues its line is known
  static constexpr std::uint8_t kRough = 2;       // ... it does not
  static constexpr std::uint8_t kZonesKnown = 4;  // the zones it would continue it in are known
  std::vector<std::uint8_t> state;                // per echo
  std::vector<std::uint16_t> span;  // per echo: the echoes recorded within reach, itself among them
  std::vector<std::uint32_t> zones;  // per echo: bit z, smooth in zone z
  int zoneLimit = -1;                // the highest zone tested
};
// Likewise the first judgement of a context echo (against the first placement, before any
// move) holds for the next block where the echo has the same zone there and no cell its
// judgement reads holds other neighbours: the cells are compared by a digest of each.
struct FirstVerdicts {
  static constexpr std::uint8_t kKnown = 1, kOff = 2, kUnfit = 4;
  static constexpr std::uint8_t kStays = 255;
  std::vector<std::uint8_t> state;   // per echo
  std::vector<std::uint8_t> zone;    // per echo: the zone it was judged in
  std::vector<std::uint8_t> moveTo;  // per echo: the zone it moves to (kStays: none)
  // The first placement's cells: per line (named by the time of its first shot), per bin.
  std::vector<double> lineTime;
  std::int32_t firstBin = 0, binCount = 0;
  std::vector<std::uint64_t> digest;
  int maxZone = -1;
};
struct BlockBounds {
  std::size_t settled = 0;
  std::size_t kept = SIZE_MAX;
  const AlongLineMemo* given = nullptr;
  AlongLineMemo* found = nullptr;
  const FirstVerdicts* givenVerdicts = nullptr;
  FirstVerdicts* foundVerdicts = nullptr;
};
QUILLO_API RefineResult refineBlock(const ShotTable& shots, const RefineEchoes& echoes,
                                    const RefineSettings& settings, const BlockBounds& bounds,
                                    RefineScratch& scratch);

}  // namespace FullWaveform
