#include "sim/TerrainCrs.hpp"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace quillo::sim {

namespace {

constexpr std::size_t kVersionMinorAt = 25, kHeaderSizeAt = 94, kPointOffsetAt = 96;
constexpr std::size_t kVlrCountAt = 100, kFirstEvlrAt = 235, kEvlrCountAt = 243;
constexpr std::size_t kHeader14Size = 375;
constexpr std::size_t kVlrHeaderSize = 54, kEvlrHeaderSize = 60;
constexpr std::uint16_t kWktRecord = 2112, kGeoKeysRecord = 34735;
constexpr const char* kProjectionUser = "LASF_Projection";
// No coordinate system needs more; a larger record is damage.
constexpr std::uint64_t kMaxRecord = 1 << 20;

struct Record {
  std::uint16_t id = 0;
  std::vector<std::uint8_t> payload;
};

class LasRecords {
 public:
  explicit LasRecords(const std::string& path) : path_(path), in_(path, std::ios::binary) {
    if (!in_) throw std::runtime_error(path + ": cannot open the file");
    in_.seekg(0, std::ios::end);
    size_ = static_cast<std::uint64_t>(in_.tellg());
  }

  // The projection records among the VLRs and, in LAS 1.4, the extended VLRs.
  std::vector<Record> projectionRecords() {
    const auto header = bytes(0, std::min<std::uint64_t>(size_, kHeader14Size), "the header");
    if (header.size() < 227 || std::memcmp(header.data(), "LASF", 4) != 0) fail("not a LAS file");
    std::vector<Record> found;
    std::uint64_t at = read<std::uint16_t>(header, kHeaderSizeAt);
    const std::uint64_t pointsAt = read<std::uint32_t>(header, kPointOffsetAt);
    for (std::uint32_t v = read<std::uint32_t>(header, kVlrCountAt); v > 0 && at < pointsAt; --v)
      at = nextRecord(at, kVlrHeaderSize, found);
    if (header[kVersionMinorAt] < 4 || header.size() < kHeader14Size) return found;
    at = read<std::uint64_t>(header, kFirstEvlrAt);
    for (std::uint32_t v = read<std::uint32_t>(header, kEvlrCountAt); v > 0 && at != 0; --v)
      at = nextRecord(at, kEvlrHeaderSize, found);
    return found;
  }

 private:
  // Reads the record header at `at`, keeps the record when it is a projection record, and
  // returns where the next one starts.
  std::uint64_t nextRecord(std::uint64_t at, std::size_t headerSize, std::vector<Record>& found) {
    const auto h = bytes(at, headerSize, "a record header");
    const std::uint16_t id = read<std::uint16_t>(h, 18);
    const std::uint64_t length =
        headerSize == kVlrHeaderSize ? read<std::uint16_t>(h, 20) : read<std::uint64_t>(h, 20);
    const std::string user(reinterpret_cast<const char*>(h.data() + 2),
                           strnlen(reinterpret_cast<const char*>(h.data() + 2), 16));
    if (user == kProjectionUser && (id == kWktRecord || id == kGeoKeysRecord)) {
      if (length > kMaxRecord) fail("record " + std::to_string(id) + " is impossibly long");
      found.push_back({id, bytes(at + headerSize, length, "record " + std::to_string(id))});
    }
    return at + headerSize + length;
  }

  std::vector<std::uint8_t> bytes(std::uint64_t at, std::uint64_t n, const std::string& what) {
    if (at > size_ || n > size_ - at) fail(what + " reaches past the end of the file");
    std::vector<std::uint8_t> out(n);
    in_.seekg(static_cast<std::streamoff>(at));
    if (!in_.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(n)))
      fail("cannot read " + what);
    return out;
  }

  template <class T>
  static T read(const std::vector<std::uint8_t>& b, std::size_t at) {
    T value;
    std::memcpy(&value, b.data() + at, sizeof value);  // LAS is little-endian, as are our targets
    return value;
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(path_ + ": " + what);
  }

  std::string path_;
  std::ifstream in_;
  std::uint64_t size_ = 0;
};

geo::CoordinateSystem fromRecord(const Record& r) {
  if (r.id == kWktRecord) {
    const auto* text = reinterpret_cast<const char*>(r.payload.data());
    return geo::parseCoordinateSystem(std::string(text, strnlen(text, r.payload.size())));
  }
  std::vector<std::uint16_t> keys(r.payload.size() / 2);
  std::memcpy(keys.data(), r.payload.data(), keys.size() * 2);
  return geo::coordinateSystemFromGeoKeys(keys);
}

}  // namespace

std::optional<geo::CoordinateSystem> readLasCoordinateSystem(const std::string& path) {
  std::vector<Record> records = LasRecords(path).projectionRecords();
  if (records.empty()) return std::nullopt;
  // The WKT record, when present, is the file's own statement; GeoTIFF keys the older one.
  const Record* chosen = &records.front();
  for (const auto& r : records)
    if (r.id == kWktRecord) chosen = &r;
  try {
    return fromRecord(*chosen);
  } catch (const geo::CrsError& e) {
    throw std::runtime_error(path + ": its coordinate system (record " +
                             std::to_string(chosen->id) + "): " + e.what());
  }
}

}  // namespace quillo::sim
