// Reads the "FWF" grid of a run result fragment by fragment and writes a LAS 1.4 file:
// header, extra-bytes VLR, coordinate system VLR, wave packet descriptors, point records,
// waveform packets EVLR.
#include "app/LasWriter.hpp"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>

#include "app/CrsOption.hpp"
#include "app/LasFormat.hpp"
#include "app/LasIntensity.hpp"
#include "app/MapPositions.hpp"
#include "app/ScanAngles.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace fs = std::filesystem;
using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

Vorlap::StrongPtr<Tessal::Field> ResultGrid::field(const std::string& name) const {
  return scanner ? scanner->findFieldByName(name) : Vorlap::StrongPtr<Tessal::Field>();
}

ResultGrid openResultGrid(const Tessal::BundlePtr& result, const std::string& fileName) {
  ResultGrid r;
  auto slices = result ? result->slices() : std::map<double, Vorlap::StrongPtr<Tessal::Slice>>();
  auto slice = slices.count(0.0) ? slices.at(0.0) : Vorlap::StrongPtr<Tessal::Slice>();
  r.grid = slice ? (*slice)(schema::kResultGrid) : Vorlap::StrongPtr<Tessal::Grid>();
  if (!r.grid) throw CliError(kInput, fileName + ": no grid \"FWF\" (not a quillo result?)");
  r.scanner = r.grid->getCartesianRepresentation(schema::kScannerChart);
  if (auto map = r.grid->getCartesianRepresentation(kMapChart)) {
    r.positions = map->findFieldByName(schema::kPositions);
    r.mapPositions = static_cast<bool>(r.positions);
  }
  if (!r.positions && r.scanner) r.positions = r.scanner->findFieldByName(schema::kPositions);
  if (!r.positions || !r.scanner)
    throw CliError(kInput, fileName + ": grid \"FWF\" has no \"Positions\" field");
  auto ids = r.positions->getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) r.fragments.push_back(ids->at(f)->getName());
  return r;
}

FragmentReader::FragmentReader(const ResultGrid& result, std::size_t index)
    : result_(result), name_(result.fragments.at(index)) {}

FragmentReader::~FragmentReader() = default;

std::string FragmentReader::where(const std::string& fieldName) const {
  return "field \"" + fieldName + "\", fragment \"" + name_ + "\"";
}

Vorlap::StrongPtr<Tessal::MemBase> FragmentReader::raw(
    const Vorlap::StrongPtr<Tessal::Field>& field, const std::string& fieldName) {
  auto id = field->getFragmentIDCollection()->findFragmentIDByName(name_);
  auto creator = id ? field->getCreator(id) : Vorlap::StrongPtr<Tessal::CreativeArrayBase>();
  if (!creator) throw CliError(kInput, where(fieldName) + " is missing");
  // Loaded data then lives only as long as this reader holds it.
  creator->enableCaching(false);
  auto data = creator->create();
  if (!data) throw CliError(kInput, where(fieldName) + " cannot be read");
  held_.push_back(data);
  return data;
}

namespace {

bool hasFinitePosition(const point& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

constexpr double kScale = 0.001;

const las::ExtraBytesField kExtraFields[] = {
    {"mta_zone", las::ExtraType::UInt8, "MTA zone (255: none)"},
    {"reflectance_db", las::ExtraType::Float, "reflectance [dB]"},
    {"range", las::ExtraType::Double, "range from the scanner [m]"},
    {"amplitude", las::ExtraType::Float, "amplitude [digitiser counts]"},
    {"pulse_width", las::ExtraType::Double, "pulse width, FWHM [s] (0: none)"},
    {"damping", las::ExtraType::Float, "waveform damping (0: not known)"},
};
constexpr std::size_t kExtraSize = 1 + 4 + 8 + 4 + 8 + 4;

// The per-fragment arrays a point record is made from.
struct PointArrays {
  Vorlap::StrongPtr<Tessal::MemArray<1, point>> positions;
  Vorlap::StrongPtr<Tessal::MemArray<1, double>> time, range, pulseWidth;
  Vorlap::StrongPtr<Tessal::MemArray<1, unsigned char>> mta, channel, cls, ret, nret;
  Vorlap::StrongPtr<Tessal::MemArray<1, float>> amplitude, damping, reflectance;
  Vorlap::StrongPtr<Tessal::MemArray<1, vector>> delta;  // beam step per sample, scanner frame
  const std::vector<std::int16_t>* scanAngle = nullptr;  // LAS units, from ScanAngles
  // Only for format 9.
  Vorlap::StrongPtr<Tessal::MemArray<1, int>> waveId;
  Vorlap::StrongPtr<Tessal::MemArray<1, float>> wavePosition;
  Vorlap::StrongPtr<Tessal::MemArray<1, unsigned short>> fwfLength;
  Vorlap::StrongPtr<Tessal::MemArray<2, unsigned short>> waves;

  void read(FragmentReader& r, bool withWaves, const ResultGrid& grid) {
    positions = r.positions();
    time = r.get<double>(schema::kGPSTime);
    range = r.get<double>(schema::kRange);
    pulseWidth = r.get<double>(schema::kPulseWidth, false);
    mta = r.get<unsigned char>(schema::kMTA);
    channel = r.get<unsigned char>(schema::kScannerChannel);
    cls = r.get<unsigned char>(schema::kClassification);
    ret = r.get<unsigned char>(schema::kReturnNumber);
    nret = r.get<unsigned char>(schema::kNumberOfReturns);
    amplitude = r.get<float>(schema::kAmplitude);
    damping = r.get<float>(schema::kDamping, false);
    reflectance = r.get<float>(schema::kReflectance);
    delta = r.get<vector>(schema::kDirectionDelta);
    if (!withWaves) return;
    waveId = r.get<int>(schema::kWaveID);
    wavePosition = r.get<float>(schema::kWaveformPositionIndex);
    fwfLength = r.get<unsigned short>(schema::kFWFLength, false);
    waves = Vorlap::dynamicPtrCast<Tessal::MemArray<2, unsigned short>>(
        r.raw(grid.field(schema::kWaveformSamples), schema::kWaveformSamples));
    if (!waves || waves->extent(1) != r.size())
      throw CliError(kInput, "field \"Waveforms\", fragment \"" + r.name() +
                                 "\" is not a 2-D uint16 array with one row per point");
  }
};

class LasFile {
 public:
  LasFile(const ResultGrid& grid, const std::string& resultName, const std::string& outPath,
          const LasExportOptions& options);
  ~LasFile();
  LasExportSummary write();

 private:
  void scanBounds();
  void scanAmplitudes(FragmentReader& r);
  void readTimeBase();
  void readCoordinateSystem(const std::string& crsOption);
  void readWaveformSetup();
  las::Bytes vlrs() const;
  void writePoints();
  void writePoint(const PointArrays& a, std::size_t k, las::Bytes& b);
  void putWavePacket(const PointArrays& a, std::size_t k, las::Bytes& b);
  void appendWaveData();
  void writeBytes(std::FILE* f, const las::Bytes& b, const char* what);
  [[noreturn]] void fail(const std::string& what) const;

  const ResultGrid& grid_;
  std::string resultName_, outPath_, tmpPath_, wavePath_;
  bool waveforms_;
  Transform toMap_;  // rotates beam directions into the frame of the positions
  ScanAngles scanAngles_;
  IntensityScale intensity_;
  std::optional<geo::CoordinateSystem> crs_;
  std::FILE* out_ = nullptr;
  std::FILE* waveData_ = nullptr;
  las::Header h_;
  double rawMin_[3], rawMax_[3];
  double timeShift_ = 0.0;
  std::uint32_t spacingPs_ = 0;
  std::map<std::size_t, std::uint8_t> descriptorOf_;  // samples per waveform -> index
  std::uint64_t waveBytes_ = 0;
  std::int64_t lastWave_ = -1;
  std::uint64_t lastOffset_ = 0;
  std::int32_t qMin_[3], qMax_[3];
  std::uint64_t notFinite_ = 0;  // points left out: their position is not finite
};

LasFile::LasFile(const ResultGrid& grid, const std::string& resultName, const std::string& outPath,
                 const LasExportOptions& options)
    : grid_(grid),
      resultName_(resultName),
      outPath_(outPath),
      waveforms_(options.waveforms),
      toMap_(grid.mapPositions ? scannerToMapOf(*grid.grid, "grid \"FWF\"")
                               : Transform{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}),
      scanAngles_(toMap_) {
  readCoordinateSystem(options.crs);
  const fs::path target(outPath);
  tmpPath_ = (target.parent_path() / ("." + target.filename().string() + ".partial")).string();
  wavePath_ = tmpPath_ + ".waves";
  for (int a = 0; a < 3; ++a) {
    rawMin_[a] = std::numeric_limits<double>::infinity();
    rawMax_[a] = -rawMin_[a];
    qMin_[a] = std::numeric_limits<std::int32_t>::max();
    qMax_[a] = std::numeric_limits<std::int32_t>::min();
  }
}

LasFile::~LasFile() {
  if (out_) std::fclose(out_);
  if (waveData_) std::fclose(waveData_);
  std::error_code ec;
  fs::remove(tmpPath_, ec);
  fs::remove(wavePath_, ec);
}

void LasFile::fail(const std::string& what) const {
  throw CliError(kOutput, outPath_ + ": " + what);
}

void LasFile::writeBytes(std::FILE* f, const las::Bytes& b, const char* what) {
  if (!b.empty() && std::fwrite(b.data(), 1, b.size(), f) != b.size())
    fail(std::string("cannot write ") + what + " (disk full?)");
}

void LasFile::scanBounds() {
  for (std::size_t f = 0; f < grid_.fragments.size(); ++f) {
    FragmentReader r(grid_, f);
    auto p = r.positions();
    for (std::size_t k = 0; k < p->size(); ++k) {
      const point q = p->get(k);
      if (!hasFinitePosition(q)) {
        ++notFinite_;
        continue;
      }
      const double c[3] = {q.x, q.y, q.z};
      for (int a = 0; a < 3; ++a) {
        rawMin_[a] = std::min(rawMin_[a], c[a]);
        rawMax_[a] = std::max(rawMax_[a], c[a]);
      }
      ++h_.pointCount;
    }
    scanAmplitudes(r);
    if (waveforms_) {
      auto creator = grid_.field(schema::kWaveformSamples)
                         ->getCreator(grid_.field(schema::kWaveformSamples)
                                          ->getFragmentIDCollection()
                                          ->findFragmentIDByName(r.name()));
      const auto e = creator ? creator->extents() : std::vector<std::size_t>();
      if (e.size() == 2 && !descriptorOf_.count(e[0])) {
        if (descriptorOf_.size() == 255) fail("more than 255 different waveform lengths");
        descriptorOf_[e[0]] = static_cast<std::uint8_t>(descriptorOf_.size() + 1);
      }
    }
  }
  for (int a = 0; a < 3; ++a) {
    h_.offset[a] = h_.pointCount ? std::floor(rawMin_[a]) : 0.0;
    if (h_.pointCount && (rawMax_[a] - h_.offset[a]) / kScale > 2147483647.0)
      throw CliError(kInput, resultName_ +
                                 ": the cloud spans more than 2147 km, which LAS "
                                 "cannot hold at millimetre resolution");
  }
}

void LasFile::scanAmplitudes(FragmentReader& r) {
  auto amplitude = r.get<float>(schema::kAmplitude);
  for (std::size_t k = 0; k < amplitude->size(); ++k) intensity_.include(amplitude->get(k));
}

// --crs when given, else the result's own (the input's, carried through the run).
void LasFile::readCoordinateSystem(const std::string& crsOption) {
  if (!crsOption.empty()) {
    crs_ = coordinateSystemOption(crsOption);
    if (crs_->wkt.size() > las::kMaxWktSize)
      throw CliError(kUsage, "--crs: the system's WKT is longer than a LAS record holds");
    return;
  }
  auto wkt = grid_.grid->attributes().getAttributeAs<std::string>(geo::kCoordinateSystemAttribute);
  if (!wkt) return;
  if (wkt->size() != 1)
    throw CliError(kInput, resultName_ + ": attribute \"" + geo::kCoordinateSystemAttribute +
                               "\" must hold one text");
  try {
    crs_ = geo::parseCoordinateSystem((*wkt)[0]);
    if (crs_->wkt.size() > las::kMaxWktSize)
      throw geo::CrsError("its WKT is longer than a LAS record holds");
  } catch (const geo::CrsError& e) {
    throw CliError(kInput, resultName_ + ": attribute \"" + geo::kCoordinateSystemAttribute +
                               "\": " + e.what() + " (give one with --crs)");
  }
}

// Adjusted standard GPS time when the acquisition week is known, else GPS week time.
void LasFile::readTimeBase() {
  auto week = grid_.grid->attributes().getAttributeAs<unsigned int>("WeekNumber");
  if (!week || week->size() != 1) return;
  timeShift_ = static_cast<double>((*week)[0]) * 604800.0 - 1.0e9;
  h_.globalEncoding |= las::kAdjustedGpsTime;
}

void LasFile::readWaveformSetup() {
  auto field = grid_.field(schema::kWaveformSamples);
  if (!field)
    throw CliError(kInput, resultName_ +
                               ": --waveforms needs a result with exported waveforms "
                               "(field \"Waveforms\")");
  auto interval = field->attributes().getAttributeAs<double>("WaveformSampleInterval");
  if (!interval || interval->size() != 1 || !((*interval)[0] > 0.0))
    throw CliError(kInput, resultName_ +
                               ": field \"Waveforms\" has no positive "
                               "\"WaveformSampleInterval\" attribute");
  spacingPs_ = static_cast<std::uint32_t>(std::lround((*interval)[0] * 1.0e12));
  waveData_ = std::fopen(wavePath_.c_str(), "wb");
  if (!waveData_) fail("cannot create a temporary file next to it");
}

las::Bytes LasFile::vlrs() const {
  las::Bytes b;
  const auto n = std::size(kExtraFields);
  las::putVlrHeader(b, las::kExtraBytesRecordId,
                    static_cast<std::uint16_t>(n * las::kExtraBytesDescriptorSize), "Extra Bytes");
  for (const auto& f : kExtraFields) las::putExtraBytesDescriptor(b, f);
  if (crs_) las::putWktVlr(b, crs_->wkt);
  for (const auto& [samples, index] : descriptorOf_) {
    las::putVlrHeader(b, static_cast<std::uint16_t>(las::kWaveDescriptorFirstId + index - 1),
                      las::kWaveDescriptorSize, "Waveform Packet Descriptor");
    las::putWaveDescriptor(b, static_cast<std::uint32_t>(samples), spacingPs_);
  }
  return b;
}

void LasFile::putWavePacket(const PointArrays& a, std::size_t k, las::Bytes& b) {
  const std::size_t samples = a.waves->extent(0);
  const bool present = samples > 0 && (!a.fwfLength || a.fwfLength->get(k) != 0);
  if (!present) {
    b.insert(b.end(), las::kFormat9Size - las::kFormat6Size, 0);
    return;
  }
  // Echoes of one wave share its samples: one packet per wave.
  if (a.waveId->get(k) != lastWave_) {
    las::Bytes packet;
    for (std::size_t s = 0; s < samples; ++s) las::put(packet, a.waves->get(s, k));
    writeBytes(waveData_, packet, "waveform samples");
    lastOffset_ = las::kEvlrHeaderSize + waveBytes_;
    waveBytes_ += packet.size();
    lastWave_ = a.waveId->get(k);
  }
  // LAS extrapolates along the wave in the frame of X, Y and Z: the map frame when mapped.
  const double ps = spacingPs_;
  const vector d = rotateToMap(toMap_, a.delta->get(k));
  las::put(b, descriptorOf_.at(samples));
  las::put(b, lastOffset_);
  las::put(b, static_cast<std::uint32_t>(samples * 2));
  las::put(b, static_cast<float>(a.wavePosition->get(k) * ps));
  las::put(b, static_cast<float>(d.x / ps));
  las::put(b, static_cast<float>(d.y / ps));
  las::put(b, static_cast<float>(d.z / ps));
}

void LasFile::writePoint(const PointArrays& a, std::size_t k, las::Bytes& b) {
  const point p = a.positions->get(k);
  if (!hasFinitePosition(p)) return;  // counted by scanBounds; LAS cannot hold them
  const double c[3] = {p.x, p.y, p.z};
  for (int i = 0; i < 3; ++i) {
    const auto q = static_cast<std::int32_t>(std::llround((c[i] - h_.offset[i]) / kScale));
    qMin_[i] = std::min(qMin_[i], q);
    qMax_[i] = std::max(qMax_[i], q);
    las::put(b, q);
  }
  las::put(b, intensity_(a.amplitude->get(k)));
  // LAS 1.4 counts returns up to 15: larger numbers are clamped.
  const int nret = std::clamp<int>(a.nret->get(k), 1, las::kMaxReturns);
  const int ret = std::clamp<int>(a.ret->get(k), 1, nret);
  h_.byReturn[ret - 1]++;
  las::put(b, static_cast<std::uint8_t>(ret | (nret << 4)));
  const int channel = std::min<int>(a.channel->get(k), 3);
  las::put(b, static_cast<std::uint8_t>(channel << 4));
  las::put(b, a.cls->get(k));
  las::put<std::uint8_t>(b, 0);  // user data
  las::put(b, (*a.scanAngle)[k]);
  las::put<std::uint16_t>(b, 0);  // point source id
  las::put(b, a.time->get(k) + timeShift_);
  if (waveforms_) putWavePacket(a, k, b);
  las::put(b, a.mta->get(k));
  las::put(b, a.reflectance->get(k));
  las::put(b, a.range->get(k));
  las::put(b, a.amplitude->get(k));
  const double pw = a.pulseWidth ? a.pulseWidth->get(k) : 0.0;
  las::put(b, std::isnan(pw) ? 0.0 : pw);
  las::put(b, a.damping ? a.damping->get(k) : 0.0f);
}

void LasFile::writePoints() {
  for (std::size_t f = 0; f < grid_.fragments.size(); ++f) {
    FragmentReader r(grid_, f);
    PointArrays a;
    a.read(r, waveforms_, grid_);
    a.scanAngle = &scanAngles_.fragment(
        {r.size(), a.positions.get(), a.time.get(), a.range.get(), a.delta.get()});
    lastWave_ = -1;
    las::Bytes b;
    b.reserve(r.size() * h_.pointLength);
    for (std::size_t k = 0; k < r.size(); ++k) writePoint(a, k, b);
    writeBytes(out_, b, "point records");
  }
}

void LasFile::appendWaveData() {
  h_.waveDataStart = h_.firstEvlr = static_cast<std::uint64_t>(std::ftell(out_));
  h_.numberOfEvlrs = 1;
  las::Bytes header;
  las::putEvlrHeader(header, las::kWaveDataRecordId, waveBytes_, "Waveform Data Packets");
  writeBytes(out_, header, "the waveform record header");
  if (std::fclose(waveData_) != 0) fail("cannot write waveform samples");
  waveData_ = std::fopen(wavePath_.c_str(), "rb");
  if (!waveData_) fail("cannot reopen the temporary waveform file");
  std::vector<unsigned char> chunk(1 << 20);
  std::size_t n;
  while ((n = std::fread(chunk.data(), 1, chunk.size(), waveData_)) > 0)
    writeBytes(out_, las::Bytes(chunk.begin(), chunk.begin() + n), "waveform samples");
}

LasExportSummary LasFile::write() {
  if (waveforms_) readWaveformSetup();
  scanBounds();
  readTimeBase();
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  h_.creationDay = static_cast<std::uint16_t>(utc.tm_yday + 1);
  h_.creationYear = static_cast<std::uint16_t>(utc.tm_year + 1900);
  h_.globalEncoding |= las::kWkt;
  h_.pointFormat = waveforms_ ? 9 : 6;
  h_.pointLength =
      static_cast<std::uint16_t>((waveforms_ ? las::kFormat9Size : las::kFormat6Size) + kExtraSize);
  const las::Bytes v = vlrs();
  h_.numberOfVlrs = static_cast<std::uint32_t>(1 + (crs_ ? 1 : 0) + descriptorOf_.size());
  h_.offsetToPoints = static_cast<std::uint32_t>(las::kHeaderSize + v.size());
  if (waveforms_) h_.globalEncoding |= las::kWaveformInternal;

  out_ = std::fopen(tmpPath_.c_str(), "wb");
  if (!out_) fail("cannot create the file (does the folder exist and is it writable?)");
  writeBytes(out_, las::encodeHeader(h_), "the header");
  writeBytes(out_, v, "the VLRs");
  writePoints();
  if (waveforms_) appendWaveData();
  for (int a = 0; a < 3 && h_.pointCount; ++a) {
    h_.min[a] = h_.offset[a] + qMin_[a] * kScale;
    h_.max[a] = h_.offset[a] + qMax_[a] * kScale;
  }
  if (std::fseek(out_, 0, SEEK_SET) != 0) fail("cannot rewrite the header");
  writeBytes(out_, las::encodeHeader(h_), "the header");
  const int closed = std::fclose(out_);
  out_ = nullptr;
  if (closed != 0) fail("cannot finish writing (disk full?)");
  std::error_code ec;
  fs::rename(tmpPath_, outPath_, ec);
  if (ec) fail("cannot move the finished file into place: " + ec.message());
  return {h_.pointCount,
          h_.pointFormat,
          (h_.globalEncoding & las::kAdjustedGpsTime) != 0,
          crs_ ? crs_->label() : "",
          intensity_.factor(),
          notFinite_};
}

}  // namespace

LasExportSummary exportLas(const Tessal::BundlePtr& result, const std::string& resultName,
                           const std::string& outPath, const LasExportOptions& options) {
  const ResultGrid grid = openResultGrid(result, resultName);
  LasFile file(grid, resultName, outPath, options);
  return file.write();
}

}  // namespace quillo::cli
