#include "support/LasReader.hpp"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace quillo::test {

namespace {

struct Cursor {
  const std::vector<unsigned char>& b;
  std::size_t at;
  template <class T>
  T get() {
    if (at + sizeof(T) > b.size()) throw std::runtime_error("LAS file ends early");
    T v;
    std::memcpy(&v, b.data() + at, sizeof(T));
    at += sizeof(T);
    return v;
  }
  std::string text(std::size_t n) {
    if (at + n > b.size()) throw std::runtime_error("LAS file ends early");
    std::string s(reinterpret_cast<const char*>(b.data() + at), n);
    at += n;
    return s.substr(0, s.find('\0'));
  }
};

LasVlr readRecord(Cursor& c, bool extended) {
  LasVlr v;
  v.headerOffset = c.at;
  c.get<std::uint16_t>();
  v.userId = c.text(16);
  v.recordId = c.get<std::uint16_t>();
  const std::uint64_t length = extended ? c.get<std::uint64_t>() : c.get<std::uint16_t>();
  c.text(32);
  if (c.at + length > c.b.size()) throw std::runtime_error("VLR runs past the end");
  v.payload.assign(c.b.begin() + static_cast<std::ptrdiff_t>(c.at),
                   c.b.begin() + static_cast<std::ptrdiff_t>(c.at + length));
  c.at += length;
  return v;
}

LasPoint readPoint(Cursor c, const LasFile& f) {
  LasPoint p;
  const std::size_t start = c.at;
  p.x = c.get<std::int32_t>() * f.scale[0] + f.offset[0];
  p.y = c.get<std::int32_t>() * f.scale[1] + f.offset[1];
  p.z = c.get<std::int32_t>() * f.scale[2] + f.offset[2];
  p.intensity = c.get<std::uint16_t>();
  const auto returns = c.get<std::uint8_t>();
  p.returnNumber = returns & 0x0f;
  p.numberOfReturns = returns >> 4;
  p.channel = (c.get<std::uint8_t>() >> 4) & 3;
  p.classification = c.get<std::uint8_t>();
  c.get<std::uint8_t>();
  p.scanAngle = c.get<std::int16_t>();
  p.pointSourceId = c.get<std::uint16_t>();
  p.gpsTime = c.get<double>();
  if (f.pointFormat == 9) {
    p.waveDescriptor = c.get<std::uint8_t>();
    p.waveOffset = c.get<std::uint64_t>();
    p.waveSize = c.get<std::uint32_t>();
    p.waveLocation = c.get<float>();
    p.xt = c.get<float>();
    p.yt = c.get<float>();
    p.zt = c.get<float>();
  }
  const std::size_t used = c.at - start;
  p.extra.assign(c.b.begin() + static_cast<std::ptrdiff_t>(c.at),
                 c.b.begin() + static_cast<std::ptrdiff_t>(start + f.pointLength));
  if (used > f.pointLength) throw std::runtime_error("point record length too small");
  return p;
}

void readHeader(Cursor& c, LasFile& f) {
  f.signature = c.text(4);
  c.get<std::uint16_t>();
  f.globalEncoding = c.get<std::uint16_t>();
  c.text(16);
  f.versionMajor = c.get<std::uint8_t>();
  f.versionMinor = c.get<std::uint8_t>();
  f.systemId = c.text(32);
  f.software = c.text(32);
  c.get<std::uint32_t>();  // creation day and year
  f.headerSize = c.get<std::uint16_t>();
  f.offsetToPoints = c.get<std::uint32_t>();
  f.vlrCount = c.get<std::uint32_t>();
  f.pointFormat = c.get<std::uint8_t>();
  f.pointLength = c.get<std::uint16_t>();
  f.legacyCount = c.get<std::uint32_t>();
  for (int r = 0; r < 5; ++r) f.legacyCount += c.get<std::uint32_t>();
  for (double& s : f.scale) s = c.get<double>();
  for (double& o : f.offset) o = c.get<double>();
  for (int a = 0; a < 3; ++a) {
    f.max[a] = c.get<double>();
    f.min[a] = c.get<double>();
  }
  f.waveDataStart = c.get<std::uint64_t>();
  f.firstEvlr = c.get<std::uint64_t>();
  f.evlrCount = c.get<std::uint32_t>();
  f.pointCount = c.get<std::uint64_t>();
  for (auto& n : f.byReturn) n = c.get<std::uint64_t>();
}

}  // namespace

LasFile readLas(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error(path + ": cannot open");
  LasFile f;
  f.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  Cursor c{f.bytes, 0};
  readHeader(c, f);
  c.at = f.headerSize;
  for (std::uint32_t v = 0; v < f.vlrCount; ++v) f.vlrs.push_back(readRecord(c, false));
  if (c.at != f.offsetToPoints) throw std::runtime_error("VLRs do not end at the point data");
  for (std::uint64_t k = 0; k < f.pointCount; ++k)
    f.points.push_back(readPoint(Cursor{f.bytes, f.offsetToPoints + k * f.pointLength}, f));
  c.at = f.firstEvlr;
  for (std::uint32_t v = 0; v < f.evlrCount; ++v) f.evlrs.push_back(readRecord(c, true));
  if (f.evlrCount == 0 && f.offsetToPoints + f.pointCount * f.pointLength != f.bytes.size())
    throw std::runtime_error("file size does not match the point count");
  return f;
}

}  // namespace quillo::test
