// Moving one fragment of output from a worker's grids to the grids being saved. A worker
// runs the module on a range of fragments into grids of its own; after each fragment the
// arrays it added are taken out (the worker keeps only their type and extents), their point
// numbers shifted so that they run on from the fragments before, as one run over the whole
// file numbers them, and put into the saved grids in fragment order. An array may travel
// encoded as the values the save stores (see FragmentEncoding).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/RunJob.hpp"
#include "tessal/EncodedArray.hpp"
#include "tessal/Grid.hpp"

namespace quillo::cli {

// One fragment's array of one field; its data may wait in a scratch file (see FragmentSpill).
struct FieldArray {
  std::string representation, field, fragment;
  Vorlap::StrongPtr<Tessal::MemBase> data;  // empty while set aside or once encoded
  Vorlap::StrongPtr<Tessal::ValueRange> range;
  struct SetAside {
    std::int64_t offset = -1;  // -1: in memory
    Tessal::ElementType type = Tessal::ElementType::UInt8;
    std::vector<std::size_t> extents;
    std::vector<std::size_t> chunkBytes;  // of an encoded array, whose chunks wait
  } setAside;
  std::shared_ptr<Tessal::EncodedArray> encoded;  // the data as saved, once encoded
};

// What one fragment added to one output grid.
struct OutputPart {
  std::vector<FieldArray> arrays;
  std::uint32_t points = 0;  // length of its point numbers
  OutputSummary counts;      // of the arrays encoded before they were counted on the grid
};

// What one fragment added to the (up to two) outputs of a run.
struct FragmentOutput {
  std::array<OutputPart, 2> parts;
  std::uint32_t firstPointId = 0;  // the worker's number of its first point
  // The shift the worker gave the point numbers already (when it knew the range's start).
  std::optional<std::uint32_t> shifted;
  std::uint32_t points() const { return parts[0].points + parts[1].points; }
};

// Takes every array held in the grid's fields out of it (in field creation order). Only the
// fragments set since `seen` last looked are visited: a range may hold thousands.
OutputPart takeHeldArrays(Tessal::Grid& grid, Tessal::FragmentChangeCursor& seen);

// Takes the arrays of the fragment `name` out of every field of the grid.
OutputPart takeFragment(Tessal::Grid& grid, const std::string& name);

// Adds `idShift` to every point number (and to their value range); with `encode`, encodes
// the point numbers then.
void renumberPoints(OutputPart& part, std::uint32_t idShift, bool encode);

// Adds the arrays as fragments of `grid`, making fields as the module makes them.
void putArrays(Tessal::Grid& grid, const OutputPart& part);

// Gives `to` the grid and field attributes the module set on `from` at the end of its run.
void copyRunAttributes(const Tessal::Grid& from, Tessal::Grid& to);

}  // namespace quillo::cli
