// Counts of an output grid for reports: points, noise points and points per zone.
#pragma once

#include "app/RunJob.hpp"
#include "tessal/Grid.hpp"

namespace quillo::cli {

// Adds the fragments whose data is held in memory and that were given it since `seen` last
// looked to `summary`.
void addToSummary(const Tessal::Grid& grid, OutputSummary& summary,
                  Tessal::FragmentChangeCursor& seen);

}  // namespace quillo::cli
