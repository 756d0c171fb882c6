#include "app/FragmentHandover.hpp"

#include "tessal/Schema.hpp"
#include "tessal/ShapeOnlyCreator.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

using PointIds = Tessal::MemArray<1, std::uint32_t>;

void takeOne(Tessal::Field& field, const std::string& representation,
             const Vorlap::StrongPtr<Tessal::FragmentID>& id, OutputPart& part) {
  auto creator = field.getCreator(id);
  auto data = creator ? creator->heldData() : Vorlap::StrongPtr<Tessal::MemBase>();
  if (!data) return;
  part.arrays.push_back(
      {representation, field.getName(), id->getName(), data, creator->range(), {}, {}});
  if (field.getName() == schema::kPointID) part.points += std::uint32_t(data->nElements());
  field.setCreator(id, Vorlap::makeStrong<Tessal::ShapeOnlyCreator>(*data));
}

void takeFromField(Tessal::Field& field, const std::string& representation, OutputPart& part,
                   Tessal::FragmentChangeCursor& seen) {
  auto ids = field.getFragmentIDCollection();
  for (std::size_t f : seen.newlyChanged(field)) takeOne(field, representation, ids->at(f), part);
}

void shiftPointIds(const FieldArray& a, std::uint32_t shift) {
  auto ids = Vorlap::dynamicPtrCast<PointIds>(a.data);
  if (!ids || shift == 0) return;
  for (std::size_t k = 0; k < ids->size(); ++k) ids->set(k, ids->get(k) + shift);
  if (!a.range) return;
  for (auto* bound : {&a.range->min, &a.range->max})
    for (double& v : *bound) v = double(std::uint32_t(std::uint32_t(v) + shift));
}

Vorlap::StrongPtr<Tessal::Representation> representationOf(Tessal::Grid& grid,
                                                           const std::string& name) {
  auto rep = grid.getCartesianRepresentation(name);
  return rep ? rep : grid.makeCartesianRepresentation(3, name, 0);
}

}  // namespace

OutputPart takeHeldArrays(Tessal::Grid& grid, Tessal::FragmentChangeCursor& seen) {
  OutputPart part;
  for (const auto& rep : grid.representations())
    for (const auto& entry : rep->fields())
      if (entry.field) takeFromField(*entry.field, rep->getName(), part, seen);
  return part;
}

OutputPart takeFragment(Tessal::Grid& grid, const std::string& name) {
  OutputPart part;
  for (const auto& rep : grid.representations())
    for (const auto& entry : rep->fields()) {
      if (!entry.field) continue;
      auto id = entry.field->getFragmentIDCollection()->findFragmentIDByName(name);
      if (id) takeOne(*entry.field, rep->getName(), id, part);
    }
  return part;
}

void renumberPoints(OutputPart& part, std::uint32_t idShift, bool encode) {
  for (FieldArray& a : part.arrays) {
    if (a.field != schema::kPointID || !a.data) continue;
    shiftPointIds(a, idShift);
    if (!encode) continue;
    a.encoded = std::make_shared<Tessal::EncodedArray>(Tessal::rawArray(*a.data));
    a.data.reset();
  }
}

void putArrays(Tessal::Grid& grid, const OutputPart& part) {
  for (const FieldArray& a : part.arrays) {
    auto rep = representationOf(grid, a.representation);
    Vorlap::StrongPtr<Tessal::Field> field = rep->makeField(rep->makeFieldID(a.field), {}, {});
    auto fragment = field->makeFragmentID(a.fragment);
    if (a.encoded)
      field->setCreator(fragment, Vorlap::makeStrong<Tessal::EncodedCreator>(a.encoded));
    else  // the worker registered the array with the memory cache already
      field->setPersistentData(a.data, fragment, {}, "");
    if (auto creator = field->getCreator(fragment)) creator->setRange(a.range);
  }
}

void copyRunAttributes(const Tessal::Grid& from, Tessal::Grid& to) {
  to.replaceAttributes(from.attributes());
  for (const auto& rep : from.representations()) {
    auto target = to.getCartesianRepresentation(rep->getName());
    for (const auto& entry : rep->fields()) {
      auto field = target && entry.field ? target->findFieldByName(entry.field->getName())
                                         : Vorlap::StrongPtr<Tessal::Field>();
      if (field) field->attributes() = entry.field->attributes();
    }
  }
}

}  // namespace quillo::cli
