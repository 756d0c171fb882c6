// Processes single fragments of an input through the module's stages, to report on them
// (zone histogram, uncertain and repaired waves) without writing anything.
#pragma once

#include <cstdint>
#include <string>

#include "run/Input.hpp"
#include "tessal/Bundle.hpp"

namespace quillo::cli {

struct FragmentReport {
  bool processed = false;  // false: broken or too small fragment
  std::uint32_t waves = 0, uncertain = 0, repaired = 0;
  std::string histogram;  // the store's printHist text
};

class FragmentProbe {
 public:
  FragmentProbe(Tessal::BundlePtr& bundle, const FullWaveform::Input& input);
  ~FragmentProbe();
  std::uint32_t fragmentCount() const;
  // Fragments must be asked for in ascending order, as a run visits them.
  FragmentReport inspect(std::uint32_t fragment);

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace quillo::cli
