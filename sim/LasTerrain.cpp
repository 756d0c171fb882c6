// LAS reader for terrain: validates the public header block against the buffer and decodes
// the scaled integer x, y, z that every point format (0-10) keeps in its first 12 bytes, and
// the class (5 bits of byte 15 in formats 0-5, byte 16 in formats 6-10).
#include "sim/LasTerrain.hpp"

#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "las/LasLayout.hpp"

namespace quillo::sim {

namespace {

using las::kCount64At;
using las::kFormatAt;
using las::kHeaderSize;
using las::kHeaderSizeAt;
using las::kLegacyCountAt;
using las::kMinHeaderSize;
using las::kMinRecordLength;
using las::kOffsetAt;
using las::kPointOffsetAt;
using las::kRecordLengthAt;
using las::kScaleAt;
using las::kVersionMajorAt;
using las::kVersionMinorAt;
using las::readAt;

struct LasLayout {
  unsigned format = 0;
  std::uint64_t points = 0;
  std::size_t pointOffset = 0, recordLength = 0;
  double scale[3], offset[3];
};

[[noreturn]] void fail(const std::string& name, const std::string& what) {
  throw std::runtime_error(name + ": " + what);
}

std::uint64_t pointCount(const std::uint8_t* data, unsigned minor, std::size_t headerSize) {
  const std::uint64_t legacy = readAt<std::uint32_t>(data, kLegacyCountAt);
  if (minor < 4 || headerSize < kHeaderSize) return legacy;
  const std::uint64_t wide = readAt<std::uint64_t>(data, kCount64At);
  return wide != 0 ? wide : legacy;  // some writers fill only the legacy count
}

void readScaleAndOffset(const std::uint8_t* data, const std::string& name, LasLayout& l) {
  static const char* axis[] = {"x", "y", "z"};
  for (int i = 0; i < 3; ++i) {
    l.scale[i] = readAt<double>(data, kScaleAt + 8 * std::size_t(i));
    l.offset[i] = readAt<double>(data, kOffsetAt + 8 * std::size_t(i));
    if (!std::isfinite(l.scale[i]) || l.scale[i] == 0.0)
      fail(name, std::string("the ") + axis[i] + " scale factor is zero or not a number");
    if (!std::isfinite(l.offset[i]))
      fail(name, std::string("the ") + axis[i] + " offset is not a number");
  }
}

LasLayout readHeader(const std::uint8_t* data, std::size_t size, const std::string& name) {
  if (size < 4 || std::memcmp(data, "LASF", 4) != 0)
    fail(name, "not a LAS file (the signature \"LASF\" is missing)");
  if (size < kMinHeaderSize)
    fail(name, "truncated header (" + std::to_string(size) + " bytes, a LAS header needs " +
                   std::to_string(kMinHeaderSize) + ")");
  const unsigned major = data[kVersionMajorAt], minor = data[kVersionMinorAt];
  if (major != 1 || minor > 4)
    fail(name, "LAS version " + std::to_string(major) + "." + std::to_string(minor) +
                   " is not supported (1.0 to 1.4 are)");
  const std::size_t headerSize = readAt<std::uint16_t>(data, kHeaderSizeAt);
  if (headerSize < kMinHeaderSize || headerSize > size)
    fail(name, "header size " + std::to_string(headerSize) + " is impossible for a file of " +
                   std::to_string(size) + " bytes");
  LasLayout l;
  l.pointOffset = readAt<std::uint32_t>(data, kPointOffsetAt);
  if (l.pointOffset < headerSize || l.pointOffset > size)
    fail(name, "offset to point data " + std::to_string(l.pointOffset) +
                   " lies outside the file (header " + std::to_string(headerSize) +
                   " bytes, file " + std::to_string(size) + " bytes)");
  const unsigned format = l.format = data[kFormatAt];
  if (format & 0xC0) fail(name, "compressed point data (LAZ) is not supported");
  if (format > 10)
    fail(name, "point format " + std::to_string(format) + " is not supported (0-10)");
  l.recordLength = readAt<std::uint16_t>(data, kRecordLengthAt);
  if (l.recordLength < kMinRecordLength[format])
    fail(name, "point record length " + std::to_string(l.recordLength) +
                   " is too short for format " + std::to_string(format) + " (at least " +
                   std::to_string(kMinRecordLength[format]) + ")");
  l.points = pointCount(data, minor, headerSize);
  if (l.points == 0) fail(name, "the header gives no points");
  const std::uint64_t room = (size - l.pointOffset) / l.recordLength;
  if (l.points > room)
    fail(name, "the header gives " + std::to_string(l.points) + " points but the file holds only " +
                   std::to_string(room) + " (truncated?)");
  readScaleAndOffset(data, name, l);
  return l;
}

}  // namespace

TerrainPoints readLasPoints(const std::uint8_t* data, std::size_t size, const std::string& name) {
  if (data == nullptr) size = 0;
  const LasLayout l = readHeader(data, size, name);
  TerrainPoints p;
  p.x.resize(l.points), p.y.resize(l.points), p.z.resize(l.points);
  p.classification.resize(l.points);
  std::vector<double>* axes[] = {&p.x, &p.y, &p.z};
  for (std::size_t k = 0; k < l.points; ++k) {
    const std::size_t at = l.pointOffset + k * l.recordLength;
    for (std::size_t i = 0; i < 3; ++i)
      (*axes[i])[k] = readAt<std::int32_t>(data, at + 4 * i) * l.scale[i] + l.offset[i];
    p.classification[k] = l.format < 6 ? data[at + 15] & 0x1F : data[at + 16];
  }
  return p;
}

TerrainPoints readLasFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) throw std::runtime_error(path + ": cannot open the file");
  const std::streamoff size = in.tellg();
  if (size < 0) throw std::runtime_error(path + ": cannot read the file");
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
  in.seekg(0);
  if (!in.read(reinterpret_cast<char*>(bytes.data()), size))
    throw std::runtime_error(path + ": cannot read the file");
  return readLasPoints(bytes.data(), bytes.size(), path);
}

}  // namespace quillo::sim
