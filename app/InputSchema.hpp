// The fields the module reads from an input, with the element type and rank it reads them as;
// docs/kq-format.md documents the same table for writers.
#pragma once

#include "tessal/MemArray.hpp"

namespace quillo::cli::schema {

inline constexpr const char* kShots = "Shots";
inline constexpr const char* kWaveforms = "Waveforms";
inline constexpr const char* kOnline = "OPP";
inline constexpr const char* kFragmentPrefix = "Fragment_";
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
    {kShots, "GPSTime", E::Double, 1, true},
    {kShots, "Positions", E::Point, 1, true},
    {kShots, "Waveforms.DirectionDelta", E::Vector, 1, true},
    {kWaveforms, "GPSTime", E::Double, 1, true},
    {kWaveforms, "FWFLength", E::UInt16, 1, true},
    {kWaveforms, "Waveforms", E::UInt16, 2, true},
    {kWaveforms, "Channel", E::UInt8, 1, true},
    {kWaveforms, "SBL_Time", E::Double, 1, true},
    {kOnline, "GPSTime", E::Double, 1, true},
    {kOnline, "Range", E::Double, 1, true},
    {kOnline, "Amplitude", E::Float, 1, true},
    {kOnline, "Channel", E::UInt8, 1, true},
    {kOnline, "Reflectance", E::Float, 1, false},
};

}  // namespace quillo::cli::schema
