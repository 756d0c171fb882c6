// Grids of the data model. A grid carries attributes, a skeleton map (its vertices) and
// representations: one per coordinate chart (e.g. "ScannerCoordinateSystem"), each holding
// named fields on the vertex skeleton.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tessal/Field.hpp"

namespace Tessal {

class Chart {
 public:
  Chart(std::string name, int dimensions) : name_(std::move(name)), dimensions_(dimensions) {}
  const std::string& getName() const { return name_; }
  int getDimensions() const { return dimensions_; }

 private:
  std::string name_;
  int dimensions_;
};

class Skeleton {
 public:
  explicit Skeleton(int dimension) : dimension_(dimension) {}
  int getDimension() const { return dimension_; }

 private:
  int dimension_;
};

// The skeletons of a grid; point clouds have only their vertices.
class SkeletonMap {
 public:
  SkeletonMap() : vertices_(Vorlap::makeStrong<Skeleton>(0)) {}
  // The vertex skeleton; -1 asks for any index.
  Vorlap::StrongPtr<Skeleton> findVertices(int index) const;

 private:
  Vorlap::StrongPtr<Skeleton> vertices_;
};

// What makeField yields: converts to the field handle.
class FieldProxy {
 public:
  explicit FieldProxy(Vorlap::StrongPtr<Field> field) : field_(std::move(field)) {}
  operator Vorlap::StrongPtr<Field>() const { return field_; }

 private:
  Vorlap::StrongPtr<Field> field_;
};

class Representation : public Vorlap::Ageable {
 public:
  Representation(Vorlap::StrongPtr<Chart> chart, Vorlap::StrongPtr<Skeleton> skeleton)
      : chart_(std::move(chart)), skeleton_(std::move(skeleton)) {}

  const Vorlap::StrongPtr<Chart>& getChart() const { return chart_; }
  const Vorlap::StrongPtr<Skeleton>& getSkeleton() const { return skeleton_; }
  const std::string& getName() const { return chart_->getName(); }

  // The identifier of that name, made when missing; the same one on every call.
  Vorlap::StrongPtr<FieldID> makeFieldID(const std::string& name);
  Vorlap::StrongPtr<FieldID> findFieldID(const std::string& name) const;
  // The field of the identifier, made when missing; fragments and data may seed it.
  FieldProxy makeField(const Vorlap::WeakPtr<FieldID>& id,
                       const Vorlap::StrongPtr<FragmentIDCollection>& fragments,
                       const Vorlap::StrongPtr<MemBase>& data);
  // The field of the identifier, or Field::NullPtrField().
  Vorlap::StrongPtr<Field> findField(const Vorlap::StrongPtr<FieldID>& id) const;
  Vorlap::StrongPtr<Field> findFieldByName(const std::string& name) const;

  struct Entry {
    Vorlap::StrongPtr<FieldID> id;
    Vorlap::StrongPtr<Field> field;  // empty until made
  };
  const std::vector<Entry>& fields() const { return fields_; }

 private:
  Vorlap::StrongPtr<Chart> chart_;
  Vorlap::StrongPtr<Skeleton> skeleton_;
  std::vector<Entry> fields_;  // creation order
};

class Grid : public Vorlap::Ageable {
 public:
  explicit Grid(std::string name) : name_(std::move(name)) {}
  const std::string& getName() const { return name_; }

  // The field of that name in the named representation; with an empty representation name,
  // in the first representation (in creation order) that has such a field.
  Vorlap::StrongPtr<Field> operator()(const std::string& fieldName,
                                      const std::string& representationName) const;

  // The representation of that chart name, made when missing; the same one on every call.
  Vorlap::StrongPtr<Representation> makeCartesianRepresentation(int dimensions,
                                                                const std::string& name,
                                                                unsigned short skeletonIndex);
  Vorlap::StrongPtr<Representation> getCartesianRepresentation(const std::string& name) const;
  Vorlap::StrongPtr<Chart> findCartesianChart(const std::string& name) const;
  Vorlap::StrongPtr<Field> getField(const Vorlap::StrongPtr<Chart>& chart, const std::string& name,
                                    const Vorlap::StrongPtr<Skeleton>& skeleton) const;

  const SkeletonMap& getSkeletonMap() const { return skeletons_; }
  const std::vector<Vorlap::StrongPtr<Representation>>& representations() const {
    return representations_;
  }

  Vorlap::Attributes& attributes() { return attributes_; }
  const Vorlap::Attributes& attributes() const { return attributes_; }
  void replaceAttributes(const Vorlap::Attributes& a) { attributes_ = a; }

 private:
  std::string name_;
  SkeletonMap skeletons_;
  std::vector<Vorlap::StrongPtr<Representation>> representations_;
  Vorlap::Attributes attributes_;
};

}  // namespace Tessal
