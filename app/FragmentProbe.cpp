#include "app/FragmentProbe.hpp"

#include "app/CliError.hpp"
#include "store/FatBoy.hpp"
#include "store/WaveExtraction.hpp"
#include "zones/ResolveMTA.hpp"
#include "zones/ZoneAssignment.hpp"
#include "zones/ZoneInit.hpp"

namespace quillo::cli {

struct FragmentProbe::Impl {
  Impl(Tessal::BundlePtr& bundle, const FullWaveform::Input& in)
      : input(in), store(bundle, input) {}
  FullWaveform::Input input;
  FullWaveform::FatBoy<unsigned short> store;
};

FragmentProbe::FragmentProbe(Tessal::BundlePtr& bundle, const FullWaveform::Input& input)
    : impl_(new Impl(bundle, input)) {
  if (!impl_->store()) {
    delete impl_;
    throw CliError(kInput, "the input has no usable Shots grid or scanner description");
  }
}

FragmentProbe::~FragmentProbe() {
  delete impl_;
}

std::uint32_t FragmentProbe::fragmentCount() const {
  return impl_->store.nFragments;
}

namespace {

std::uint32_t countUncertain(const FullWaveform::FatBoy<unsigned short>& fb) {
  std::uint32_t n = 0;
  for (std::uint32_t i = 0; i < fb.nWaves; ++i)
    if (fb.wavePoints[i] && !fb.isCertainMTA(i)) ++n;
  return n;
}

}  // namespace

FragmentReport FragmentProbe::inspect(std::uint32_t fragment) {
  auto& fb = impl_->store;
  FragmentReport r;
  if (!fb.ini(fragment)) return r;
  const std::string error = FullWaveform::iniWavePoints(fb);
  if (!error.empty()) throw CliError(kInput, error);
  if (!fb.iniMTA()) return r;
  FullWaveform::removeNearRangeWaves(fb);
  if (impl_->input.MTA >= 0) {
    FullWaveform::setFixedMTA(fb);
  } else {
    FullWaveform::resolveMTA(fb);
    r.uncertain = countUncertain(fb);
    const std::vector<std::int32_t> before = fb.mta;
    FullWaveform::repairUncertainMTA(fb);
    for (std::uint32_t i = 0; i < fb.nWaves; ++i)
      if (fb.wavePoints[i] && !fb.isCertainMTA(i) && fb.mta[i] != before[i]) ++r.repaired;
  }
  r.processed = true;
  r.waves = fb.nWaves;
  r.histogram = fb.printHist();
  return r;
}

}  // namespace quillo::cli
