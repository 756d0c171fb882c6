// Counts of an output grid for reports: points, noise points and points per zone.
#pragma once

#include "app/RunJob.hpp"
#include "tessal/Grid.hpp"

namespace quillo::cli {

OutputSummary summarizeOutput(const Tessal::Grid& grid);

}  // namespace quillo::cli
