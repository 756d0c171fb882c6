// The names of a recording and of a result in the data model, in one place: grids, the
// chart of the points, fields, fragment names and the date in file names. The module, the
// host's readers and writers, the simulator and the command line all spell them from here.
#pragma once

#include <cstdint>
#include <string>

namespace Tessal::schema {

// Grids of an input bundle.
inline constexpr const char* kShotsGrid = "Shots";
inline constexpr const char* kWaveformsGrid = "Waveforms";
inline constexpr const char* kOnlineGrid = "OPP";
// The grid of a run's result: its points.
inline constexpr const char* kResultGrid = "FWF";

// The representation (chart) every output field and the shots' positions live in.
inline constexpr const char* kScannerChart = "ScannerCoordinateSystem";

// Fields. Several grids share a name ("GPSTime", "Channel", "Waveforms").
inline constexpr const char* kPositions = "Positions";
inline constexpr const char* kGPSTime = "GPSTime";
inline constexpr const char* kDirectionDelta = "Waveforms.DirectionDelta";
inline constexpr const char* kWaveformSamples = "Waveforms";
inline constexpr const char* kFWFLength = "FWFLength";
inline constexpr const char* kChannel = "Channel";
inline constexpr const char* kSBLTime = "SBL_Time";
inline constexpr const char* kRange = "Range";
inline constexpr const char* kAmplitude = "Amplitude";
inline constexpr const char* kReflectance = "Reflectance";
inline constexpr const char* kWaveID = "WaveID";
inline constexpr const char* kMTA = "MTA";
inline constexpr const char* kScannerChannel = "ScannerChannel";
inline constexpr const char* kPulseWidth = "PulseWidth";
inline constexpr const char* kDamping = "Damping";
inline constexpr const char* kClassification = "Classification";
inline constexpr const char* kPointType = "PointType";
inline constexpr const char* kReturnNumber = "ReturnNumber";
inline constexpr const char* kNumberOfReturns = "NumberOfReturns";
inline constexpr const char* kWaveformPositionIndex = "WaveformPositionIndex";
inline constexpr const char* kScanAngleRank = "ScanAngleRank";
inline constexpr const char* kPointID = "PointID";
// Written by the optional zone refinement after a run: bit 1 the zone was moved, bit 2 the
// point was classified as noise for fitting no surface (0: left as the run made it).
inline constexpr const char* kRefined = "Refined";
inline constexpr std::uint8_t kRefinedMoved = 1, kRefinedNoise = 2;

// Fragments are named "Fragment_" and their number in decimal without padding.
inline constexpr const char* kFragmentPrefix = "Fragment_";
// Written into one buffer: every fragment look-up of every field names its fragment, and
// prefix + std::to_string costs a few times as much.
inline std::string fragmentName(std::uint32_t number) {
  constexpr std::size_t prefix = std::char_traits<char>::length(kFragmentPrefix);
  char text[prefix + 10];
  std::char_traits<char>::copy(text, kFragmentPrefix, prefix);
  char* end = text + sizeof(text);
  char* first = end;
  do {
    *--first = char('0' + number % 10);
    number /= 10;
  } while (number != 0);
  std::string name(text, prefix);
  name.append(first, end);
  return name;
}

// The recording's date and time in a file name: YYMMDD_hhmmss after an optional run of
// letters (survey_210315_093000.kq); the groups are year, month and day.
inline constexpr const char* kFileDatePattern =
    "[a-zA-Z]*([0-9]{2})([0-9]{2})([0-9]{2})_[0-9]{6}.*";
// A date and time as a user gives it: YYMMDD_hhmmss.
inline constexpr const char* kDateTimePattern = "[0-9]{6}_[0-9]{6}";

}  // namespace Tessal::schema
