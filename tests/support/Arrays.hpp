// Small helpers that build data-model arrays and fields for tests.
#pragma once

#include <string>
#include <vector>

#include "tessal/Bundle.hpp"

namespace quillo::test {

// A contiguous one-dimensional array holding `values`.
template <class T>
Vorlap::StrongPtr<Tessal::MemArray<1, T>> makeArray(const std::vector<T>& values) {
  auto a = Vorlap::makeStrong<Tessal::MemArray<1, T>>(values.size());
  for (std::size_t k = 0; k < values.size(); ++k) a->set(k, values[k]);
  return a;
}

// A view of `values` spread out with the given offset and stride (gaps hold `filler`).
template <class T>
Vorlap::StrongPtr<Tessal::MemArray<1, T>> makeStridedArray(const std::vector<T>& values,
                                                           std::size_t offset, std::size_t stride,
                                                           T filler = T{}) {
  auto block = Vorlap::makeStrong<Tessal::DataBlock<T>>();
  block->values.assign((values.size() + offset) * stride, filler);
  for (std::size_t k = 0; k < values.size(); ++k) block->values[(k + offset) * stride] = values[k];
  return Vorlap::makeStrong<Tessal::MemArray<1, T>>(
      typename Tessal::MemArray<1, T>::Extents{values.size()}, block, offset, stride);
}

// Stores `array` as fragment `fragmentName` of field `fieldName` in representation `rep`.
void storeFragment(Tessal::Representation& rep, const std::string& fieldName,
                   const std::string& fragmentName,
                   const Vorlap::StrongPtr<Tessal::MemBase>& array);

// The array that fragment `fragmentName` of field `fieldName` of the grid's
// "ScannerCoordinateSystem" holds; empty when the field, the fragment or an array of type A
// is missing.
template <class A>
Vorlap::StrongPtr<A> storedFragment(const Vorlap::StrongPtr<Tessal::Grid>& grid,
                                    const std::string& fieldName,
                                    const std::string& fragmentName = "Fragment_0") {
  auto field = (*grid)(fieldName, "ScannerCoordinateSystem");
  if (!field) return {};
  auto id = field->getFragmentIDCollection()->findFragmentIDByName(fragmentName);
  if (!id) return {};
  auto creator = field->getCreator(id);
  return creator ? Vorlap::dynamicPtrCast<A>(creator->heldData()) : Vorlap::StrongPtr<A>();
}

}  // namespace quillo::test
