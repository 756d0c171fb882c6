// A store over one hand-made fragment whose waves the test sets directly.
#pragma once

#include <memory>
#include <vector>

#include "store/FatBoy.hpp"
#include "support/InputBundles.hpp"
#include "support/Waves.hpp"

namespace quillo::test {

class StoreFixture {
 public:
  // Shots at `times` (one fragment), then waves set by the caller, then iniMTA.
  explicit StoreFixture(const ShotFragment& shots, double pulseRate = 1.0e6)
      : bundle_(makeShotsBundle({shots}, pulseRate)),
        store(std::make_unique<FullWaveform::FatBoy<unsigned short>>(bundle_, input)) {
    loaded = (*store)() && store->ini(0);
  }
  StoreFixture(const StoreFixture&) = delete;  // the store points at `input`
  StoreFixture& operator=(const StoreFixture&) = delete;

  bool setWaves(std::vector<WavePtr> waves) {
    store->wavePoints = std::move(waves);
    return loaded && store->iniMTA();
  }
  FullWaveform::FatBoy<unsigned short>& fb() { return *store; }

  FullWaveform::Input input;

 private:
  Tessal::BundlePtr bundle_;

 public:
  std::unique_ptr<FullWaveform::FatBoy<unsigned short>> store;
  bool loaded = false;
};

}  // namespace quillo::test
