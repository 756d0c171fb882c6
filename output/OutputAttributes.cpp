// Output attributes. Reads the store's scanner description, run parameters and Shots grid;
// writes attributes of the output grid and of its "Waveforms" and "PointType" fields.
#include "output/OutputAttributes.hpp"

#include <filesystem>
#include <regex>

#include "pelkor/Chronometry.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

template <class T>
void setAttribute(Vorlap::Attributes& attributes, Vorlap::Ageable& owner, const std::string& name,
                  T value) {
  attributes.setAttribute(name, Vorlap::makeChunk<T>({std::move(value)}));
  owner.setAge(Vorlap::Ageable::nextTime());
}

void setTextAttribute(Tessal::Grid& grid, const std::string& name, const std::string& text) {
  setAttribute<std::string>(grid.attributes(), grid, name, text);
}

void setUIntAttribute(Tessal::Grid& grid, const std::string& name, unsigned value) {
  setAttribute<unsigned>(grid.attributes(), grid, name, value);
}

Vorlap::StrongPtr<Tessal::Field> fieldNamed(const Tessal::Representation& rep,
                                            const std::string& name) {
  auto id = rep.findFieldID(name);
  return id ? rep.findField(id) : Tessal::Field::NullPtrField();
}

std::string pointTypeNames() {
  std::string text;
  for (int i = 0; i < 8; ++i)
    text += std::to_string(i) + ": " + convertType(static_cast<TYPE>(i)) + "\n";
  return text;
}

void setFieldAttributes(const Tessal::Representation& rep, const ScannerDevice& scanner) {
  if (auto waveforms = fieldNamed(rep, schema::kWaveformSamples))
    setAttribute<double>(waveforms->attributes(), *waveforms, "WaveformSampleInterval",
                         scanner.sampleInterval);
  if (auto types = fieldNamed(rep, schema::kPointType))
    setAttribute<std::string>(types->attributes(), *types, "PointTypes", pointTypeNames());
}

}  // namespace

std::string addAttributes(const Vorlap::StrongPtr<Tessal::Grid>& grid, FatBoy<unsigned short>& fb) {
  auto rep = grid->getCartesianRepresentation(schema::kScannerChart);
  if (!rep) return "addAttributes: no ScannerCoordinateSystem representation available";
  setFieldAttributes(*rep, fb.scannerDevice);
  if (fb.SHOT && fb.SHOT->arrays.GPSTime && fb.SHOT->G && fb.SHOT->G != grid)
    grid->replaceAttributes(fb.SHOT->G->attributes());
  setTextAttribute(*grid, "InputParameter", fb.input->speak() + fb.scannerDevice.speak());
  if (fb.input->inputFileName.empty()) return "Cannot add attributes: no input file name available";
  const std::string stem = std::filesystem::path(fb.input->inputFileName).stem().string();
  std::smatch match;
  if (!std::regex_search(stem, match, std::regex(schema::kFileDatePattern)))
    return "Cannot add attributes: cannot extract date from input file name";
  const Pelkor::Chronometry date(match[3].str() + match[2].str() + match[1].str());
  setUIntAttribute(*grid, "WeekDay", date.weekDay);
  setUIntAttribute(*grid, "WeekNumber", date.weekNumber);
  setUIntAttribute(*grid, "Year", date.year);
  return "";
}

}  // namespace FullWaveform
