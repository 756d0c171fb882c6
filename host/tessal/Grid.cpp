#include "tessal/Grid.hpp"

namespace Tessal {

using Vorlap::StrongPtr;

StrongPtr<Skeleton> SkeletonMap::findVertices(int index) const {
  return (index == -1 || index == 0) ? vertices_ : StrongPtr<Skeleton>();
}

StrongPtr<FieldID> Representation::makeFieldID(const std::string& name) {
  if (auto id = findFieldID(name)) return id;
  fields_.push_back({Vorlap::makeStrong<FieldID>(name), {}});
  return fields_.back().id;
}

StrongPtr<FieldID> Representation::findFieldID(const std::string& name) const {
  for (const auto& e : fields_) {
    if (e.id->getName() == name) return e.id;
  }
  return {};
}

FieldProxy Representation::makeField(const Vorlap::WeakPtr<FieldID>& weakId,
                                     const StrongPtr<FragmentIDCollection>& fragments,
                                     const StrongPtr<MemBase>& data) {
  StrongPtr<FieldID> id = weakId.lock();
  if (!id) return FieldProxy({});
  for (auto& e : fields_) {
    if (e.id != id) continue;
    if (!e.field) {
      e.field = Vorlap::makeStrong<Field>(id->getName());
      touch();
    }
    // Seed: with data and exactly one fragment identifier, that fragment gets the data.
    if (fragments && data && fragments->size() == 1) {
      auto frag = e.field->makeFragmentID(fragments->at(0)->getName());
      e.field->setPersistentData(data, frag, Vorlap::Cache::MemCache(), "");
    }
    return FieldProxy(e.field);
  }
  return FieldProxy({});
}

StrongPtr<Field> Representation::findField(const StrongPtr<FieldID>& id) const {
  if (!id) return Field::NullPtrField();
  for (const auto& e : fields_) {
    if (e.id == id) return e.field;
  }
  return Field::NullPtrField();
}

StrongPtr<Field> Representation::findFieldByName(const std::string& name) const {
  return findField(findFieldID(name));
}

StrongPtr<Field> Grid::operator()(const std::string& fieldName,
                                  const std::string& representationName) const {
  for (const auto& rep : representations_) {
    if (!representationName.empty() && rep->getName() != representationName) continue;
    if (auto f = rep->findFieldByName(fieldName)) return f;
  }
  return {};
}

StrongPtr<Representation> Grid::makeCartesianRepresentation(int dimensions, const std::string& name,
                                                            unsigned short) {
  if (auto rep = getCartesianRepresentation(name)) return rep;
  auto chart = Vorlap::makeStrong<Chart>(name, dimensions);
  representations_.push_back(
      Vorlap::makeStrong<Representation>(chart, skeletons_.findVertices(-1)));
  touch();
  return representations_.back();
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const std::string& name) const {
  for (const auto& rep : representations_) {
    if (rep->getName() == name) return rep;
  }
  return {};
}

StrongPtr<Chart> Grid::findCartesianChart(const std::string& name) const {
  auto rep = getCartesianRepresentation(name);
  return rep ? rep->getChart() : StrongPtr<Chart>();
}

StrongPtr<Field> Grid::getField(const StrongPtr<Chart>& chart, const std::string& name,
                                const StrongPtr<Skeleton>& skeleton) const {
  if (!chart || !skeleton) return {};
  for (const auto& rep : representations_) {
    if (rep->getChart() == chart && rep->getSkeleton() == skeleton)
      return rep->findFieldByName(name);
  }
  return {};
}

}  // namespace Tessal
