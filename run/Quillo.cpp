// The zone-resolution driver. Builds the store, walks the fragment range in ascending order
// with progress reports, and runs the per-fragment stages; the first stage that returns a
// text ends the run with it.
#include "run/Quillo.hpp"

#include <algorithm>

#include "classify/NoiseClassification.hpp"
#include "classify/OutputSplit.hpp"
#include "output/OutputAttributes.hpp"
#include "output/PointCloud.hpp"
#include "store/FatBoy.hpp"
#include "store/WaveExtraction.hpp"
#include "vorlap/Console.hpp"
#include "zones/ResolveMTA.hpp"
#include "zones/ZoneAssignment.hpp"
#include "zones/ZoneInit.hpp"

namespace FullWaveform {

namespace {

struct FragmentRange {
  std::uint32_t begin, end;
};

FragmentRange fragmentRange(const Input& input, std::uint32_t nFragments) {
  const std::uint32_t begin = input.fragBegin < 0 ? 0u : std::uint32_t(input.fragBegin);
  return {begin, std::min(input.fragEnd, nFragments)};
}

void reportProgress(const Input& input, std::uint32_t frag, std::uint32_t end) {
  if (auto sink = input.progress.lock()) sink->report("Frag# ", frag, end);
}

// The stages of one loaded fragment; the empty text lets the run go on.
std::string assignZones(FatBoy<unsigned short>& fatBoy, const Input& input) {
  if (input.MTA >= 0) return setFixedMTA(fatBoy);
  std::string result = resolveMTA(fatBoy);
  if (!result.empty()) return result;
  return repairUncertainMTA(fatBoy);
}

// What one run writes into: the output grids (either may be empty) and the point numbers.
struct Outputs {
  const Vorlap::StrongPtr<Tessal::Grid>& first;
  const Vorlap::StrongPtr<Tessal::Grid>& second;
  std::uint32_t pointIdCounter = 0;
};

std::string writePointClouds(FatBoy<unsigned short>& fatBoy, const Input& input, Outputs& out) {
  const WaveIndexLists lists = splitWaves(fatBoy);
  if (out.first) {
    std::string result = makePointCloud(fatBoy, lists.first, out.first, out.pointIdCounter, input);
    if (!result.empty()) return result;
  }
  if (out.second)
    return makePointCloud(fatBoy, lists.second, out.second, out.pointIdCounter, input);
  return "";
}

std::string processFragment(FatBoy<unsigned short>& fatBoy, const Input& input, Outputs& out) {
  std::string result = iniWavePoints(fatBoy);
  if (!result.empty()) return result;
  if (!fatBoy.iniMTA()) return "";
  result = removeNearRangeWaves(fatBoy);
  if (!result.empty()) return result;
  result = assignZones(fatBoy, input);
  if (!result.empty()) return result;
  classifyNoise(fatBoy);
  return writePointClouds(fatBoy, input, out);
}

std::string runFragments(FatBoy<unsigned short>& fatBoy, const Input& input, Outputs& out) {
  const FragmentRange range = fragmentRange(input, fatBoy.nFragments);
  for (std::uint32_t frag = range.begin; frag < range.end; ++frag) {
    reportProgress(input, frag, range.end);
    if (!fatBoy.ini(frag)) {
      Vorlap::Console() << "Warning! Broken Fragment for FragNr " << frag << ". Skipping...";
      continue;
    }
    std::string result = processFragment(fatBoy, input, out);
    if (!result.empty()) return result;
  }
  return "";
}

std::string attachAttributes(FatBoy<unsigned short>& fatBoy, Outputs& out) {
  if (out.first) {
    std::string result = addAttributes(out.first, fatBoy);
    if (!result.empty()) return result;
  }
  if (out.second) return addAttributes(out.second, fatBoy);
  return "";
}

}  // namespace

template <class T>
std::string Quillo(Tessal::BundlePtr& bundle, const Vorlap::StrongPtr<Tessal::Grid>& first,
                   const Vorlap::StrongPtr<Tessal::Grid>& second, const Input& input) {
  FatBoy<unsigned short> fatBoy(bundle, input);
  if (!fatBoy()) return "Quillo: Could not create Fatboy";
  Outputs out{first, second};
  std::string result = runFragments(fatBoy, input, out);
  if (!result.empty()) return result;
  return attachAttributes(fatBoy, out);
}

template QUILLO_API std::string Quillo<unsigned short>(Tessal::BundlePtr&,
                                                       const Vorlap::StrongPtr<Tessal::Grid>&,
                                                       const Vorlap::StrongPtr<Tessal::Grid>&,
                                                       const Input&);

}  // namespace FullWaveform
