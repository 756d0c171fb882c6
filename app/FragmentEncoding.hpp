// A worker's share of saving a streamed output. For each fragment it finishes, a worker does
// here what the writer would otherwise do on the main thread, one fragment after the other:
// it adds the map chart's positions, counts the points for the report and copies every
// array out in the order the save stores its values (Tessal::rawArray), so that the main
// thread is left with appending them to its fields' chunks, compressing full chunks and the
// HDF5 calls. The point numbers stay plain until their shift is known (renumberPoints
// encodes them).
#pragma once

#include "app/FragmentHandover.hpp"
#include "app/MapPositions.hpp"

namespace quillo::cli {

// Reads and replaces the part's in-memory arrays; sets `part.counts`.
void prepareForSaving(OutputPart& part, const Transform& toMap);

}  // namespace quillo::cli
