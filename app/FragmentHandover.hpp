// Moving one fragment of output from a worker's grids to the grids being saved. A worker
// runs the module on a range of fragments into grids of its own; after each fragment the
// arrays it added are taken out (the worker keeps only their type and extents) and put
// into the saved grids in fragment order, with the point numbers shifted so that they run
// on from the fragments before, as one run over the whole file numbers them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tessal/Grid.hpp"

namespace quillo::cli {

// One fragment's array of one field; its data may wait in a scratch file (see FragmentSpill).
struct FieldArray {
  std::string representation, field, fragment;
  Vorlap::StrongPtr<Tessal::MemBase> data;  // empty while set aside
  Vorlap::StrongPtr<Tessal::ValueRange> range;
  struct SetAside {
    std::int64_t offset = -1;  // -1: in memory
    Tessal::ElementType type = Tessal::ElementType::UInt8;
    std::vector<std::size_t> extents;
  } setAside;
};

// What one fragment added to one output grid.
struct OutputPart {
  std::vector<FieldArray> arrays;
  std::uint32_t points = 0;  // length of its point numbers
};

// What one fragment added to the (up to two) outputs of a run.
struct FragmentOutput {
  std::array<OutputPart, 2> parts;
  std::uint32_t firstPointId = 0;  // the worker's number of its first point
  std::uint32_t points() const { return parts[0].points + parts[1].points; }
};

// Takes every array held in the grid's fields out of it (in field creation order).
OutputPart takeHeldArrays(Tessal::Grid& grid);

// Adds the arrays as fragments of `grid`, making fields as the module makes them, with
// `idShift` added to every point number.
void putArrays(Tessal::Grid& grid, const OutputPart& part, std::uint32_t idShift);

// Gives `to` the grid and field attributes the module set on `from` at the end of its run.
void copyRunAttributes(const Tessal::Grid& from, Tessal::Grid& to);

}  // namespace quillo::cli
