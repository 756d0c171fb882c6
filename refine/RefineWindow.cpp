// The refinement over a moving window of fragments. Reads the fragments' shots and echoes as
// they are added; writes, per block of fragments, the block's new zones and flags. Each
// block is refined with `contextLines` scan lines after it (their results dropped) and
// `settledLines` before it (final already, read as neighbours), so an echo near a block's
// edge is judged against nearly the same neighbours as over the whole strip.
#include "refine/RefineWindow.hpp"

#include <algorithm>
#include <cmath>

#include "output/PointGeometry.hpp"
#include "refine/LargeArrays.hpp"
#include "refine/ScanLines.hpp"

namespace FullWaveform {

RefineWindow::RefineWindow(double lightSpeed, bool radial, const RefineSettings& settings,
                           const WindowSettings& window)
    : lightSpeed_(lightSpeed), radial_(radial), settings_(settings), window_(window) {}

void RefineWindow::add(std::uint64_t key, FragmentShots shots, std::vector<WindowEcho> echoes) {
  Held h{key, shotsSeen_, std::move(shots), {}, std::move(echoes), {}, {}, {}, {}, {}, {}, {}};
  h.angle.resize(h.shots.time.size());
  for (std::size_t s = 0; s < h.shots.time.size(); ++s) {
    const double a = h.angle[s] = scanAngleOf(h.shots.direction[s], radial_, lastAngle_);
    if (shotsSeen_ == 0 || startsScanLine(lastAngle_, a, lastOrigin_, h.shots.origin[s]))
      h.lineStarts.push_back(shotsSeen_);
    lastAngle_ = a, lastOrigin_ = h.shots.origin[s];
    ++shotsSeen_;
  }
  held_.push_back(std::move(h));
}

std::vector<std::uint64_t> RefineWindow::lineStarts() const {
  std::vector<std::uint64_t> starts;
  for (const Held& h : held_) starts.insert(starts.end(), h.lineStarts.begin(), h.lineStarts.end());
  return starts;
}

namespace {

// The index of the line holding strip position `at` (-1: one that started before the held
// fragments).
std::int64_t lineOf(const std::vector<std::uint64_t>& starts, std::uint64_t at) {
  return std::int64_t(std::upper_bound(starts.begin(), starts.end(), at) - starts.begin()) - 1;
}

}  // namespace

// The next block (the first fragments not yet refined, holding `blockLines` line starts or
// more) and its window; false while its look-ahead has not come in.
bool RefineWindow::nextSpan(bool last, Span& span) const {
  std::size_t p = 0;
  while (p < held_.size() && held_[p].done) ++p;
  if (p == held_.size()) return false;
  std::size_t q = p, lines = 0;
  while (q < held_.size() && (window_.blockLines <= 0 || lines < std::size_t(window_.blockLines)))
    lines += held_[q++].lineStarts.size();
  if (q == held_.size() && !last) return false;
  const std::vector<std::uint64_t> starts = lineStarts();
  const auto context = std::int64_t(window_.contextLines);
  const std::uint64_t blockFirst = held_[p].firstShot, held = shotsSeen_;
  const std::uint64_t blockEnd = held_[q - 1].firstShot + held_[q - 1].shots.time.size();
  const std::int64_t first = lineOf(starts, blockFirst) - window_.settledLines;
  span.blockEnd = q;
  span.first = first >= 0 ? starts[std::size_t(first)] : held_.front().firstShot;
  if (window_.blockLines <= 0) span.first = held_.front().firstShot;
  const std::int64_t after = lineOf(starts, blockEnd == 0 ? 0 : blockEnd - 1) + context + 1;
  if (after >= 0 && std::size_t(after) < starts.size() && window_.blockLines > 0)
    span.end = starts[std::size_t(after)];
  else if (last)
    span.end = held;
  else
    return false;
  return true;
}

namespace {

void appendShots(const FragmentShots& from, const LargeVector<double>& angle, std::size_t lo,
                 std::size_t hi, ShotTable& to) {
  to.angle.insert(to.angle.end(), angle.begin() + lo, angle.begin() + hi);
  to.time.insert(to.time.end(), from.time.begin() + lo, from.time.begin() + hi);
  to.origin.insert(to.origin.end(), from.origin.begin() + lo, from.origin.begin() + hi);
  to.direction.insert(to.direction.end(), from.direction.begin() + lo, from.direction.begin() + hi);
}

}  // namespace

void RefineWindow::refineSpan(const Span& span,
                              const std::function<void(const RefinedBlock&)>& apply) {
  // The arrays of the last block are filled again: their memory is not asked for anew (fresh
  // pages cost as much as copying into them).
  ShotTable& table = table_;
  RefineEchoes& echoes = echoes_;
  table.lightSpeed = lightSpeed_, table.radial = radial_;
  table.time.clear(), table.origin.clear(), table.direction.clear(), table.angle.clear();
  echoes.clear();
  std::size_t shots = 0, given = 0;
  for (const Held& h : held_) {
    const std::uint64_t lo = std::max(h.firstShot, span.first);
    const std::uint64_t hi = std::min(h.firstShot + h.shots.time.size(), span.end);
    shots += lo < hi ? hi - lo : 0, given += h.echoes.size();
  }
  reserveWithRoom(table.time, shots), reserveWithRoom(table.origin, shots);
  reserveWithRoom(table.direction, shots), reserveWithRoom(table.angle, shots);
  reserveWithRoom(echoes, given);
  for (const Held& h : held_) {
    const std::uint64_t lo = std::max(h.firstShot, span.first);
    const std::uint64_t hi = std::min(h.firstShot + h.shots.time.size(), span.end);
    if (lo < hi) appendShots(h.shots, h.angle, lo - h.firstShot, hi - h.firstShot, table);
  }
  sortByTime(table);
  std::vector<RefinedBlock::Fragment> block;
  std::uint32_t hint = 0;
  // Refined fragments first, then the block, then its context.
  BlockBounds bounds{0, SIZE_MAX, &given_, &found_, &givenVerdicts_, &foundVerdicts_};
  given_.state.clear(), given_.span.clear(), given_.zones.clear();
  givenVerdicts_.state.clear(), givenVerdicts_.zone.clear(), givenVerdicts_.moveTo.clear();
  at_.resize(held_.size());
  for (std::size_t k = 0; k < held_.size(); ++k) {
    if (k == span.blockEnd) bounds.kept = echoes.size();
    std::vector<std::int64_t>& at = at_[k];
    at.clear();
    for (const WindowEcho& e : held_[k].echoes) {
      const bool found = !table.time.empty() && e.shotTime >= table.time.front() &&
                         e.shotTime <= table.time.back() && findShot(table.time, e.shotTime, hint);
      at.push_back(found ? std::int64_t(echoes.size()) : -1);
      if (found) echoes.push_back({hint, e.oneWayTime, e.zone, e.noise, e.channel, e.amplitude});
    }
    carryIn(held_[k], at);
    if (held_[k].done) bounds.settled = echoes.size();
    if (!held_[k].done && k < span.blockEnd) block.push_back({held_[k].key, at});
  }
  // A refinement that finds nothing leaves nothing behind.
  found_.state.clear(), foundVerdicts_.state.clear(), foundVerdicts_.digest.clear();
  const RefineResult result = refineBlock(table, echoes, settings_, bounds, scratch_);
  given_.zoneLimit = found_.zoneLimit;
  givenVerdicts_.lineTime.swap(foundVerdicts_.lineTime);
  givenVerdicts_.digest.swap(foundVerdicts_.digest);
  givenVerdicts_.firstBin = foundVerdicts_.firstBin,
  givenVerdicts_.binCount = foundVerdicts_.binCount;
  givenVerdicts_.maxZone = foundVerdicts_.maxZone;
  const RefinedBlock refined{table, echoes, result, std::move(block)};
  apply(refined);
  for (std::size_t k = 0, f = 0; k < held_.size(); ++k) {
    Held& h = held_[k];
    if (k >= span.blockEnd) {
      carryOut(h, at_[k]);
    } else if (!h.done) {
      settle(h, refined.fragments[f++].echo, table, echoes, result), h.done = true;
      h.alongState = {}, h.alongSpan = {}, h.alongZones = {};
      h.verdict = {}, h.judgedZone = {}, h.moveTo = {};
    }
  }
}

// Adds a fragment's carried along-line findings (its echoes at `at`) to those given to a block.
void RefineWindow::carryIn(const Held& h, const std::vector<std::int64_t>& at) {
  const bool has = !h.done && h.alongState.size() == at.size();
  for (std::size_t j = 0; j < at.size(); ++j) {
    if (at[j] < 0) continue;
    given_.state.push_back(has ? h.alongState[j] : 0);
    given_.span.push_back(has ? h.alongSpan[j] : 0);
    given_.zones.push_back(has ? h.alongZones[j] : 0);
    const bool judged = !h.done && h.verdict.size() == at.size();
    givenVerdicts_.state.push_back(judged ? h.verdict[j] : 0);
    givenVerdicts_.zone.push_back(judged ? h.judgedZone[j] : 0);
    givenVerdicts_.moveTo.push_back(judged ? h.moveTo[j] : 0);
  }
}

// Keeps what a block found of a context fragment's echoes (at `at`) for the next block.
void RefineWindow::carryOut(Held& h, const std::vector<std::int64_t>& at) const {
  const std::size_t n = found_.state.size();
  h.alongState.assign(at.size(), 0), h.alongSpan.assign(at.size(), 0);
  h.alongZones.assign(at.size(), 0);
  for (std::size_t j = 0; j < at.size(); ++j) {
    if (at[j] < 0 || std::size_t(at[j]) >= n) continue;
    const auto k = std::size_t(at[j]);
    h.alongState[j] = found_.state[k], h.alongSpan[j] = found_.span[k];
    h.alongZones[j] = found_.zones[k];
  }
  const std::size_t judged = foundVerdicts_.state.size();
  h.verdict.assign(at.size(), 0), h.judgedZone.assign(at.size(), 0), h.moveTo.assign(at.size(), 0);
  for (std::size_t j = 0; j < at.size(); ++j) {
    if (at[j] < 0 || std::size_t(at[j]) >= judged) continue;
    const auto k = std::size_t(at[j]);
    h.verdict[j] = foundVerdicts_.state[k], h.judgedZone[j] = foundVerdicts_.zone[k];
    h.moveTo[j] = foundVerdicts_.moveTo[k];
  }
}

// Gives a refined fragment's echoes their final zones (`at`: each echo's position in the
// block's arrays, -1 where it was not placed): the next block reads them as they are, as
// neighbours, instead of refining them again.
void RefineWindow::settle(Held& h, const std::vector<std::int64_t>& at, const ShotTable& table,
                          const RefineEchoes& echoes, const RefineResult& result) {
  for (std::size_t j = 0; j < at.size(); ++j) {
    if (at[j] < 0) continue;
    const auto k = std::size_t(at[j]);
    const RefineEcho& was = echoes[k];
    if (result.zone[k] == was.zone) continue;
    const auto to = std::uint32_t(std::int64_t(was.emitter) + was.zone - result.zone[k]);
    WindowEcho& e = h.echoes[j];
    e.oneWayTime = oneWayTimeFrom(was.oneWayTime, table.time[was.emitter], table.time[to]);
    e.shotTime = table.time[to], e.zone = result.zone[k];
  }
}

// Lets go of the refined fragments whose shots all lie before `position`.
void RefineWindow::dropBefore(std::uint64_t position) {
  std::size_t k = 0;
  while (k < held_.size() && held_[k].done &&
         held_[k].firstShot + held_[k].shots.time.size() <= position)
    ++k;
  held_.erase(held_.begin(), held_.begin() + std::ptrdiff_t(k));
}

std::size_t RefineWindow::refineReady(bool last,
                                      const std::function<void(const RefinedBlock&)>& apply) {
  std::size_t handed = 0;
  Span span{};
  while (nextSpan(last, span)) {
    for (std::size_t k = 0; k < span.blockEnd; ++k) handed += !held_[k].done;
    refineSpan(span, apply);
    // The next block reads `settledLines` lines before its first shot.
    const std::vector<std::uint64_t> starts = lineStarts();
    std::size_t p = 0;
    while (p < held_.size() && held_[p].done) ++p;
    const std::uint64_t next = p < held_.size() ? held_[p].firstShot : shotsSeen_;
    const std::int64_t first = lineOf(starts, next) - window_.settledLines;
    if (first >= 0) dropBefore(starts[std::size_t(first)]);
  }
  return handed;
}

void sortByTime(ShotTable& table) {
  if (std::is_sorted(table.time.begin(), table.time.end())) return;
  std::vector<std::uint32_t> order(table.time.size());
  for (std::uint32_t k = 0; k < order.size(); ++k) order[k] = k;
  std::stable_sort(order.begin(), order.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return table.time[a] < table.time[b]; });
  ShotTable sorted;
  sorted.time.reserve(order.size()), sorted.origin.reserve(order.size());
  sorted.direction.reserve(order.size());
  const bool angles = table.angle.size() == table.time.size();
  for (const std::uint32_t k : order) {
    sorted.time.push_back(table.time[k]);
    sorted.origin.push_back(table.origin[k]);
    sorted.direction.push_back(table.direction[k]);
    if (angles) sorted.angle.push_back(table.angle[k]);
  }
  table.time.swap(sorted.time), table.origin.swap(sorted.origin);
  table.direction.swap(sorted.direction), table.angle.swap(sorted.angle);
}

bool findShot(const LargeVector<double>& times, double t, std::uint32_t& hint) {
  for (std::uint32_t k = hint; k < times.size() && k < hint + 16; ++k)
    if (times[k] == t) return hint = k, true;
  const auto it = std::lower_bound(times.begin(), times.end(), t);
  if (it == times.end() || *it != t) return false;
  hint = std::uint32_t(it - times.begin());
  return true;
}

}  // namespace FullWaveform
