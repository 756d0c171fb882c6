// The stages from a loaded fragment to its final zones (see header). Reads the fragment's
// arrays through the store; writes its waves, zones, certainty and shot indices.
#include "run/FragmentStages.hpp"

#include "store/WaveExtraction.hpp"
#include "zones/ResolveMTA.hpp"
#include "zones/ZoneAssignment.hpp"
#include "zones/ZoneInit.hpp"

namespace FullWaveform {

namespace {

std::string assignZones(FatBoy<unsigned short>& fatBoy, const Input& input,
                        const ZoneStageHooks& hooks) {
  if (input.MTA >= 0) return setFixedMTA(fatBoy);
  std::string result = resolveMTA(fatBoy);
  if (!result.empty()) return result;
  if (hooks.beforeRepair) hooks.beforeRepair(fatBoy);
  return repairUncertainMTA(fatBoy);
}

}  // namespace

bool prepareNextFragment(FatBoy<unsigned short>& fatBoy) {
  // The waves are extracted as for a resolved fragment: iniMTA counts them, and the next
  // fragment reuses their objects.
  return iniWavePoints(fatBoy).empty() && fatBoy.iniMTA();
}

ZoneStagesResult resolveFragmentZones(FatBoy<unsigned short>& fatBoy, const Input& input,
                                      const ZoneStageHooks& hooks) {
  ZoneStagesResult r;
  r.text = iniWavePoints(fatBoy);
  if (!r.text.empty() || !fatBoy.iniMTA()) return r;
  r.text = removeNearRangeWaves(fatBoy);
  if (!r.text.empty()) return r;
  r.text = assignZones(fatBoy, input, hooks);
  r.resolved = r.text.empty();
  return r;
}

}  // namespace FullWaveform
