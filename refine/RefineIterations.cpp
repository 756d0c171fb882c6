// The iterations of the surface-continuity refinement. Reads the shot table and the echoes;
// writes new zones and flags. Places the echoes that are neighbours in cells of scan line
// and angle bin, judges every echo, makes the moves, keeps the cells up to date and judges
// again the echoes near a move, then tells noise against the final neighbourhood.
#include <algorithm>
#include <cmath>

#include "refine/ParallelChunks.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

void WorkArrays::makeRoom(std::size_t echoes, std::size_t shots) {
  reserveWithRoom(cells.line, shots), reserveWithRoom(cells.bin, shots),
      reserveWithRoom(cells.angle, shots);
  reserveWithRoom(placed.members, echoes), reserveWithRoom(placed.tones, echoes);
  reserveWithRoom(emitter, echoes), reserveWithRoom(oneWay, echoes);
  reserveWithRoom(active, echoes), reserveWithRoom(straddles, echoes);
  reserveWithRoom(byShot, echoes), reserveWithRoom(shotCounts, shots + 1);
  reserveWithRoom(byRecord, echoes), reserveWithRoom(recordCounts, shots + 257);
  reserveWithRoom(inRecord.record, echoes), reserveWithRoom(inRecord.emitter, echoes);
  reserveWithRoom(inRecord.oneWay, echoes), reserveWithRoom(inRecord.emitTime, echoes);
  reserveWithRoom(moving, echoes), reserveWithRoom(off, echoes),
      reserveWithRoom(unfitWhenJudged, echoes);
  reserveWithRoom(judgedAt, echoes), reserveWithRoom(judgeNow, echoes),
      reserveWithRoom(unfit, echoes);
  reserveWithRoom(smoothIn, echoes), reserveWithRoom(rough, echoes),
      reserveWithRoom(bestRun, echoes), reserveWithRoom(bestZone, echoes);
}

void WorkArrays::makeCellRoom(std::size_t cellCount) {
  reserveWithRoom(placed.start, cellCount + 1), reserveWithRoom(placed.fill, cellCount);
  reserveWithRoom(placed.reach, cellCount), reserveWithRoom(changedAt, cellCount);
  reserveWithRoom(nearChange, cellCount);
}

Refiner::Refiner(const ShotTable& t, const RefineEchoes& e, const RefineSettings& s,
                 const BlockBounds& bounds, WorkArrays& work)
    : shots_(t),
      echoes_(e),
      settings_(s),
      work_(work),
      cells_(work.cells),
      placed_(work.placed),
      emitter_(work.emitter),
      oneWay_(work.oneWay),
      settled_(std::min(bounds.settled, e.size())),
      kept_(std::clamp(bounds.kept, settled_, e.size())),
      given_(bounds.given && bounds.given->state.size() == e.size() ? bounds.given : nullptr),
      found_(bounds.found),
      givenVerdicts_(bounds.givenVerdicts && bounds.givenVerdicts->state.size() == e.size()
                         ? bounds.givenVerdicts
                         : nullptr),
      foundVerdicts_(bounds.foundVerdicts),
      active_(work.active),
      straddles_(work.straddles),
      byShot_(work.byShot),
      byRecord_(work.byRecord),
      inRecord_(work.inRecord),
      moving_echoes_(work.moving),
      movingList_(work.movingList),
      cellMoves_(work.cellMoves),
      off_(work.off),
      unfitWhenJudged_(work.unfitWhenJudged),
      judgedAt_(work.judgedAt),
      changedAt_(work.changedAt),
      chunkMoves_(work.chunkMoves) {
  work.makeRoom(e.size(), t.time.size());
  cells_.cut(t, s.binDegrees);
  work.makeCellRoom(cells_.cellCount());
  result_.zone.resize(e.size());
  result_.flag.assign(e.size(), kUntouched);
  emitter_.resize(e.size());
  oneWay_.resize(e.size());
  for (std::size_t i = 0; i < e.size(); ++i) {
    result_.zone[i] = e[i].zone, emitter_[i] = e[i].emitter, oneWay_[i] = e[i].oneWayTime;
    maxZone_ = std::max<int>(maxZone_, e[i].zone);
  }
  maxZone_ = std::min(maxZone_ + 1, 254);
  // Echoes already noise, or that name no shot of the table, take no part.
  active_.resize(e.size());
  for (std::size_t i = 0; i < e.size(); ++i)
    active_[i] = !e[i].noise && e[i].emitter < t.time.size() && std::isfinite(e[i].oneWayTime);
  moving_echoes_.assign(e.size(), 0);
  off_.assign(e.size(), 0), unfitWhenJudged_.assign(e.size(), 0);
  judgedAt_.assign(e.size(), 0), changedAt_.assign(cells_.cellCount(), 0);
  straddles_.resize(e.size());
  for (std::size_t i = 0; i < e.size(); ++i) straddles_[i] = straddlesLines(i);
  // Filled in shot order, a cell is in scan-angle order already wherever the angle sweeps
  // steadily (moves shift an echo by a shot or two); sorting then mostly only checks.
  LargeVector<std::uint32_t>& first = work.shotCounts;
  first.assign(t.time.size() + 1, 0);
  for (std::uint32_t i = 0; i < e.size(); ++i)
    if (active(i)) ++first[e[i].emitter + 1];
  for (std::size_t k = 1; k < first.size(); ++k) first[k] += first[k - 1];
  byShot_.resize(e.size());
  for (std::uint32_t i = 0; i < e.size(); ++i)
    if (active(i)) byShot_[first[e[i].emitter]++] = i;
  byShot_.resize(first.back());
}

// Sorts the neighbours into their cells, each in scan-angle order.
void Refiner::fillCells() {
  const std::size_t n = echoes_.size();
  placed_.start.assign(cells_.cellCount() + 1, 0);
  for (std::size_t i = 0; i < n; ++i)
    if (isNeighbour(i)) ++placed_.start[cells_.cellOf(emitter_[i]) + 1];
  for (std::size_t c = 1; c < placed_.start.size(); ++c) placed_.start[c] += placed_.start[c - 1];
  placed_.members.resize(placed_.start.back());
  placed_.fill.assign(placed_.start.begin(), placed_.start.end() - 1);
  for (const std::uint32_t i : byShot_)
    if (isNeighbour(i))
      placed_.members[placed_.fill[cells_.cellOf(emitter_[i])]++] = neighbourOf(i);
  const auto byAngle = [](const Neighbour& a, const Neighbour& b) {
    return a.angle != b.angle ? a.angle < b.angle : a.echo < b.echo;
  };
  for (std::size_t c = 0; c + 1 < placed_.start.size(); ++c) {
    const auto first = placed_.members.begin() + placed_.start[c];
    const auto last = placed_.members.begin() + placed_.start[c + 1];
    if (!std::is_sorted(first, last, byAngle)) std::sort(first, last, byAngle);
  }
  boundCells(0, cells_.cellCount());
}

// Brings the cells up to date after the moves (emitters already changed): only the lines a
// neighbour left or joined are sorted again. A neighbour that moved across a line's end
// changes two lines' counts: then every line is filled again.
void Refiner::updateCells(std::vector<CellMove>& moved) {
  const auto bins = std::uint32_t(cells_.binCount);
  for (const CellMove& m : moved)
    if (m.from / bins != m.to / bins) return fillCells();
  std::sort(moved.begin(), moved.end(),
            [](const CellMove& a, const CellMove& b) { return a.to < b.to; });
  for (const CellMove& m : moved) moving_echoes_[m.echo] = 1;
  for (std::size_t k = 0; k < moved.size();) {
    const std::uint32_t line = moved[k].to / bins;
    placed_.line.clear(), placed_.joining.clear();
    const Neighbour* first = placed_.members.data() + placed_.start[line * bins];
    const Neighbour* last = placed_.members.data() + placed_.start[(line + 1) * bins];
    for (const Neighbour* m = first; m != last; ++m)
      if (!moving_echoes_[m->echo]) placed_.line.push_back(*m);
    for (; k < moved.size() && moved[k].to / bins == line; ++k)
      placed_.joining.push_back(neighbourOf(moved[k].echo));
    sortLine(line);
  }
  for (const CellMove& m : moved) moving_echoes_[m.echo] = 0;
}

// Writes back one line's neighbours in cell and angle order (those that stay, in order
// already, merged with those that join; as many as the line held), and where its cells start.
void Refiner::sortLine(std::size_t line) {
  const auto bins = std::size_t(cells_.binCount);
  const auto order = [&](const Neighbour& a, const Neighbour& b) {
    return byCellAndAngle(a, b, cells_);
  };
  std::sort(placed_.joining.begin(), placed_.joining.end(), order);
  std::uint32_t at = placed_.start[line * bins];
  const auto out = placed_.members.begin() + at;
  std::merge(placed_.line.begin(), placed_.line.end(), placed_.joining.begin(),
             placed_.joining.end(), out, order);
  const auto end = out + std::ptrdiff_t(placed_.line.size() + placed_.joining.size());
  auto m = out;
  for (std::size_t b = 0; b < bins; ++b) {
    placed_.start[line * bins + b] = at;
    for (; m != end && std::size_t(cells_.bin[m->emitter] - cells_.firstBin) == b; ++m) ++at;
  }
  boundCells(line * bins, (line + 1) * bins);
}

// Marks every cell within reach of a changed one (the searched lines, the bin and its
// neighbours): the echoes there see a changed neighbourhood.
void Refiner::markNearChanges(const std::vector<std::uint32_t>& changedCells,
                              std::vector<std::uint8_t>& near) const {
  const std::int64_t reach = settings_.neighbourLines;
  const std::int64_t lines = std::int64_t(cells_.lineOrigin.size());
  const std::int32_t bins = cells_.binCount;
  std::fill(near.begin(), near.end(), 0);
  for (const std::uint32_t c : changedCells) {
    const std::int64_t line = c / std::uint32_t(bins);
    const std::int32_t bin = std::int32_t(c % std::uint32_t(bins));
    for (std::int64_t l = std::max<std::int64_t>(0, line - reach);
         l <= std::min(line + reach, lines - 1); ++l)
      for (std::int32_t b = std::max(bin - 1, 0); b <= std::min(bin + 1, bins - 1); ++b)
        near[std::size_t(l) * std::size_t(bins) + std::size_t(b)] = 1;
  }
}

// Drops the moves that rest on neighbours moving in the same iteration: judged together, a
// right echo among wrong ones would follow them while they leave (the two swap). A dropped
// echo is judged again next iteration, against the moved neighbours.
void Refiner::keepSupportedMoves(std::vector<std::pair<std::uint32_t, Verdict>>& moves) {
  movingList_.clear();
  for (const auto& move : moves) moving_echoes_[move.first] = 1, movingList_.push_back(move.first);
  moving_ = &moving_echoes_;
  forEachChunk(moves.size(), chunkCount(moves.size(), 256), settings_.threads,
               [&](std::size_t, std::size_t lo, std::size_t hi) {
                 for (std::size_t k = lo; k < hi; ++k) moves[k].second = judge(moves[k].first);
               });
  moving_ = nullptr;
  for (const std::uint32_t i : movingList_) moving_echoes_[i] = 0;
  std::size_t kept = 0;
  for (const auto& move : moves)
    if (move.second.zone >= 0) moves[kept++] = move;
  moves.resize(kept);
}

// Moves the echoes (their cells brought up to date) and marks the cells they left and joined.
void Refiner::applyMoves(const std::vector<std::pair<std::uint32_t, Verdict>>& moves,
                         std::uint16_t stamp, std::vector<std::uint32_t>& changedCells) {
  changedCells.clear(), cellMoves_.clear();
  for (const auto& [i, v] : moves) {
    const auto from = std::uint32_t(cells_.cellOf(emitter_[i]));
    const auto to = std::uint32_t(cells_.cellOf(v.emitter));
    changedCells.push_back(from), changedCells.push_back(to);
    changedAt_[from] = changedAt_[to] = stamp;
    if (isNeighbour(i)) cellMoves_.push_back({i, from, to});
    result_.zone[i] = std::uint8_t(v.zone), emitter_[i] = v.emitter, oneWay_[i] = v.oneWay;
  }
  updateCells(cellMoves_);
}

// Whether no cell the echo's judgement reads (the lines and bins searched around its own and
// its candidates' emitting shots) changed since it was judged: its verdict then still holds.
bool Refiner::unchangedSinceJudged(std::size_t i) const {
  const std::int64_t e = emitter_[i], last = std::int64_t(shots_.time.size()) - 1;
  std::int64_t lineLo = cells_.line[e], lineHi = lineLo;
  std::int32_t binLo = cells_.bin[e], binHi = binLo;
  const int z = result_.zone[i];
  const auto [lowest, highest] = candidateZones(z);
  for (std::int64_t k = std::max<std::int64_t>(0, e + z - highest);
       k <= std::min(last, e + z - lowest); ++k) {
    lineLo = std::min<std::int64_t>(lineLo, cells_.line[k]);
    lineHi = std::max<std::int64_t>(lineHi, cells_.line[k]);
    binLo = std::min(binLo, cells_.bin[k]), binHi = std::max(binHi, cells_.bin[k]);
  }
  const std::int64_t lines = std::int64_t(cells_.lineOrigin.size());
  const std::int32_t bins = cells_.binCount;
  const std::int32_t b0 = std::max(0, binLo - cells_.firstBin - kFarthestBin);
  const std::int32_t b1 = std::min(bins - 1, binHi - cells_.firstBin + kFarthestBin);
  for (std::int64_t l = std::max<std::int64_t>(0, lineLo - settings_.neighbourLines);
       l <= std::min(lines - 1, lineHi + settings_.neighbourLines); ++l)
    for (std::int32_t b = b0; b <= b1; ++b)
      if (changedAt_[std::size_t(l) * std::size_t(bins) + std::size_t(b)] >= judgedAt_[i])
        return false;
  return true;
}

// The shots from which on the context echoes' noise tests tell the block nothing: past every
// block echo's recording shot. An echo's noise test reads, of the other echoes' verdicts, only
// those of its own emitting shot (second echoes, the other channel's record), and an echo is
// emitted at or before its recording shot, so no block echo shares a shot beyond.
std::size_t Refiner::noiseShotEnd() const {
  if (kept_ == echoes_.size()) return shots_.time.size();
  std::int64_t end = 0;
  for (std::size_t i = settled_; i < kept_; ++i)
    if (active(i)) end = std::max(end, recordOf(i) + 1);
  return std::size_t(std::min<std::int64_t>(end, std::int64_t(shots_.time.size())));
}

// The last scan line the noise tests read (an echo tested emits before noiseShotEnd(); it and
// its candidates are placed no later than its recording shot, at most a zone range after,
// and read the lines around them). Line-end fans beyond it change nothing they read.
std::int64_t Refiner::lastLineReadForNoise() const {
  const auto lines = std::int64_t(cells_.lineOrigin.size());
  if (kept_ == echoes_.size()) return lines - 1;
  const std::int64_t last = std::int64_t(shots_.time.size()) - 1;
  const std::int64_t shot = std::min(last, std::int64_t(noiseShotEnd()) + 2 * maxZone_ + 2);
  return std::min(lines - 1,
                  std::int64_t(cells_.line[std::size_t(shot)]) + settings_.neighbourLines + 1);
}

// Noise is told against the final neighbourhood, where the ghosts have moved away; an echo
// whose surroundings did not change since its last judgement keeps that verdict. Of the
// context echoes only those that share an emitting shot with the block's are told: the rest
// count as noise already while the tests run, which leaves them out.
void Refiner::markNoise() {
  const std::size_t n = echoes_.size(), shotEnd = noiseShotEnd();
  std::vector<std::uint8_t>& unfit = work_.unfit;
  unfit.assign(n, 0);
  std::vector<std::uint8_t>& untold = work_.untold;
  untold.assign(n, 0);
  for (std::size_t i = kept_; i < n; ++i) untold[i] = emitter_[i] >= shotEnd;
  forEachChunk(
      n, chunkCount(n), settings_.threads, [&](std::size_t, std::size_t lo, std::size_t hi) {
        for (std::size_t i = lo; i < hi; ++i)
          unfit[i] = !untold[i] && off_[i] && active(i) && (onLineEnd_.empty() || !onLineEnd_[i]) &&
                     ((unchangedSinceJudged(i) ? unfitWhenJudged_[i] : fitsNothing(i)) || lone(i));
      });
  for (std::size_t i = kept_; i < n; ++i) unfit[i] |= untold[i];
  if (settings_.secondEchoMax > 0.0) markSecondEchoes(unfit);
  if (settings_.brightRatio > 0.0 || settings_.matchRatio > 1.0) toneMembers();
  if (settings_.brightRatio > 0.0) markBrightEchoes(unfit);
  if (settings_.matchRatio > 1.0) markUnmatchedEchoes(unfit);
  for (std::size_t i = kept_; i < n; ++i) unfit[i] = unfit[i] && !untold[i];
  for (std::size_t i = 0; i < n; ++i) {
    const bool moved = result_.zone[i] != echoes_[i].zone;
    result_.flag[i] = std::uint8_t((moved ? kMovedZone : 0) | (unfit[i] ? kMarkedNoise : 0));
    result_.moved += moved;
    result_.markedNoise += unfit[i];
  }
}

// Judges the echoes marked in `judgeNow` against the same placement, on the settings'
// threads; gives the moves in echo order.
void Refiner::judgeMarked(const std::vector<std::uint8_t>& judgeNow, std::uint16_t stamp,
                          std::vector<std::pair<std::uint32_t, Verdict>>& moves) {
  const std::size_t n = echoes_.size(), chunks = chunkCount(n);
  chunkMoves_.resize(chunks);
  forEachChunk(n, chunks, settings_.threads, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    chunkMoves_[c].clear();
    const bool first = stamp == 1;
    for (std::size_t i = lo; i < hi; ++i) {
      if (!judgeNow[i]) continue;
      const Verdict v = first && !work_.verdictCarried.empty() && work_.verdictCarried[i]
                            ? carriedVerdict(i)
                            : judge(i);
      if (first) carryOutVerdict(i, v);
      off_[i] = v.off, unfitWhenJudged_[i] = v.unfit, judgedAt_[i] = stamp;
      if (v.zone >= 0) chunkMoves_[c].emplace_back(std::uint32_t(i), v);
    }
  });
  moves.clear();
  for (const auto& some : chunkMoves_) moves.insert(moves.end(), some.begin(), some.end());
}

RefineResult Refiner::run() {
  const std::size_t n = echoes_.size();
  std::vector<std::uint8_t>& judgeNow = work_.judgeNow;
  judgeNow.assign(n, 0);
  for (std::size_t i = settled_; i < n; ++i) judgeNow[i] = active(i), result_.judged += active(i);
  std::vector<std::pair<std::uint32_t, Verdict>>& moves = work_.moves;
  std::vector<std::uint32_t>& changedCells = work_.changedCells;
  std::vector<std::uint8_t>& nearChange = work_.nearChange;
  nearChange.assign(cells_.cellCount(), 0);
  if (settings_.runMinEchoes > 0) shiftRoughRuns();
  fillCells();
  markCarriedVerdicts();
  keepFirstPlacement();
  for (int iteration = 0; iteration < settings_.iterations; ++iteration) {
    const auto stamp = std::uint16_t(iteration + 1);
    judgeMarked(judgeNow, stamp, moves);
    keepSupportedMoves(moves);
    if (moves.empty()) break;
    applyMoves(moves, stamp, changedCells);
    // Only echoes near a move see a changed neighbourhood.
    markNearChanges(changedCells, nearChange);
    for (std::size_t i = settled_; i < n; ++i)
      judgeNow[i] = active(i) && nearChange[cells_.cellOf(emitter_[i])];
  }
  if (settings_.lineEndEchoes > 0) placeLineEnds(std::uint16_t(settings_.iterations + 1));
  markNoise();
  return result_;
}

}  // namespace FullWaveform::surface_fit
