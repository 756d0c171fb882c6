// What `quillo info` tells about a .kq file: its grids, charts, fields (element type,
// fragment count), attributes, the coordinate system, the scanner description and the shot
// count and time span.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessal/Bundle.hpp"

namespace quillo::cli {

struct FieldInfo {
  std::string name, elementType;
  std::size_t fragments = 0, elements = 0;
};
struct ChartInfo {
  std::string name;
  std::vector<FieldInfo> fields;
};
struct AttributeInfo {
  std::string name, type, value;  // value: the elements, shortened when long
};
struct GridInfo {
  std::string name;
  std::vector<AttributeInfo> attributes;
  std::vector<ChartInfo> charts;
};
struct FileInfo {
  std::vector<GridInfo> grids;
  std::string scanner;  // the scanner description's text, or why it is not usable
  bool scannerUsable = false;
  std::uint64_t shots = 0;
  double firstShotTime = 0.0, lastShotTime = 0.0;
  // From the "CoordinateSystem" attribute of "Shots" (an input) or "FWF" (a result).
  std::string crsLabel, crsId, crsWkt;  // empty: none
  std::string crsProblem;               // why the attribute could not be read
};

FileInfo describe(Tessal::BundlePtr& bundle);
std::string infoAsText(const std::string& file, const FileInfo& info);
std::string infoAsJson(const std::string& file, const FileInfo& info);

}  // namespace quillo::cli
