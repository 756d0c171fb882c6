#include "app/FileInfo.hpp"
#include "vorlap/NumberText.hpp"

#include <algorithm>
#include <cmath>

#include "app/Json.hpp"
#include "geo/CoordinateSystem.hpp"
#include "tessal/Schema.hpp"
#include "vorlap/Console.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

template <class T>
std::string joined(const Vorlap::Chunk<T>& c, std::string (*show)(const T&)) {
  std::string s;
  const std::size_t shown = std::min<std::size_t>(c.size(), 8);
  for (std::size_t i = 0; i < shown; ++i) s += (i ? ", " : "") + show(c[i]);
  if (c.size() > shown) s += ", ... (" + std::to_string(c.size()) + " values)";
  return s;
}

std::string attributeValue(const Vorlap::ChunkBase& chunk) {
  using namespace Vorlap;
  if (auto* c = dynamic_cast<const Chunk<int>*>(&chunk))
    return joined<int>(*c, [](const int& v) { return std::to_string(v); });
  if (auto* c = dynamic_cast<const Chunk<unsigned>*>(&chunk))
    return joined<unsigned>(*c, [](const unsigned& v) { return std::to_string(v); });
  if (auto* c = dynamic_cast<const Chunk<float>*>(&chunk))
    return joined<float>(*c, [](const float& v) { return Vorlap::shortestText(v); });
  if (auto* c = dynamic_cast<const Chunk<double>*>(&chunk))
    return joined<double>(*c, [](const double& v) { return Vorlap::shortestText(v); });
  if (auto* c = dynamic_cast<const Chunk<std::string>*>(&chunk))
    return joined<std::string>(*c, [](const std::string& v) { return "\"" + v + "\""; });
  return "?";
}

FieldInfo fieldInfo(const Tessal::Field& field) {
  FieldInfo info{field.getName(), "", field.getNumberOfFragments(), 0};
  auto ids = field.getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = field.getCreator(ids->at(f));
    if (!creator) continue;
    info.elementType = Tessal::elementTypeName(creator->elementType());
    std::size_t n = 1;
    for (auto e : creator->extents()) n *= e;
    info.elements += n;
  }
  return info;
}

GridInfo gridInfo(const Tessal::Grid& grid) {
  GridInfo g{grid.getName(), {}, {}};
  for (const auto& name : grid.attributes().names()) {
    auto chunk = grid.attributes().getAttribute(name);
    g.attributes.push_back({name, Vorlap::chunkTypeName(chunk->type()), attributeValue(*chunk)});
  }
  for (const auto& rep : grid.representations()) {
    ChartInfo chart{rep->getName(), {}};
    for (const auto& entry : rep->fields())
      if (entry.field) chart.fields.push_back(fieldInfo(*entry.field));
    g.charts.push_back(chart);
  }
  return g;
}

void shotSpan(const Tessal::Grid& shots, FileInfo& info) {
  auto times = shots(schema::kGPSTime, "");
  if (!times) return;
  auto ids = times->getFragmentIDCollection();
  bool first = true;
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = times->getCreator(ids->at(f));
    auto range = creator ? Tessal::getFragmentRange(*creator, false, true, {}) : nullptr;
    if (creator) creator->enableCaching(false);
    if (!range || range->min.empty() || !std::isfinite(range->min[0])) continue;
    info.firstShotTime = first ? range->min[0] : std::min(info.firstShotTime, range->min[0]);
    info.lastShotTime = first ? range->max[0] : std::max(info.lastShotTime, range->max[0]);
    first = false;
  }
  info.shots = fieldInfo(*times).elements;
}

void coordinateSystem(const Tessal::Slice& slice, FileInfo& info) {
  for (const char* name : {schema::kShotsGrid, schema::kResultGrid}) {
    auto grid = slice(name);
    auto wkt = grid
                   ? grid->attributes().getAttributeAs<std::string>(geo::kCoordinateSystemAttribute)
                   : nullptr;
    if (!wkt || wkt->size() != 1) continue;
    try {
      const geo::CoordinateSystem crs = geo::parseCoordinateSystem((*wkt)[0]);
      info.crsLabel = crs.label();
      info.crsId = crs.id;
      info.crsWkt = crs.wkt;
    } catch (const geo::CrsError& e) {
      info.crsProblem = e.what();
    }
    return;
  }
}

}  // namespace

FileInfo describe(Tessal::BundlePtr& bundle) {
  FileInfo info;
  double t = 0.0;
  auto slice = (*bundle.create())(t);
  if (!slice) return info;
  for (const auto& grid : slice->grids()) info.grids.push_back(gridInfo(*grid));
  coordinateSystem(*slice, info);
  auto shots = (*slice)(schema::kShotsGrid);
  if (!shots) return info;
  shotSpan(*shots, info);
  Vorlap::ConsoleCapture capture;  // the scanner's complaints become part of the report
  FullWaveform::ScannerDevice scanner(shots, (*slice)(schema::kWaveformsGrid));
  info.scannerUsable = scanner();
  info.scanner = info.scannerUsable ? scanner.speak() : capture.joined();
  return info;
}

std::string infoAsText(const std::string& file, const FileInfo& info) {
  std::string s = file + "\n";
  for (const auto& g : info.grids) {
    s += "grid \"" + g.name + "\"\n";
    for (const auto& a : g.attributes)
      s += "  attribute " + a.name + " (" + a.type + "): " + a.value + "\n";
    for (const auto& c : g.charts) {
      s += "  chart \"" + c.name + "\"\n";
      for (const auto& f : c.fields)
        s += "    field " + f.name + " (" + f.elementType + "): " + std::to_string(f.fragments) +
             " fragments, " + std::to_string(f.elements) + " elements\n";
    }
  }
  if (!info.crsProblem.empty())
    s += "coordinate system: not readable: " + info.crsProblem + "\n";
  else
    s += "coordinate system: " + (info.crsLabel.empty() ? "none" : info.crsLabel) + "\n";
  if (info.shots) {
    s += "shots: " + std::to_string(info.shots) + ", GPS time " +
         Vorlap::shortestText(info.firstShotTime) + " to " +
         Vorlap::shortestText(info.lastShotTime) + " s\n";
  }
  if (!info.scanner.empty())
    s +=
        std::string("scanner") + (info.scannerUsable ? "" : " (not usable)") + ":\n" + info.scanner;
  return s;
}

namespace {

Json gridAsJson(const GridInfo& g) {
  Json attributes = Json::object(), charts = Json::array();
  for (const auto& a : g.attributes) attributes[a.name] = {{"type", a.type}, {"value", a.value}};
  for (const auto& c : g.charts) {
    Json fields = Json::array();
    for (const auto& f : c.fields)
      fields.push_back({{"name", f.name},
                        {"element_type", f.elementType},
                        {"fragments", f.fragments},
                        {"elements", f.elements}});
    charts.push_back({{"name", c.name}, {"fields", fields}});
  }
  return {{"name", g.name}, {"attributes", attributes}, {"charts", charts}};
}

Json crsAsJson(const FileInfo& info) {
  if (!info.crsProblem.empty()) return {{"problem", info.crsProblem}};
  if (info.crsLabel.empty()) return nullptr;
  return {{"name", info.crsLabel}, {"id", info.crsId}, {"wkt", info.crsWkt}};
}

}  // namespace

std::string infoAsJson(const std::string& file, const FileInfo& info) {
  Json grids = Json::array();
  for (const auto& g : info.grids) grids.push_back(gridAsJson(g));
  return jsonText({{"file", file},
                   {"grids", grids},
                   {"coordinate_system", crsAsJson(info)},
                   {"shots", info.shots},
                   {"first_shot_time", info.firstShotTime},
                   {"last_shot_time", info.lastShotTime},
                   {"scanner_usable", info.scannerUsable},
                   {"scanner", info.scanner}});
}

}  // namespace quillo::cli
