// One input grid of a run ("Shots", "Waveforms" or "OPP") with the arrays of the fragment
// that is loaded now. The arrays are the host's own (shared handles, never copies).
#pragma once

#include <cstdint>
#include <string>

#include "gemwold/PhysicalSpace.hpp"
#include "tessal/Bundle.hpp"

namespace FullWaveform {

template <class E>
using Array1 = Vorlap::StrongPtr<Tessal::MemArray<1, E>>;
using PointArray = Array1<Gemwold::PhysicalSpace::point>;
using VectorArray = Array1<Gemwold::PhysicalSpace::vector>;

struct SHOT_Data {
  Array1<double> GPSTime;
  VectorArray DirectionDelta;  // field "Waveforms.DirectionDelta"
  PointArray Positions;
};

struct FWF_Data {
  Array1<double> GPSTime;
  Array1<std::uint16_t> FWFLength;
  Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>> Waveforms;
  Array1<std::uint8_t> Channel;
  Array1<double> SBL_Time;
};

struct OPP_Data {
  Array1<double> GPSTime;
  Array1<double> Range;
  Array1<float> Amplitude;
  Array1<std::uint8_t> Channel;
  Array1<float> Reflectance;
};

template <class R>
class GridContainer : public Vorlap::ReferenceBase<GridContainer<R>> {
 public:
  GridContainer(Tessal::BundlePtr& bundle, const std::string& gridName, double time) {
    if (auto b = bundle.get()) {
      if (auto slice = (*b)[time]) G = (*slice)(gridName);
    }
  }

  // Declaration order gives the release order: the arrays, then the grid.
  Vorlap::StrongPtr<Tessal::Grid> G;
  R arrays;
  std::uint32_t fragNr = 0;
};

}  // namespace FullWaveform
