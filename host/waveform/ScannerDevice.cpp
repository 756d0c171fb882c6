// Scanner description: reads the scanner's parameters from attributes of the "Shots" grid
// ("SampleInterval" from the "Waveforms" grid) and checks that they are meaningful.
#include "waveform/ScannerDevice.hpp"
#include "vorlap/NumberText.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "vorlap/Console.hpp"

namespace FullWaveform {

namespace {

namespace A = ScannerAttribute;

// Reads attributes of one grid and reports each problem once.
class AttributeReader {
 public:
  AttributeReader(const Tessal::Grid& grid, bool& valid) : grid_(grid), valid_(valid) {}

  // A number stored as double, float, int or unsigned; false when absent.
  bool number(const char* name, double& out) {
    auto chunk = grid_.attributes().getAttribute(name);
    if (!chunk) return false;
    if (chunk->size() == 0) return fail(name, "is empty");
    if (!Vorlap::firstNumberOf(chunk, out))
      return fail(name,
                  std::string("holds ") + Vorlap::chunkTypeName(chunk->type()) + ", not a number");
    return true;
  }

  bool text(const char* name, std::string& out) {
    auto chunk = grid_.attributes().getAttribute(name);
    if (!chunk) return false;
    auto t = Vorlap::dynamicPtrCast<Vorlap::Chunk<std::string>>(chunk);
    if (!t || t->size() == 0) return fail(name, "is not a text");
    out = (*t)[0];
    return true;
  }

  bool numbers(const char* name, std::vector<float>& out) {
    auto chunk = grid_.attributes().getAttribute(name);
    if (!chunk) return false;
    using namespace Vorlap;
    if (auto f = dynamicPtrCast<Chunk<float>>(chunk))
      out = f->values();
    else if (auto d = dynamicPtrCast<Chunk<double>>(chunk))
      out.assign(d->values().begin(), d->values().end());
    else
      return fail(name, "is not an array of numbers");
    return true;
  }

  bool present(const char* name) const { return !grid_.attributes().getAttribute(name).isEmpty(); }

  bool fail(const std::string& name, const std::string& what) {
    Vorlap::Console() << "ScannerDevice: attribute \"" << name << "\" of grid \"" << grid_.getName()
                      << "\" " << what;
    valid_ = false;
    return false;
  }

 private:
  const Tessal::Grid& grid_;
  bool& valid_;
};

ScannerDevice::ScanPattern patternFrom(std::string text, bool& known) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  known = true;
  if (text == "line-wise") return ScannerDevice::ScanPattern::LineWise;
  if (text == "radial") return ScannerDevice::ScanPattern::Radial;
  known = false;
  return ScannerDevice::ScanPattern::Unknown;
}

void readReflectanceTable(AttributeReader& r, ScannerDevice& device) {
  std::vector<float> values;
  if (!r.numbers(A::ReflectanceTable, values)) return;
  for (float v : values)
    if (!std::isfinite(v)) {
      r.fail(A::ReflectanceTable, "holds a value that is not finite");
      return;
    }
  if (values.empty()) return;  // an empty table means: no table
  device.reflectanceTable = Vorlap::makeStrong<ReflectanceTable>(ReflectanceTable{values});
  if (r.number(A::ReflectanceTableStep, device.reflectanceTableStep) &&
      (!(device.reflectanceTableStep > 0.0) || !std::isfinite(device.reflectanceTableStep)))
    r.fail(A::ReflectanceTableStep,
           "must be a positive number, is " + Vorlap::shortestText(device.reflectanceTableStep));
}

}  // namespace

ScannerDevice::ScannerDevice(const Vorlap::StrongPtr<Tessal::Grid>& shots,
                             const Vorlap::StrongPtr<Tessal::Grid>& waveforms) {
  if (!shots) {
    Vorlap::Console() << "ScannerDevice: no Shots grid";
    return;
  }
  valid_ = true;
  AttributeReader r(*shots, valid_);
  if (!r.present(A::PulseRepetitionRate))
    r.fail(A::PulseRepetitionRate, "is missing");
  else if (r.number(A::PulseRepetitionRate, pulseRepetitionRate) &&
           (!(pulseRepetitionRate > 0.0) || !std::isfinite(pulseRepetitionRate)))
    r.fail(A::PulseRepetitionRate,
           "must be a positive number, is " + Vorlap::shortestText(pulseRepetitionRate));
  if (r.number(A::LightSpeed, lightSpeed) && (!(lightSpeed > 0.0) || !std::isfinite(lightSpeed)))
    r.fail(A::LightSpeed, "must be a positive number, is " + Vorlap::shortestText(lightSpeed));
  r.number(A::SampleInterval, sampleInterval);
  if (waveforms) {
    AttributeReader w(*waveforms, valid_);
    if (w.present(A::SampleInterval)) w.number(A::SampleInterval, sampleInterval);
    if (!w.present(A::SampleInterval) && !r.present(A::SampleInterval))
      w.fail(A::SampleInterval, "is missing (the waveforms need it)");
    else if (!(sampleInterval > 0.0) || !std::isfinite(sampleInterval))
      w.fail(A::SampleInterval,
             "must be a positive number, is " + Vorlap::shortestText(sampleInterval));
  } else if (!(sampleInterval >= 0.0) || !std::isfinite(sampleInterval)) {
    r.fail(A::SampleInterval, "must not be negative, is " + Vorlap::shortestText(sampleInterval));
  }
  // Compared with every wave: a NaN threshold would refuse all, an infinite offset drop all.
  if (r.number(A::MinAmplitude, minAmplitude) && !std::isfinite(minAmplitude))
    r.fail(A::MinAmplitude, "must be a finite number, is " + Vorlap::shortestText(minAmplitude));
  if (r.number(A::MinTimeOffset, minTimeOffset) &&
      (!(minTimeOffset >= 0.0) || !std::isfinite(minTimeOffset)))
    r.fail(A::MinTimeOffset,
           "must be a finite number of 0 or more, is " + Vorlap::shortestText(minTimeOffset));
  double block = blockSize;
  if (r.number(A::BlockSize, block)) {
    if (!(block >= 1.0 && block <= 1.0e7) || block != std::floor(block))
      r.fail(A::BlockSize,
             "must be a whole number from 1 to 10000000, is " + Vorlap::shortestText(block));
    else
      blockSize = std::int32_t(block);
  }
  std::string pattern;
  if (r.text(A::ScanPattern, pattern)) {
    bool known = false;
    extraAttributes.pattern = patternFrom(pattern, known);
    if (!known) r.fail(A::ScanPattern, "is \"" + pattern + "\", not line-wise or radial");
  }
  r.text(A::ModelName, modelName);
  readReflectanceTable(r, *this);
}

double ScannerDevice::getMTALengthAsTime() const {
  return pulseRepetitionRate > 0.0 ? 0.5 / pulseRepetitionRate : 0.0;
}

std::string ScannerDevice::speak() const {
  const char* pattern = isLineWise() ? "line-wise" : isRadial() ? "radial" : "unknown";
  std::string s;
  s += "ScannerModel: " + modelName + "\n";
  s += "PulseRepetitionRate: " + Vorlap::shortestText(pulseRepetitionRate) + "\n";
  s += "LightSpeed: " + Vorlap::shortestText(lightSpeed) + "\n";
  s += "SampleInterval: " + Vorlap::shortestText(sampleInterval) + "\n";
  s += "MinAmplitude: " + Vorlap::shortestText(minAmplitude) + "\n";
  s += "MinTimeOffset: " + Vorlap::shortestText(minTimeOffset) + "\n";
  s += "BlockSize: " + std::to_string(blockSize) + "\n";
  s += std::string("ScanPattern: ") + pattern + "\n";
  s += "ReflectanceTable: " +
       std::to_string(reflectanceTable ? reflectanceTable->values.size() : 0) + " entries\n";
  s += "ReflectanceTableStep: " + Vorlap::shortestText(reflectanceTableStep) + "\n";
  s += "MTAZoneLength: " + Vorlap::shortestText(getMTALengthAsTime()) + " s\n";
  return s;
}

}  // namespace FullWaveform
