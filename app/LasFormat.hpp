// Byte layouts of the LAS 1.4 pieces quillo writes: the public header, VLR and EVLR headers,
// extra-bytes descriptors, wave packet descriptors and point records of formats 6 and 9.
// Everything is little-endian; the helpers append to a byte buffer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quillo::las {

using Bytes = std::vector<unsigned char>;

inline constexpr std::uint16_t kHeaderSize = 375;
inline constexpr std::uint16_t kVlrHeaderSize = 54;
inline constexpr std::uint16_t kEvlrHeaderSize = 60;
inline constexpr std::uint16_t kExtraBytesRecordId = 4;
inline constexpr std::uint16_t kWaveDescriptorFirstId = 100;  // descriptor index 1
inline constexpr std::uint16_t kWaveDataRecordId = 65535;
inline constexpr const char* kSpecUser = "LASF_Spec";
inline constexpr const char* kProjectionUser = "LASF_Projection";
inline constexpr std::uint16_t kOgcWktRecordId = 2112;
inline constexpr std::size_t kExtraBytesDescriptorSize = 192;
inline constexpr std::size_t kWaveDescriptorSize = 26;
inline constexpr std::size_t kFormat6Size = 30;
inline constexpr std::size_t kFormat9Size = 59;
inline constexpr int kMaxReturns = 15;

// Global encoding bits.
inline constexpr std::uint16_t kAdjustedGpsTime = 1u << 0;
inline constexpr std::uint16_t kWaveformInternal = 1u << 1;
inline constexpr std::uint16_t kWkt = 1u << 4;

// Extra-bytes data type codes.
enum class ExtraType : std::uint8_t { UInt8 = 1, Float = 9, Double = 10 };

template <class T>
void put(Bytes& out, T value) {
  unsigned char raw[sizeof(T)];
  std::memcpy(raw, &value, sizeof(T));
  out.insert(out.end(), raw, raw + sizeof(T));
}

// A fixed-size text field, zero padded (and cut when longer).
inline void putText(Bytes& out, const std::string& text, std::size_t size) {
  const std::size_t n = std::min(text.size(), size);
  out.insert(out.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n));
  out.insert(out.end(), size - n, 0);
}

struct Header {
  std::uint16_t globalEncoding = 0;
  std::uint16_t creationDay = 0, creationYear = 0;
  std::uint32_t offsetToPoints = kHeaderSize;
  std::uint32_t numberOfVlrs = 0;
  std::uint8_t pointFormat = 6;
  std::uint16_t pointLength = 0;
  double scale[3] = {0.001, 0.001, 0.001};
  double offset[3] = {0, 0, 0};
  double max[3] = {0, 0, 0}, min[3] = {0, 0, 0};
  std::uint64_t waveDataStart = 0, firstEvlr = 0;
  std::uint32_t numberOfEvlrs = 0;
  std::uint64_t pointCount = 0;
  std::uint64_t byReturn[kMaxReturns] = {};
};

inline Bytes encodeHeader(const Header& h) {
  Bytes b;
  b.reserve(kHeaderSize);
  putText(b, "LASF", 4);
  put<std::uint16_t>(b, 0);  // file source id
  put(b, h.globalEncoding);
  b.insert(b.end(), 16, 0);  // project GUID
  put<std::uint8_t>(b, 1);
  put<std::uint8_t>(b, 4);
  putText(b, "quillo", 32);
  putText(b, "quillo export", 32);
  put(b, h.creationDay);
  put(b, h.creationYear);
  put(b, kHeaderSize);
  put(b, h.offsetToPoints);
  put(b, h.numberOfVlrs);
  put(b, h.pointFormat);
  put(b, h.pointLength);
  // Legacy counts must stay zero for point formats 6 and up.
  b.insert(b.end(), 4 + 5 * 4, 0);
  for (double s : h.scale) put(b, s);
  for (double o : h.offset) put(b, o);
  for (int a = 0; a < 3; ++a) {
    put(b, h.max[a]);
    put(b, h.min[a]);
  }
  put(b, h.waveDataStart);
  put(b, h.firstEvlr);
  put(b, h.numberOfEvlrs);
  put(b, h.pointCount);
  for (auto n : h.byReturn) put(b, n);
  return b;
}

// Record header of a VLR (16-bit length) or an extended VLR (64-bit length).
template <class Length>
void putRecordHeader(Bytes& b, const char* user, std::uint16_t recordId, Length length,
                     const std::string& description) {
  put<std::uint16_t>(b, 0);
  putText(b, user, 16);
  put(b, recordId);
  put(b, length);
  putText(b, description, 32);
}

inline void putVlrHeader(Bytes& b, std::uint16_t recordId, std::uint16_t length,
                         const std::string& description, const char* user = kSpecUser) {
  putRecordHeader(b, user, recordId, length, description);
}

inline void putEvlrHeader(Bytes& b, std::uint16_t recordId, std::uint64_t length,
                          const std::string& description) {
  putRecordHeader(b, kSpecUser, recordId, length, description);
}

// The OGC coordinate system WKT record: the text with its terminating zero.
inline constexpr std::size_t kMaxWktSize = 65534;  // a VLR holds 65535 bytes, the zero included
inline void putWktVlr(Bytes& b, const std::string& wkt) {
  putVlrHeader(b, kOgcWktRecordId, static_cast<std::uint16_t>(wkt.size() + 1),
               "OGC coordinate system WKT", kProjectionUser);
  putText(b, wkt, wkt.size() + 1);
}

struct ExtraBytesField {
  const char* name;
  ExtraType type;
  const char* description;
};

inline void putExtraBytesDescriptor(Bytes& b, const ExtraBytesField& f) {
  b.insert(b.end(), 2, 0);  // reserved
  put(b, static_cast<std::uint8_t>(f.type));
  put<std::uint8_t>(b, 0);  // options: no no-data, min, max, scale or offset
  putText(b, f.name, 32);
  b.insert(b.end(), 4 + 8 + 16 + 8 + 16 + 8 + 16 + 8 + 16 + 8 + 16, 0);
  putText(b, f.description, 32);
}

inline void putWaveDescriptor(Bytes& b, std::uint32_t samples, std::uint32_t spacingPs) {
  put<std::uint8_t>(b, 16);  // bits per sample
  put<std::uint8_t>(b, 0);   // no compression
  put(b, samples);
  put(b, spacingPs);
  put(b, 1.0);  // digitizer gain: samples are raw counts
  put(b, 0.0);  // digitizer offset
}

}  // namespace quillo::las
