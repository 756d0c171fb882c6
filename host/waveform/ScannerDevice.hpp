// The scanner description, read from attributes of the "Shots" grid (and "SampleInterval" of
// the "Waveforms" grid). Attribute names are declared here, in one place; docs/kq-format.md
// lists them with their types and units.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessal/Grid.hpp"

namespace FullWaveform {

namespace ScannerAttribute {
inline constexpr const char* PulseRepetitionRate = "PulseRepetitionRate";  // double, Hz
inline constexpr const char* LightSpeed = "LightSpeed";                    // double, m/s in air
inline constexpr const char* SampleInterval = "SampleInterval";      // double, s ("Waveforms")
inline constexpr const char* MinAmplitude = "MinAmplitude";          // double, counts
inline constexpr const char* MinTimeOffset = "MinTimeOffset";        // double, s
inline constexpr const char* BlockSize = "BlockSize";                // int, waves per block
inline constexpr const char* ScanPattern = "ScanPattern";            // text: line-wise | radial
inline constexpr const char* ReflectanceTable = "ReflectanceTable";  // float array
inline constexpr const char* ReflectanceTableStep = "ReflectanceTableStep";  // double, m
inline constexpr const char* ModelName = "ScannerModel";                     // text
// 12 doubles, rows of [R | t]: map = R * scanner + t. Read by the host, not by the module.
inline constexpr const char* ScannerToMap = "ScannerToMap";
}  // namespace ScannerAttribute

struct ReflectanceTable {
  std::vector<float> values;
};

class ScannerDevice {
 public:
  enum class ScanPattern { Unknown, LineWise, Radial };

  struct ExtraAttributes {
    ScanPattern pattern = ScanPattern::Unknown;
    bool isRadial() const { return pattern == ScanPattern::Radial; }
    bool isLineWise() const { return pattern == ScanPattern::LineWise; }
  };

  ScannerDevice() = default;  // not usable: it has no pulse rate
  ScannerDevice(const Vorlap::StrongPtr<Tessal::Grid>& shots,
                const Vorlap::StrongPtr<Tessal::Grid>& waveforms);

  // Usable: every required value present and meaningful.
  bool operator()() const { return valid_; }
  // Every value, one per line.
  std::string speak() const;
  // One-way time of one MTA zone: half the nominal pulse interval.
  double getMTALengthAsTime() const;

  bool isRadial() const { return extraAttributes.isRadial(); }
  bool isLineWise() const { return extraAttributes.isLineWise(); }

  std::string modelName;
  double pulseRepetitionRate = 0.0;
  double lightSpeed = 299702547.0;  // turns a one-way time into a range
  double sampleInterval = 0.0;
  double minAmplitude = 8.6;
  double minTimeOffset = 6.673156177586246e-09;
  std::int32_t blockSize = 200;
  double reflectanceTableStep = 0.1373470495519926;
  Vorlap::StrongPtr<ReflectanceTable> reflectanceTable;
  ExtraAttributes extraAttributes;

 private:
  bool valid_ = false;
};

}  // namespace FullWaveform
