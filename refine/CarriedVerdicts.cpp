// First verdicts carried between a window's blocks. Reads the first placement's cells, the
// echoes' zones and the first verdicts and cell digests of the block before; writes which
// echoes take their first verdict from there, and this block's for the next. A block judges
// its context lines first (their moves reach its own echoes), and the next block judges them
// again as its own: against the same first placement wherever the block's last moves and the
// window's ends are out of reach, where the verdict is the same.
#include <algorithm>
#include <bit>
#include <cstring>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {

constexpr std::uint64_t kEmptyCell = 0xcbf29ce484222325ull;

std::uint64_t mix(std::uint64_t h, double value) {
  return (h ^ std::bit_cast<std::uint64_t>(value)) * 0x100000001b3ull + (h >> 29);
}

}  // namespace

// Per cell of line `line`, a digest of its neighbours in order: their shots (by time) and
// places. Whatever the fit test reads of a neighbour follows from those.
void Refiner::digestLine(std::size_t line, std::uint64_t* digest) const {
  const auto bins = std::size_t(cells_.binCount);
  for (std::size_t b = 0; b < bins; ++b) {
    const std::size_t c = line * bins + b;
    std::uint64_t h = kEmptyCell;
    for (std::uint32_t k = placed_.start[c]; k < placed_.start[c + 1]; ++k) {
      const Neighbour& m = placed_.members[k];
      h = mix(mix(mix(mix(h, shots_.time[m.emitter]), m.position.x), m.position.y), m.position.z);
    }
    digest[b] = h;
  }
}

// Keeps the first placement's cell digests for the next block: of the lines its context
// echoes' judgements read (those of the block's own echoes it never takes).
void Refiner::keepFirstPlacement() {
  if (!foundVerdicts_) return;
  FirstVerdicts& out = *foundVerdicts_;
  out.state.assign(echoes_.size(), 0);
  out.zone.resize(echoes_.size()), out.moveTo.resize(echoes_.size());
  out.firstBin = cells_.firstBin, out.binCount = cells_.binCount, out.maxZone = maxZone_;
  const std::size_t lines = cells_.lineOrigin.size(), bins = std::size_t(cells_.binCount);
  std::size_t from = lines;
  for (std::size_t i = kept_; i < echoes_.size(); ++i)
    if (active(i)) from = std::min<std::size_t>(from, cells_.line[emitter_[i]]);
  // A candidate's shot may lie in the line before; the fit test reads the lines around it.
  from -= std::min<std::size_t>(from, std::size_t(settings_.neighbourLines) + 1);
  out.lineTime.assign(lines - from, 0.0), out.digest.resize((lines - from) * bins);
  for (std::size_t s = shots_.time.size(); s-- > 0 && cells_.line[s] >= from;)
    out.lineTime[cells_.line[s] - from] = shots_.time[s];
  for (std::size_t l = from; l < lines; ++l) digestLine(l, out.digest.data() + (l - from) * bins);
}

// Marks the echoes whose first verdict the block before gives: judged in the zone they have
// now, with no cell their judgement reads (the lines around their own and their candidates'
// shots, the bins around theirs as far as the fit test looks) holding other neighbours than
// then, nor missing then.
void Refiner::markCarriedVerdicts() {
  std::vector<std::uint8_t>& carried = work_.verdictCarried;
  carried.clear();
  const FirstVerdicts* given = givenVerdicts_;
  if (!given || given->maxZone != maxZone_ || given->firstBin != cells_.firstBin ||
      given->binCount != cells_.binCount || given->lineTime.empty())
    return;
  const std::size_t lines = cells_.lineOrigin.size(), bins = std::size_t(cells_.binCount);
  std::vector<double> lineTime(lines, 0.0);
  for (std::size_t s = shots_.time.size(); s-- > 0;) lineTime[cells_.line[s]] = shots_.time[s];
  std::vector<std::uint8_t>& changed = work_.cellChanged;
  changed.assign(lines * bins, 1);
  std::vector<std::uint64_t>& digest = work_.digest;
  digest.resize(bins);
  for (std::size_t l = 0; l < lines; ++l) {
    const auto it = std::lower_bound(given->lineTime.begin(), given->lineTime.end(), lineTime[l]);
    if (it == given->lineTime.end() || *it != lineTime[l]) continue;
    const std::size_t before = std::size_t(it - given->lineTime.begin()) * bins;
    digestLine(l, digest.data());
    for (std::size_t b = 0; b < bins; ++b)
      changed[l * bins + b] = digest[b] != given->digest[before + b];
  }
  // Spread over what a judgement reads: bins first, then lines; lines beyond the table's ends
  // count as changed (the block before may have had them).
  const auto reachBins = std::size_t(kFarthestBin);
  const auto reachLines = std::size_t(settings_.neighbourLines);
  std::vector<std::uint8_t>& reads = work_.readsChanged;
  reads.assign(lines * bins, 0);
  std::vector<std::uint32_t> upTo(std::max(lines, bins) + 1);  // running counts of changes
  for (std::size_t l = 0; l < lines; ++l) {
    for (std::size_t b = 0; b < bins; ++b) upTo[b + 1] = upTo[b] + changed[l * bins + b];
    for (std::size_t b = 0; b < bins; ++b)
      reads[l * bins + b] =
          upTo[std::min(bins, b + reachBins + 1)] > upTo[b >= reachBins ? b - reachBins : 0];
  }
  for (std::size_t b = 0; b < bins; ++b) {
    for (std::size_t l = 0; l < lines; ++l) upTo[l + 1] = upTo[l] + reads[l * bins + b];
    for (std::size_t l = 0; l < lines; ++l)
      changed[l * bins + b] =
          l < reachLines || l + reachLines >= lines ||
          upTo[std::min(lines, l + reachLines + 1)] > upTo[l >= reachLines ? l - reachLines : 0];
  }
  reads.swap(changed);
  carried.assign(echoes_.size(), 0);
  for (std::size_t i = settled_; i < echoes_.size(); ++i)
    carried[i] = active(i) && (given->state[i] & FirstVerdicts::kKnown) &&
                 given->zone[i] == result_.zone[i] && readsNoChange(i);
}

// Whether no cell echo i's judgement reads changed: around its own shot and every candidate's.
bool Refiner::readsNoChange(std::size_t i) const {
  const std::vector<std::uint8_t>& reads = work_.readsChanged;
  const std::int64_t e = emitter_[i], z = result_.zone[i];
  if (reads[cells_.cellOf(emitter_[i])]) return false;
  const auto [lowest, highest] = candidateZones(int(z));
  const std::int64_t last = std::int64_t(shots_.time.size()) - 1;
  for (std::int64_t c = lowest; c <= highest; ++c) {
    const std::int64_t shot = e + z - c;
    if (c != z && shot >= 0 && shot <= last && reads[cells_.cellOf(std::uint32_t(shot))])
      return false;
  }
  return true;
}

// Echo i's first verdict as the block before gave it.
Refiner::Verdict Refiner::carriedVerdict(std::size_t i) const {
  const FirstVerdicts& given = *givenVerdicts_;
  Verdict v;
  v.off = (given.state[i] & FirstVerdicts::kOff) != 0;
  v.unfit = (given.state[i] & FirstVerdicts::kUnfit) != 0;
  if (given.moveTo[i] == FirstVerdicts::kStays) return v;
  const std::uint32_t e = emitter_[i];
  v.zone = given.moveTo[i];
  v.emitter = std::uint32_t(std::int64_t(e) + result_.zone[i] - v.zone);
  v.oneWay = oneWayTimeFrom(oneWay_[i], shots_.time[e], shots_.time[v.emitter]);
  return v;
}

// Keeps a context echo's first verdict for the next block.
void Refiner::carryOutVerdict(std::size_t i, const Verdict& v) const {
  if (!foundVerdicts_ || i < kept_) return;
  FirstVerdicts& out = *foundVerdicts_;
  out.state[i] = std::uint8_t(FirstVerdicts::kKnown | (v.off ? FirstVerdicts::kOff : 0) |
                              (v.unfit ? FirstVerdicts::kUnfit : 0));
  out.zone[i] = result_.zone[i];
  out.moveTo[i] = v.zone < 0 ? FirstVerdicts::kStays : std::uint8_t(v.zone);
}

}  // namespace FullWaveform::surface_fit
