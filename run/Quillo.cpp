// The zone-resolution driver. Builds the store, walks the fragment range in ascending order
// with progress reports, and runs the per-fragment stages; the first stage that returns a
// text ends the run with it.
#include "run/Quillo.hpp"

#include <algorithm>

#include "classify/NoiseClassification.hpp"
#include "classify/OutputSplit.hpp"
#include "output/OutputAttributes.hpp"
#include "output/PointCloud.hpp"
#include "run/FragmentStages.hpp"
#include "store/FatBoy.hpp"
#include "vorlap/Console.hpp"

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

// Zones and travel times read from a shot-time index that lost scratch data are placeholders:
// the run ends before (or right after) they could reach an output.
std::string indexFailure(const FatBoy<unsigned short>& fatBoy) {
  const std::string& failure = fatBoy.shotTimeIndex.failure();
  return failure.empty() ? "" : "Quillo: " + failure;
}

std::string processFragment(FatBoy<unsigned short>& fatBoy, const Input& input, Outputs& out) {
  const ZoneStagesResult zones = resolveFragmentZones(fatBoy, input);
  if (!zones.text.empty()) return zones.text;
  if (!zones.resolved) return indexFailure(fatBoy);
  classifyNoise(fatBoy);
  std::string result = indexFailure(fatBoy);
  if (!result.empty()) return result;
  result = writePointClouds(fatBoy, input, out);
  return result.empty() ? indexFailure(fatBoy) : result;
}

std::string runFragments(FatBoy<unsigned short>& fatBoy, const Input& input, Outputs& out) {
  const FragmentRange range = fragmentRange(input, fatBoy.nFragments);
  for (std::uint32_t frag = range.begin; frag < range.end; ++frag) {
    reportProgress(input, frag, range.end);
    if (!fatBoy.ini(frag)) {
      Vorlap::Console() << "Warning! Broken Fragment for FragNr " << frag << ". Skipping...";
      continue;
    }
    if (frag < input.carryOnlyBelow) {
      prepareNextFragment(fatBoy);
      continue;
    }
    std::string result = processFragment(fatBoy, input, out);
    if (!result.empty()) return result;
    if (input.dropInputsAfterFragment) fatBoy.dropWaveArrays();
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
