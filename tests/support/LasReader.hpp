// A small LAS 1.4 reader of the test's own, written from the public format description and
// independent of the exporter: header fields, VLRs, EVLRs and point records by byte offset.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quillo::test {

struct LasVlr {
  std::string userId;
  std::uint16_t recordId = 0;
  std::vector<unsigned char> payload;
  std::uint64_t headerOffset = 0;  // where the (E)VLR header starts in the file
};

struct LasPoint {
  double x = 0, y = 0, z = 0;  // scaled and offset
  std::uint16_t intensity = 0;
  int returnNumber = 0, numberOfReturns = 0, channel = 0;
  std::uint8_t classification = 0;
  std::int16_t scanAngle = 0;
  std::uint16_t pointSourceId = 0;
  double gpsTime = 0;
  // Format 9 wave packet.
  std::uint8_t waveDescriptor = 0;
  std::uint64_t waveOffset = 0;
  std::uint32_t waveSize = 0;
  float waveLocation = 0, xt = 0, yt = 0, zt = 0;
  std::vector<unsigned char> extra;  // the bytes after the standard record
};

struct LasFile {
  std::vector<unsigned char> bytes;
  std::string signature, systemId, software;
  int versionMajor = 0, versionMinor = 0;
  std::uint16_t globalEncoding = 0, headerSize = 0, pointLength = 0;
  std::uint8_t pointFormat = 0;
  std::uint32_t offsetToPoints = 0, vlrCount = 0, legacyCount = 0, evlrCount = 0;
  double scale[3] = {}, offset[3] = {}, max[3] = {}, min[3] = {};
  std::uint64_t waveDataStart = 0, firstEvlr = 0, pointCount = 0, byReturn[15] = {};
  std::vector<LasVlr> vlrs, evlrs;
  std::vector<LasPoint> points;

  // Extra-bytes value `index` (by descriptor order) of point k, as type T.
  template <class T>
  T extraValue(std::size_t k, std::size_t offsetInExtra) const {
    T v;
    std::memcpy(&v, points[k].extra.data() + offsetInExtra, sizeof(T));
    return v;
  }
};

// Where quillo's extra bytes lie in a point's extra data (the exporter's descriptor order:
// mta_zone, reflectance_db, range, amplitude, pulse_width, damping).
namespace extra {
inline constexpr std::size_t kZone = 0, kReflectance = 1, kRange = 5, kAmplitude = 13,
                             kPulseWidth = 17, kDamping = 25;
}

// Reads `path`; throws std::runtime_error when the file is short or malformed.
LasFile readLas(const std::string& path);

}  // namespace quillo::test
