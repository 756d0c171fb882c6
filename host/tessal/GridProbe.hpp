// A look at one grid of a saved .kq file without loading the file: its attributes and how
// many fragments a field holds in some of its charts, read from those objects alone. A
// check of a written output needs these few things, where a load reads every field's table
// and makes an object per fragment and field (most of the time a run spends after its
// workers on a file of thousands of fragments).
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vorlap/Attributes.hpp"

namespace Tessal {

struct GridProbe {
  bool readable = false;          // an HDF5 file with the .kq format marker and a known layout
  bool found = false;             // the slice at time 0 holds the grid
  Vorlap::Attributes attributes;  // the grid's
  // Per chart asked for: the field's fragments, or nothing when the chart or field is
  // missing or its fragment table does not read.
  std::map<std::string, std::optional<std::size_t>> fragments;
};

GridProbe probeGrid(const std::string& fileName, const std::string& grid, const std::string& field,
                    const std::vector<std::string>& charts);

}  // namespace Tessal
