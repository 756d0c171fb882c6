// Store construction: attaches the input grids, counts the fragments of the Shots
// positions and builds the scanner description. Reads the input bundle and run parameters;
// writes the containers, nFragments, scannerDevice and valid.
#include "store/FatBoy.hpp"
#include "tessal/Schema.hpp"
#include "vorlap/Console.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

template <class T>
FatBoy<T>::FatBoy(Tessal::BundlePtr& bundle, const Input& in) : input(&in) {
  if (bundle.isEmpty()) {
    Vorlap::Console() << "Brenno: Error Have no BP!";
    return;
  }
  double time = 0.0;
  auto slice = (*bundle.create())(time);
  if (!slice || !(*slice)(schema::kShotsGrid)) {
    Vorlap::Console() << "Brenno: Error Have no BP!";
    return;
  }
  if (!input->skipFWF && (*slice)(schema::kWaveformsGrid))
    FWF = Vorlap::makeStrong<GridContainer<FWF_Data>>(bundle, schema::kWaveformsGrid, 0.0);
  if (!input->skipOnline && (*slice)(schema::kOnlineGrid))
    OPP = Vorlap::makeStrong<GridContainer<OPP_Data>>(bundle, schema::kOnlineGrid, 0.0);
  SHOT = Vorlap::makeStrong<GridContainer<SHOT_Data>>(bundle, schema::kShotsGrid, 0.0);
  if (!SHOT->G) {
    Vorlap::Console() << "FatBoy::FatBoy Cannot ini SHOT->G.";
    return;
  }
  auto positions = (*SHOT->G)(schema::kPositions, "");
  if (!positions) return;
  nFragments = static_cast<std::uint32_t>(positions->getNumberOfFragments());
  scannerDevice = ScannerDevice(SHOT->G, FWF ? FWF->G : Vorlap::StrongPtr<Tessal::Grid>());
  if (!scannerDevice()) {
    Vorlap::Console() << "FatBoy::FatBoy Cannot ini scannerDevice.";
    return;
  }
  scannerDevice.speak();
  valid = true;
}

template FatBoy<unsigned short>::FatBoy(Tessal::BundlePtr&, const Input&);

}  // namespace FullWaveform
