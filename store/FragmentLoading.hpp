// Fragment lookup and on-demand array fetching for the grid containers.
#pragma once

#include <string>

#include "store/GridContainer.hpp"

namespace FullWaveform {

// "Fragment_" followed by the number in decimal, without padding.
std::string fragmentNameOf(std::uint32_t fragNr);
// Where a message about a fragment points: "FILE, Fragment_N" (just the fragment without a
// file name).
std::string fragmentPlace(const std::string& fileName, const std::string& fragmentName);

// The identifier of the container's current fragment in the named field; empty when none.
template <class R>
Vorlap::StrongPtr<Tessal::FragmentID> findFragmentID(const GridContainer<R>& container,
                                                     const std::string& fieldName) {
  if (!container.G) return {};
  auto field = (*container.G)(fieldName, "");
  if (!field) return {};
  auto ids = field->getFragmentIDCollection();
  if (!ids) return {};
  return ids->findFragmentIDByName(fragmentNameOf(container.fragNr));
}

// The host's array for the current fragment of the named field, produced on demand and not
// cached by the host; empty when anything is missing or the element type differs.
template <class A, class R>
Vorlap::StrongPtr<A> fetchFragmentArray(const GridContainer<R>& container,
                                        const std::string& fieldName) {
  if (!container.G) return {};
  auto id = findFragmentID(container, fieldName);
  if (!id) return {};
  auto field = (*container.G)(fieldName, "");
  if (!field) return {};
  auto creator = field->getCreator(id);
  if (!creator) return {};
  Vorlap::StrongPtr<Tessal::MemBase> data = creator->heldData();
  if (data) {
    data->markAsUsed();
  } else {
    data = creator->create();
    if (!data) return {};
    data->setCreator(Vorlap::WeakPtr<Vorlap::Creature>(creator));
    creator->enableCaching(false);
    creator->lend(data);  // the refinement reads the fragment's shots while the module holds them
  }
  return Vorlap::dynamicPtrCast<A>(data);
}

}  // namespace FullWaveform
