// Counts of an output grid for reports: points, noise points and points per zone.
#pragma once

#include "app/RunJob.hpp"
#include "tessal/Grid.hpp"

namespace quillo::cli {

// Adds one fragment's array of the field named `field` of the scanner chart to the counts.
void countArray(const std::string& field, const Tessal::MemBase& data, OutputSummary& s);
void addCounts(OutputSummary& into, const OutputSummary& from);

// Adds the fragments whose data is held in memory and that were given it since `seen` last
// looked to `summary`.
void addToSummary(const Tessal::Grid& grid, OutputSummary& summary,
                  Tessal::FragmentChangeCursor& seen);

}  // namespace quillo::cli
