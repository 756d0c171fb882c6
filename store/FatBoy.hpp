// The per-run store. Built once per run from the input bundle and the run parameters, it
// holds the input grids, the current fragment's arrays and waves, the per-wave zone state
// and the output field slots, and answers the shot-geometry and travel-time queries. The
// stages are free functions that read and write its members directly.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "run/Export.hpp"
#include "run/Input.hpp"
#include "store/FieldSlot.hpp"
#include "store/GridContainer.hpp"
#include "store/ShotTimeIndex.hpp"
#include "waveform/ScannerDevice.hpp"
#include "waveform/WavePoints.hpp"
#include "waveform/WavePool.hpp"

namespace FullWaveform {

// Marks a travel time that does not exist or is not acceptable.
inline constexpr double NO_LENGTH = 9999999.0;

// What the zone stages read of a wave, copied once per fragment by iniMTA: they visit every
// wave several times, and the wave objects lie scattered in the heap.
struct WaveZoneInput {
  double waveTime = 0.0, timeOffset = 0.0;
  float amplitude = 0.0f;
  bool amplitudeExempt = false;
  bool noEchoes = false;
};

// A shot of an earlier fragment that a zone walk reached: kept so that a wave near the start
// of its fragment keeps its true shot time, origin and direction.
struct CarriedShot {
  double time = 0.0;
  Gemwold::PhysicalSpace::point position;
  Gemwold::PhysicalSpace::vector direction;
};

template <class T>
class QUILLO_API FatBoy {
 public:
  using WavePtr = Vorlap::StrongPtr<WavePoints<T>>;

  // shotIndex values with this bit set name an entry of carriedShots, not a local shot.
  static constexpr std::uint32_t kCarriedShotBit = 0x80000000u;
  // How many of the previous fragment's last shots stay reachable for zone walks.
  static constexpr std::size_t kCarriedShotCount = 32;

  FatBoy(Tessal::BundlePtr& bundle, const Input& input);
  FatBoy(const FatBoy&) = delete;
  FatBoy& operator=(const FatBoy&) = delete;

  bool operator()() const { return valid; }

  // Makes fragment `fragNr` the current one; false when its data are incomplete.
  bool ini(const unsigned& fragNr);
  // Lets the current fragment's waveform and online arrays go (the bulk of its input); the
  // Shots arrays stay, as the output's attributes are taken once a fragment was read.
  void dropWaveArrays();
  // The fragment's shot time of Shots entry s (s < nShots), as the GPSTime array holds it.
  double shotTimeAt(std::uint32_t s) const {
    return shotColumns_.set ? shotColumns_.time.at(s) : SHOT->arrays.GPSTime->get(s);
  }

  double getShotTime(const unsigned& i) const;
  Gemwold::PhysicalSpace::point getBeamCoords(const unsigned& i) const;
  Gemwold::PhysicalSpace::vector getDir(const unsigned& i) const;
  double getLength(const unsigned& i, const double& t) const;
  // atan2(d.x, d.z) and atan2(d.z, d.x) of wave i's direction d (that of getDir).
  double directionAtan2XZ(const unsigned& i) const;
  double directionAtan2ZX(const unsigned& i) const;
  void getLengthAccordingMTA(const unsigned& i, const int& dir, const unsigned& n,
                             const double& maxLength, double* out, const double& threshold) const;
  int getMTA(const unsigned& i) const { return mta[i]; }
  bool isCertainMTA(const unsigned& i) const { return certainMTA[i]; }

  bool iniMTA();
  void setMTA(const unsigned& i, const int& zone, const double& ratio);

  // Per-zone report (zones 0 to 7) of the current fragment.
  std::string printHist();

  // Sizes a new array for every output field that this run writes.
  void iniPointCloud(const std::vector<std::uint32_t>& waveIndices);
  // Stores the filled arrays as the current fragment of the representation's fields.
  void save(Tessal::Representation& representation);
  std::uint32_t nPoints = 0;

  const Input* input = nullptr;
  Vorlap::StrongPtr<GridContainer<OPP_Data>> OPP;
  Vorlap::StrongPtr<GridContainer<FWF_Data>> FWF;
  Vorlap::StrongPtr<GridContainer<SHOT_Data>> SHOT;
  std::uint32_t nFragments = 0;
  std::string fragmentName;
  // Why the last ini refused its fragment, or what it set aside (empty: nothing). The module
  // never prints it: the driver's "Broken Fragment" warning is the report; hosts may show it.
  std::string loadProblem;
  ScannerDevice scannerDevice;
  bool valid = false;
  std::vector<WavePtr> wavePoints;
  // The wave objects of the previous fragment, which the next one's waves reuse.
  WavePool<T> wavePool;
  // Asks for wave i's object ahead of its use: the objects lie scattered in the heap, and a
  // loop over every wave otherwise waits on each in turn. Beyond the end: nothing.
  static constexpr std::uint32_t kPrefetchAhead = 8;  // waves ahead that pays on the demo
  void prefetchWave(std::uint32_t i) const {
    if (i < wavePoints.size()) __builtin_prefetch(wavePoints[i].get());
  }
  // Whether slot i holds a wave. A handle kept in wavePoints holds its object alive, so its
  // pointer says as much as the full emptiness test, which reads the object's control block.
  bool hasWave(std::uint32_t i) const { return i < wavePoints.size() && wavePoints[i].get(); }
  // The zone inputs of every wave slot, filled by iniMTA (an empty slot's are zero); empty
  // from the extraction of a fragment's waves until then.
  std::vector<WaveZoneInput> zoneInputs;
  // Wave i's object changed after iniMTA in what the zone stages read: they see it now.
  void noteWaveChanged(std::uint32_t i) {
    if (i >= zoneInputs.size() || !hasWave(i)) return;
    const auto& w = *wavePoints[i];
    zoneInputs[i] = zoneInputOfObject(w);
  }
  // Wave i's zone inputs (hasWave(i)): from zoneInputs, or from its object before iniMTA.
  WaveZoneInput zoneInputOf(std::uint32_t i) const {
    if (i < zoneInputs.size()) return zoneInputs[i];
    return zoneInputOfObject(*wavePoints[i]);
  }
  static WaveZoneInput zoneInputOfObject(const WavePoints<T>& w) {
    return {w.waveTime, w.timeOffset, w.amplitude, w.amplitudeExempt, w.echoes.empty()};
  }
  std::vector<std::int32_t> fwfIndex;
  std::uint32_t nWaves = 0;
  ShotTimeIndex shotTimeIndex;
  ShotTimeIndex::const_iterator firstShot;
  ShotTimeIndex::const_iterator lastShot;
  ShotTimeIndex::const_iterator shotEnd;
  // The index entry of each wave's own recording shot as iniMTA found it (shotEnd when
  // none), so that the zone walks need not search the index again.
  std::vector<ShotTimeIndex::const_iterator> recordingShot;
  std::uint32_t nShots = 0;
  std::vector<std::int32_t> mta;
  std::vector<std::uint32_t> shotIndex;
  std::vector<bool> certainMTA;
  std::vector<std::uint32_t> zoneHist;
  double maxTravelTime = 0.0;
  std::vector<std::vector<std::uint32_t>> transitionTables;

  // The first fifteen output slots, built as a whole.
  struct PointFieldSlots {
    FieldSlot<std::uint32_t> PointID;
    FieldSlot<float> Reflectance;
    FieldSlot<std::int16_t> ScanAngleRank;
    FieldSlot<std::uint16_t> FWFLength;
    FieldSlot<float> WaveformPositionIndex;
    FieldSlot<std::uint16_t, 2> Waveforms;
    FieldSlot<std::uint8_t> NumberOfReturns;
    FieldSlot<std::uint8_t> ReturnNumber;
    FieldSlot<Gemwold::PhysicalSpace::vector> DirectionDelta;  // "Waveforms.DirectionDelta"
    FieldSlot<std::uint8_t> PointType;
    FieldSlot<std::uint8_t> Classification;
    FieldSlot<float> Damping;
    FieldSlot<double> PulseWidth;
    FieldSlot<double> Range;
    FieldSlot<float> Amplitude;
  } pointSlots;
  FieldSlot<std::uint8_t> slotScannerChannel;
  FieldSlot<std::uint8_t> slotMTA;
  FieldSlot<std::int32_t> slotWaveID;
  FieldSlot<Gemwold::PhysicalSpace::point> slotPositions;
  FieldSlot<double> slotGPSTime;

  // Shots of the previous fragment reachable by zone walks (see kCarriedShotBit), and the
  // tail of the current fragment that the next fragment will carry.
  std::vector<CarriedShot> carriedShots;
  std::vector<CarriedShot> pendingCarry;

 private:
  // The angles of directionAtan2XZ and ZX per shot of the fragment, worked out on first use
  // (kAngleUnset before): the scan-line stages take them several times per wave. They are
  // kept per shot, not per wave, as a wave's shot changes with its zone.
  static constexpr double kAngleUnset = 100.0;  // outside atan2's range
  mutable std::vector<double> shotAtan2XZ, shotAtan2ZX;
  template <class F>
  double cachedAngle(const unsigned& i, std::vector<double>& cache, F angle) const;

  // One Shots array of the fragment as strided storage (data nullptr: through get()).
  template <class V>
  struct ShotColumn {
    const V* data = nullptr;
    std::size_t stride = 1;
    const Tessal::MemArray<1, V>* array = nullptr;
    V at(std::uint32_t s) const { return data ? data[s * stride] : array->get(s); }
    void bind(const Array1<V>& a) {
      array = a.get();
      data = a->stridedData();
      stride = a->stride();
    }
  };
  // The fragment's Shots arrays as iniMTA found them, for queries of every wave and stage;
  // unset from the load of a fragment until its iniMTA (queries then read the arrays).
  struct ShotColumns {
    bool set = false;
    ShotColumn<double> time;
    ShotColumn<Gemwold::PhysicalSpace::point> position;
    ShotColumn<Gemwold::PhysicalSpace::vector> direction;
  } shotColumns_;
  void bindShotColumns();
  template <class V>
  static const ShotColumn<V>& column(const ShotColumns& c, V CarriedShot::*member);

  // One attribute of shot s: from this fragment's Shots arrays or from a carried shot.
  template <class V>
  bool readShot(std::uint32_t s, Array1<V> SHOT_Data::*array, V CarriedShot::*member, V& out) const;
  // The index entry whose time is the wave's time, else shotEnd.
  ShotTimeIndex::const_iterator recordingShotOf(const unsigned& i) const;
};

}  // namespace FullWaveform
