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
  const std::size_t count = shots.time.size();
  Held h{key, shotsSeen_, count, std::move(echoes), {}, {}, {}, {}, {}, {}, {}};
  if (strip_.time.empty()) stripFirst_ = shotsSeen_;
  const std::size_t held = strip_.time.size() + count;
  reserveWithRoom(strip_.time, held), reserveWithRoom(strip_.origin, held);
  reserveWithRoom(strip_.direction, held), reserveWithRoom(strip_.angle, held);
  for (std::size_t s = 0; s < count; ++s) {
    const double a = scanAngleOf(shots.direction[s], radial_, lastAngle_);
    strip_.angle.push_back(a);
    if (shotsSeen_ == 0 || startsScanLine(lastAngle_, a, lastOrigin_, shots.origin[s]))
      h.lineStarts.push_back(shotsSeen_);
    lastAngle_ = a, lastOrigin_ = shots.origin[s];
    ++shotsSeen_;
  }
  strip_.time.insert(strip_.time.end(), shots.time.begin(), shots.time.end());
  strip_.origin.insert(strip_.origin.end(), shots.origin.begin(), shots.origin.end());
  strip_.direction.insert(strip_.direction.end(), shots.direction.begin(), shots.direction.end());
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
  const std::uint64_t blockEnd = held_[q - 1].firstShot + held_[q - 1].shotCount;
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

template <class V>
void moveTail(V& from, std::size_t at, V& to) {
  to.assign(from.begin() + std::ptrdiff_t(at), from.end());
  from.resize(at);
}

template <class V>
void eraseFront(V& v, std::size_t count) {
  v.erase(v.begin(), v.begin() + std::ptrdiff_t(count));
}

}  // namespace

// Lets go of the strip's shots before strip position `position`: no later block reads them.
void RefineWindow::eraseStripBefore(std::uint64_t position) {
  const std::size_t front =
      std::size_t(std::min(std::max(position, stripFirst_) - stripFirst_, strip_.time.size()));
  eraseFront(strip_.time, front), eraseFront(strip_.origin, front);
  eraseFront(strip_.direction, front), eraseFront(strip_.angle, front);
  stripFirst_ += front;
}

// Cuts the strip to the span's shots: those after it wait in `tail_`.
void RefineWindow::trimStrip(const Span& span) {
  eraseStripBefore(span.first);
  const std::size_t end = std::min(std::size_t(span.end - stripFirst_), strip_.time.size());
  moveTail(strip_.time, end, tail_.time), moveTail(strip_.origin, end, tail_.origin);
  moveTail(strip_.direction, end, tail_.direction), moveTail(strip_.angle, end, tail_.angle);
}

void RefineWindow::restoreStrip() {
  strip_.time.insert(strip_.time.end(), tail_.time.begin(), tail_.time.end());
  strip_.origin.insert(strip_.origin.end(), tail_.origin.begin(), tail_.origin.end());
  strip_.direction.insert(strip_.direction.end(), tail_.direction.begin(), tail_.direction.end());
  strip_.angle.insert(strip_.angle.end(), tail_.angle.begin(), tail_.angle.end());
}

void RefineWindow::refineSpan(const Span& span,
                              const std::function<void(const RefinedBlock&)>& apply) {
  // The echoes' array of the last block is filled again: its memory is not asked for anew
  // (fresh pages cost as much as copying into them).
  RefineEchoes& echoes = echoes_;
  echoes.clear();
  // At most the echoes of the fragments from the span's first shot on: an echo is emitted
  // before it is recorded.
  std::size_t given = 0;
  for (const Held& h : held_)
    if (h.firstShot + h.shotCount > span.first) given += h.echoes.size();
  reserveWithRoom(echoes, given);
  reserveWithRoom(given_.state, given), reserveWithRoom(given_.span, given);
  reserveWithRoom(given_.zones, given), reserveWithRoom(givenVerdicts_.state, given);
  reserveWithRoom(givenVerdicts_.zone, given), reserveWithRoom(givenVerdicts_.moveTo, given);
  trimStrip(span);
  strip_.lightSpeed = lightSpeed_, strip_.radial = radial_;
  // Fragments normally come in time order; where they do not, the block works on a sorted copy.
  ShotTable sorted;
  const bool inOrder = std::is_sorted(strip_.time.begin(), strip_.time.end());
  if (!inOrder) {
    sorted.time = strip_.time, sorted.origin = strip_.origin;
    sorted.direction = strip_.direction, sorted.angle = strip_.angle;
    sorted.lightSpeed = lightSpeed_, sorted.radial = radial_;
    sortByTime(sorted);
  }
  const ShotTable& table = inOrder ? strip_ : sorted;
  std::vector<RefinedBlock::Fragment> block;
  std::uint32_t hint = 0;
  // Refined fragments first, then the block, then its context.
  BlockBounds bounds{0, SIZE_MAX, &given_, &found_, &givenVerdicts_, &foundVerdicts_};
  given_.state.clear(), given_.span.clear(), given_.zones.clear();
  givenVerdicts_.state.clear(), givenVerdicts_.zone.clear(), givenVerdicts_.moveTo.clear();
  at_.resize(held_.size());
  for (std::size_t k = 0; k < held_.size(); ++k) {
    if (k == span.blockEnd) bounds.kept = echoes.size();
    std::vector<std::int32_t>& at = at_[k];
    at.clear(), at.reserve(held_[k].echoes.size());
    for (const WindowEcho& e : held_[k].echoes) {
      const bool found = !table.time.empty() && e.shotTime >= table.time.front() &&
                         e.shotTime <= table.time.back() && findShot(table.time, e.shotTime, hint);
      at.push_back(found ? std::int32_t(echoes.size()) : -1);
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
  for (std::size_t k = 0; k < held_.size(); ++k) {
    Held& h = held_[k];
    if (k >= span.blockEnd) {
      carryOut(h, at_[k]);
    } else if (!h.done) {
      settle(h, at_[k], table, echoes, result), h.done = true;
      h.alongState = {}, h.alongSpan = {}, h.alongZones = {};
      h.verdict = {}, h.judgedZone = {}, h.moveTo = {};
    }
  }
  restoreStrip();
}

// Adds a fragment's carried along-line findings (its echoes at `at`) to those given to a block.
void RefineWindow::carryIn(const Held& h, const std::vector<std::int32_t>& at) {
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
void RefineWindow::carryOut(Held& h, const std::vector<std::int32_t>& at) const {
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
void RefineWindow::settle(Held& h, const std::vector<std::int32_t>& at, const ShotTable& table,
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
  while (k < held_.size() && held_[k].done && held_[k].firstShot + held_[k].shotCount <= position)
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
    if (first >= 0)
      dropBefore(starts[std::size_t(first)]), eraseStripBefore(starts[std::size_t(first)]);
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
