// Online evaluation: consecutive echo records of one shot time and channel become one wave
// (echo time = two-way time of the range, echoes ordered by range, point types by place).
// Records with a NaN time or a NaN or negative range are skipped; arrays of different
// lengths are read up to the shortest, with a console warning.
#include "waveform/OnlineEvaluation.hpp"

#include <algorithm>
#include <cmath>

#include "vorlap/Console.hpp"

namespace FullWaveform {

namespace {

template <class A>
std::size_t sizeOf(const A& a) {
  return a ? a->size() : 0;
}

void assignPointTypes(std::vector<EchoPoint>& echoes) {
  const std::size_t n = echoes.size();
  for (std::size_t k = 0; k < n; ++k) {
    TYPE t = TYPE_INTERMEDIATE;
    if (n == 1)
      t = TYPE_SINGLE;
    else if (k == 0)
      t = TYPE_FIRST;
    else if (k == n - 1)
      t = TYPE_LAST;
    echoes[k].pointType = t;
  }
}

template <class T>
void finishWave(WavePoints<T>& w) {
  std::stable_sort(w.echoes.begin(), w.echoes.end(),
                   [](const EchoPoint& a, const EchoPoint& b) { return a.time < b.time; });
  assignPointTypes(w.echoes);
  w.timeOffset = w.echoes.front().time;
  for (const auto& e : w.echoes) w.amplitude = std::max(w.amplitude, e.amplitude);
}

}  // namespace

template <class T>
typename OnlineEvaluation<T>::WaveList OnlineEvaluation<T>::apply(
    const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& gpsTime,
    const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& range,
    const Vorlap::StrongPtr<Tessal::MemArray<1, float>>& amplitude,
    const Vorlap::StrongPtr<Tessal::MemArray<1, std::uint8_t>>& channel,
    const Vorlap::StrongPtr<Tessal::MemArray<1, float>>& reflectance, WavePool<T>* pool) const {
  WaveList waves;
  if (!gpsTime || !range || !amplitude || !channel) return waves;
  const std::size_t n =
      std::min({sizeOf(gpsTime), sizeOf(range), sizeOf(amplitude), sizeOf(channel)});
  if (n != sizeOf(gpsTime) || (reflectance && sizeOf(reflectance) < n))
    Vorlap::Console() << "OnlineEvaluation: echo record arrays differ in length; reading " << n
                      << " records";
  const double toTime = 2.0 / scanner_.lightSpeed;
  Vorlap::StrongPtr<WavePoints<T>> current;
  for (std::size_t k = 0; k < n; ++k) {
    const double t = gpsTime->get(k), r = range->get(k);
    if (std::isnan(t) || !(r >= 0.0)) continue;
    const std::uint8_t ch = channel->get(k);
    if (!current || current->waveTime != t || current->channel != ch) {
      if (current) finishWave(*current);
      current = pool ? pool->take() : Vorlap::makeStrong<WavePoints<T>>();
      current->waveTime = t;
      current->channel = ch;
      current->amplitudeExempt = true;
      waves.push_back(current);
    }
    EchoPoint e;
    e.time = r * toTime;
    e.amplitude = amplitude->get(k);
    e.reflectance = reflectance && k < reflectance->size() ? reflectance->get(k) : 0.0f;
    e.classification = Quorvane::DrelmClass::unclassified;
    current->echoes.push_back(e);
  }
  if (current) finishWave(*current);
  return waves;
}

template class OnlineEvaluation<unsigned short>;

}  // namespace FullWaveform
