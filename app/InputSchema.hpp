// The fields the module reads from an input, with the element type and rank it reads them as;
// docs/kq-format.md documents the same table for writers.
#pragma once

#include "tessal/MemArray.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli::schema {

// The data model's names, so that schema::kGPSTime and the rules below read alike.
using namespace Tessal::schema;

// The module reads the slice at exactly this time.
inline constexpr double kSliceTime = 0.0;
// Rows of channel 0 above this count are taken as saturated high-gain rows when online
// records are present, and are dropped in favour of the other channel's row.
inline constexpr double kHighGainSaturation = 1800.0;
// The module looks for travel times up to this many zone lengths.
inline constexpr int kZonesSearched = 9;

struct FieldRule {
  const char* grid;
  const char* field;
  Tessal::ElementType type;
  unsigned rank;
  bool required;
};

using E = Tessal::ElementType;
inline constexpr FieldRule kFields[] = {
    {kShotsGrid, kGPSTime, E::Double, 1, true},
    {kShotsGrid, kPositions, E::Point, 1, true},
    {kShotsGrid, kDirectionDelta, E::Vector, 1, true},
    {kWaveformsGrid, kGPSTime, E::Double, 1, true},
    {kWaveformsGrid, kFWFLength, E::UInt16, 1, true},
    {kWaveformsGrid, kWaveformSamples, E::UInt16, 2, true},
    {kWaveformsGrid, kChannel, E::UInt8, 1, true},
    {kWaveformsGrid, kSBLTime, E::Double, 1, true},
    {kOnlineGrid, kGPSTime, E::Double, 1, true},
    {kOnlineGrid, kRange, E::Double, 1, true},
    {kOnlineGrid, kAmplitude, E::Float, 1, true},
    {kOnlineGrid, kChannel, E::UInt8, 1, true},
    {kOnlineGrid, kReflectance, E::Float, 1, false},
};

}  // namespace quillo::cli::schema
