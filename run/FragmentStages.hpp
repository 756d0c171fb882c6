// The stage sequence that takes one loaded fragment to its final zones: wave extraction, zone
// state, near-range removal, then the fixed zone or automatic resolution with the repair of
// uncertain zones. The driver runs it before classification and output; a host that inspects
// single fragments without writing anything runs the same sequence.
#pragma once

#include <functional>
#include <string>

#include "run/Export.hpp"
#include "run/Input.hpp"
#include "store/FatBoy.hpp"

namespace FullWaveform {

struct ZoneStageHooks {
  // Called between automatic resolution and the repair of uncertain zones.
  std::function<void(const FatBoy<unsigned short>&)> beforeRepair;
};

struct ZoneStagesResult {
  std::string text;       // non-empty: the message that ends the run
  bool resolved = false;  // false: the fragment is too small to resolve zones
};

// What a fragment hands on to the next (its shots in the run's index, the last of them
// carried) without resolving its zones: false when it is too small to hand on anything.
QUILLO_API bool prepareNextFragment(FatBoy<unsigned short>& fatBoy);

QUILLO_API ZoneStagesResult resolveFragmentZones(FatBoy<unsigned short>& fatBoy, const Input& input,
                                                 const ZoneStageHooks& hooks = {});

}  // namespace FullWaveform
