#include "app/FragmentProbe.hpp"

#include "app/CliError.hpp"
#include "run/FragmentStages.hpp"
#include "store/FatBoy.hpp"

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
  std::vector<std::int32_t> beforeRepair;
  FullWaveform::ZoneStageHooks hooks;
  hooks.beforeRepair = [&](const FullWaveform::FatBoy<unsigned short>& resolved) {
    r.uncertain = countUncertain(resolved);
    beforeRepair = resolved.mta;
  };
  const auto zones = FullWaveform::resolveFragmentZones(fb, impl_->input, hooks);
  if (!zones.text.empty()) throw CliError(kInput, zones.text);
  if (!zones.resolved) return r;
  for (std::uint32_t i = 0; i < fb.nWaves && !beforeRepair.empty(); ++i)
    if (fb.wavePoints[i] && !fb.isCertainMTA(i) && fb.mta[i] != beforeRepair[i]) ++r.repaired;
  r.processed = true;
  r.waves = fb.nWaves;
  r.histogram = fb.printHist();
  return r;
}

}  // namespace quillo::cli
