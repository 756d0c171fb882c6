// Where things are in a LAS file (ASPRS LAS 1.0 to 1.4): the public header block's fields,
// the (extended) variable-length record headers, record ids and point record sizes. Shared
// by the writer of our exports and the readers of terrain files; little-endian throughout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quillo::las {

// Offsets into the public header block; the same in every version up to where it ends.
inline constexpr std::size_t kVersionMajorAt = 24, kVersionMinorAt = 25, kHeaderSizeAt = 94;
inline constexpr std::size_t kPointOffsetAt = 96, kVlrCountAt = 100, kFormatAt = 104;
inline constexpr std::size_t kRecordLengthAt = 105, kLegacyCountAt = 107;
inline constexpr std::size_t kScaleAt = 131, kOffsetAt = 155;
inline constexpr std::size_t kFirstEvlrAt = 235, kEvlrCountAt = 243, kCount64At = 247;

inline constexpr std::size_t kMinHeaderSize = 227;  // LAS 1.0 to 1.2
inline constexpr std::uint16_t kHeaderSize = 375;   // LAS 1.4 adds the 64-bit counts
inline constexpr std::uint16_t kVlrHeaderSize = 54;
inline constexpr std::uint16_t kEvlrHeaderSize = 60;

// Record ids and user ids of the records we read or write.
inline constexpr const char* kSpecUser = "LASF_Spec";
inline constexpr const char* kProjectionUser = "LASF_Projection";
inline constexpr std::uint16_t kExtraBytesRecordId = 4;
inline constexpr std::uint16_t kWaveDescriptorFirstId = 100;  // descriptor index 1
inline constexpr std::uint16_t kWaveDataRecordId = 65535;
inline constexpr std::uint16_t kOgcWktRecordId = 2112;
inline constexpr std::uint16_t kGeoKeysRecordId = 34735;

// Smallest record of point formats 0 to 10.
inline constexpr std::uint16_t kMinRecordLength[] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};
inline constexpr std::size_t kFormat6Size = kMinRecordLength[6];
inline constexpr std::size_t kFormat9Size = kMinRecordLength[9];

// Reads a value stored at byte `at` (LAS is little-endian, as are our targets).
template <class T>
T readAt(const std::uint8_t* data, std::size_t at) {
  T value;
  std::memcpy(&value, data + at, sizeof value);
  return value;
}

}  // namespace quillo::las
