// The module's entry point: one zone-resolution run over the requested fragments of an input
// bundle, writing up to two output grids. Returns the empty text on success, otherwise the
// message that ended the run.
#pragma once

#include <string>

#include "run/Export.hpp"
#include "run/Input.hpp"
#include "tessal/Bundle.hpp"

namespace FullWaveform {

template <class T>
QUILLO_API std::string Quillo(Tessal::BundlePtr& bundle,
                              const Vorlap::StrongPtr<Tessal::Grid>& firstOutput,
                              const Vorlap::StrongPtr<Tessal::Grid>& secondOutput,
                              const Input& input);

}  // namespace FullWaveform
