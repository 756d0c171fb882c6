// One output field of a fragment's point cloud: element type, the array being filled, and
// the field it was last stored into.
#pragma once

#include "tessal/Field.hpp"

namespace FullWaveform {

template <class E, unsigned N = 1>
struct FieldSlot {
  using Array = Tessal::MemArray<N, E>;
  Tessal::ElementType type = Tessal::ElementTraits<E>::type;
  Vorlap::StrongPtr<Array> data;
  Vorlap::StrongPtr<Tessal::Field> field;
};

}  // namespace FullWaveform
