// Per-fragment loading: makes a fragment current and fetches the arrays of the three grid
// containers. Reads the input grids; writes fragmentName, the containers' fragNr and arrays.
#include "store/FragmentLoading.hpp"

#include "store/FatBoy.hpp"

namespace FullWaveform {

std::string fragmentNameOf(std::uint32_t fragNr) {
  return "Fragment_" + std::to_string(fragNr);
}

namespace {

using Tessal::MemArray;
using namespace Gemwold::PhysicalSpace;

// Shots arrays are required too: every query reads them.
bool loadShots(GridContainer<SHOT_Data>& shots) {
  auto& a = shots.arrays;
  a.Positions = fetchFragmentArray<MemArray<1, point>>(shots, "Positions");
  a.GPSTime = fetchFragmentArray<MemArray<1, double>>(shots, "GPSTime");
  a.DirectionDelta = fetchFragmentArray<MemArray<1, vector>>(shots, "Waveforms.DirectionDelta");
  if (!a.Positions || !a.GPSTime || !a.DirectionDelta) return false;
  // Arrays of different lengths would let a query read past the shorter one.
  const auto n = a.GPSTime->size();
  return a.Positions->size() == n && a.DirectionDelta->size() == n;
}

bool loadWaveforms(GridContainer<FWF_Data>& fwf) {
  auto& a = fwf.arrays;
  a.GPSTime = fetchFragmentArray<MemArray<1, double>>(fwf, "GPSTime");
  a.FWFLength = fetchFragmentArray<MemArray<1, std::uint16_t>>(fwf, "FWFLength");
  a.Waveforms = fetchFragmentArray<MemArray<2, std::uint16_t>>(fwf, "Waveforms");
  a.Channel = fetchFragmentArray<MemArray<1, std::uint8_t>>(fwf, "Channel");
  a.SBL_Time = fetchFragmentArray<MemArray<1, double>>(fwf, "SBL_Time");
  if (!a.GPSTime || !a.FWFLength || !a.Waveforms || !a.Channel || !a.SBL_Time) return false;
  const auto rows = a.Waveforms->extent(1);
  return a.GPSTime->size() == rows && a.FWFLength->size() == rows && a.Channel->size() == rows &&
         a.SBL_Time->size() == rows;
}

bool loadOnline(GridContainer<OPP_Data>& opp) {
  auto& a = opp.arrays;
  a.GPSTime = fetchFragmentArray<MemArray<1, double>>(opp, "GPSTime");
  a.Range = fetchFragmentArray<MemArray<1, double>>(opp, "Range");
  a.Amplitude = fetchFragmentArray<MemArray<1, float>>(opp, "Amplitude");
  a.Channel = fetchFragmentArray<MemArray<1, std::uint8_t>>(opp, "Channel");
  a.Reflectance = fetchFragmentArray<MemArray<1, float>>(opp, "Reflectance");
  if (!a.GPSTime || !a.Range || !a.Amplitude || !a.Channel) return false;
  const auto n = a.GPSTime->size();
  if (a.Range->size() != n || a.Amplitude->size() != n || a.Channel->size() != n) return false;
  if (a.Reflectance && a.Reflectance->size() != n) a.Reflectance.reset();
  // Online data without reflectance: zeros stand in.
  if (!a.Reflectance) a.Reflectance = Vorlap::makeStrong<MemArray<1, float>>(a.GPSTime->size());
  return true;
}

}  // namespace

template <class T>
bool FatBoy<T>::ini(const unsigned& fragNr) {
  SHOT->fragNr = fragNr;
  auto id = findFragmentID(*SHOT, "Positions");
  // Without the identifier there is no fragment to name, and no query could be answered.
  if (!id) return false;
  fragmentName = id->getName();
  if (!loadShots(*SHOT)) return false;
  if (FWF) {
    FWF->fragNr = fragNr;
    if (!loadWaveforms(*FWF)) return false;
  }
  if (OPP) {
    OPP->fragNr = fragNr;
    if (!loadOnline(*OPP)) return false;
  }
  return true;
}

template bool FatBoy<unsigned short>::ini(const unsigned&);

}  // namespace FullWaveform
