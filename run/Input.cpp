// Run parameters: their text, the output file names and the data segment lookup.
#include "run/Input.hpp"
#include "vorlap/NumberText.hpp"

#include "tessal/Schema.hpp"
#include "vorlap/Console.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

const char* yesNo(bool b) {
  return b ? " Yes " : " No ";
}

}  // namespace

std::string Input::speak() const {
  std::string s;
  s += "MTA: " + std::to_string(MTA) + "\n";
  s += "FWF-Modus: " + getNameOfModus(fwfModus) + "\n";
  s += std::string("Export FWF ") + yesNo(exportFWF) + "\n";
  s += "NoiseLevel " + Vorlap::shortestText(noiseLevel) + "\n";
  s += std::string("SkipFWF ") + yesNo(skipFWF) + "\n";
  s += std::string("SkipOnline ") + yesNo(skipOnline) + "\n";
  s += std::string("Data is from file: ") + (RDB_SEGMENT != -1 ? " RDB " : " RXP ") + "\n";
  return s;
}

std::pair<std::filesystem::path, std::filesystem::path> Input::getOutFileName(
    const std::filesystem::path& inputFile) const {
  std::string stem = inputFile.stem().string();
  const std::string suffix = "_rdb";
  if (RDB_SEGMENT != -1 && stem.size() > suffix.size() &&
      stem.compare(stem.size() - suffix.size(), suffix.size(), suffix) == 0)
    stem.erase(stem.size() - suffix.size());
  const std::filesystem::path dir = inputFile.parent_path();
  const std::string base = dir.empty() ? stem : (dir / stem).string();
  if (RDB_SEGMENT == -1) return {base + "_1.kq", base + "_0.kq"};
  if (RDB_SEGMENT == 0) return {base + ".kq", {}};
  if (RDB_SEGMENT >= 2) {
    Vorlap::Console() << "getOutFileName: Invalid RDB_SEGMENT";
    return {};
  }
  return {{}, base + ".kq"};
}

std::string Input::setIsDataFrom_RDBX_File(Tessal::BundlePtr& bundle) {
  if (bundle.isEmpty()) return "setIsDataFrom_RDBX_File:: BP null";
  auto slice = (*bundle.create())[0.0];
  auto shots = slice ? (*slice)(schema::kShotsGrid) : Vorlap::StrongPtr<Tessal::Grid>();
  if (!shots) return "setIsDataFrom_RDBX_File:: Grid null*";
  auto segment = shots->attributes().getAttributeAs<int>("RDB_Segment");
  // An empty array carries no segment: handled like a missing attribute.
  if (!segment || segment->size() == 0) return "setIsDataFrom_RDBX_File:: Attr null";
  RDB_SEGMENT = (*segment)[0];
  return "";
}

}  // namespace FullWaveform
