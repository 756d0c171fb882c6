// Reads coordinate systems with PROJ (one context per call, so any thread may use it) and
// writes them as one-line WKT 1; PROJ's own messages become the text of the error.
#include "geo/CoordinateSystem.hpp"

#include <proj.h>

#include <cmath>
#include <memory>

namespace quillo::geo {

namespace {

// A PROJ context whose log goes into `messages` instead of stderr.
class Context {
 public:
  Context() : ctx_(proj_context_create()) {
    if (!ctx_) throw CrsError("cannot start PROJ");
    proj_log_func(ctx_, &messages_, [](void* sink, int, const char* text) {
      auto& messages = *static_cast<std::string*>(sink);
      messages += (messages.empty() ? "" : "; ") + std::string(text ? text : "");
    });
  }
  ~Context() { proj_context_destroy(ctx_); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  PJ_CONTEXT* get() const { return ctx_; }
  const std::string& messages() const { return messages_; }

 private:
  PJ_CONTEXT* ctx_;
  std::string messages_;
};

struct PjDeleter {
  void operator()(PJ* pj) const { proj_destroy(pj); }
};
using Pj = std::unique_ptr<PJ, PjDeleter>;

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// A short quote of what the user gave, for messages.
std::string quoted(const std::string& text) {
  return "\"" + (text.size() > 60 ? text.substr(0, 57) + "..." : text) + "\"";
}

// Horizontal and vertical parts of `crs`, with any bound to WGS 84 taken off.
std::vector<Pj> components(const Context& c, PJ* crs) {
  std::vector<Pj> parts;
  if (proj_get_type(crs) == PJ_TYPE_COMPOUND_CRS) {
    for (int i = 0; i < 2; ++i)
      if (Pj sub{proj_crs_get_sub_crs(c.get(), crs, i)}) parts.push_back(std::move(sub));
  } else {
    parts.push_back(Pj{proj_clone(c.get(), crs)});
  }
  for (auto& part : parts)
    if (part && proj_get_type(part.get()) == PJ_TYPE_BOUND_CRS)
      part.reset(proj_get_source_crs(c.get(), part.get()));
  return parts;
}

// The points are written in metres: a system in degrees or feet would mislabel them.
void requireMetres(const Context& c, PJ* crs, const std::string& what) {
  for (const auto& part : components(c, crs)) {
    Pj cs{part ? proj_crs_get_coordinate_system(c.get(), part.get()) : nullptr};
    if (!cs) continue;
    for (int a = 0; a < proj_cs_get_axis_count(c.get(), cs.get()); ++a) {
      double toMetre = 0.0;
      const char* unit = nullptr;
      proj_cs_get_axis_info(c.get(), cs.get(), a, nullptr, nullptr, nullptr, &toMetre, &unit,
                            nullptr, nullptr);
      if (std::fabs(toMetre - 1.0) > 1e-12)
        throw CrsError(what + " (" + proj_get_name(part.get()) + ") measures in " +
                       (unit ? unit : "an unknown unit") +
                       "; quillo's coordinates are metres, so only a system in metres fits");
    }
  }
}

// "AUTHORITY:CODE" of `crs`, or of the system PROJ finds identical to it in the EPSG tables.
std::string identifier(const Context& c, PJ* crs) {
  if (const char* code = proj_get_id_code(crs, 0))
    return std::string(proj_get_id_auth_name(crs, 0)) + ":" + code;
  int* confidence = nullptr;
  PJ_OBJ_LIST* matches = proj_identify(c.get(), crs, "EPSG", nullptr, &confidence);
  std::string id;
  if (matches && proj_list_get_count(matches) > 0 && confidence[0] == 100) {
    Pj best{proj_list_get(c.get(), matches, 0)};
    if (const char* code = best ? proj_get_id_code(best.get(), 0) : nullptr)
      id = std::string(proj_get_id_auth_name(best.get(), 0)) + ":" + code;
  }
  proj_int_list_destroy(confidence);
  proj_list_destroy(matches);
  return id;
}

// WKT 1 when it reads back; a few systems (dynamic datums, some compounds) need WKT 2.
std::string wktOf(const Context& c, PJ* crs) {
  const char* const options[] = {"MULTILINE=NO", nullptr};
  if (const char* wkt1 = proj_as_wkt(c.get(), crs, PJ_WKT1_GDAL, options))
    if (Pj back{proj_create(c.get(), wkt1)}) return wkt1;
  if (const char* wkt2 = proj_as_wkt(c.get(), crs, PJ_WKT2_2019, options)) return wkt2;
  throw CrsError("PROJ cannot write " + std::string(proj_get_name(crs)) + " as WKT");
}

CoordinateSystem describe(const Context& c, PJ* crs) {
  return {wktOf(c, crs), proj_get_name(crs), identifier(c, crs)};
}

}  // namespace

CoordinateSystem parseCoordinateSystem(const std::string& text) {
  const std::string definition = trimmed(text);
  if (definition.empty()) throw CrsError("the coordinate system is empty");
  Context c;
  Pj crs{proj_create(c.get(), definition.c_str())};
  if (!crs)
    throw CrsError("not a coordinate system PROJ knows: " + quoted(definition) +
                   (c.messages().empty() ? "" : " (" + c.messages() + ")"));
  if (!proj_is_crs(crs.get()))
    throw CrsError(quoted(definition) + " is a " + proj_get_name(crs.get()) +
                   ", not a coordinate reference system");
  requireMetres(c, crs.get(), "the coordinate system " + quoted(definition));
  return describe(c, crs.get());
}

namespace {

constexpr std::uint16_t kGeographicKey = 2048, kProjectedKey = 3072, kVerticalKey = 4096;
constexpr std::uint16_t kUserDefined = 32767;

// The value of a short-valued key held in the directory itself; 0 when absent.
std::uint16_t keyValue(const std::vector<std::uint16_t>& directory, std::uint16_t key) {
  const std::size_t keys = directory[3];
  for (std::size_t k = 0; k < keys; ++k) {
    const std::uint16_t* entry = &directory[4 + 4 * k];
    if (entry[0] == key) return entry[1] == 0 ? entry[3] : 0;
  }
  return 0;
}

}  // namespace

CoordinateSystem coordinateSystemFromGeoKeys(const std::vector<std::uint16_t>& directory) {
  if (directory.size() < 4 || directory[0] != 1 || directory.size() < 4 + 4u * directory[3])
    throw CrsError("the GeoTIFF key directory is damaged (its header or key count is wrong)");
  const std::uint16_t projected = keyValue(directory, kProjectedKey);
  const std::uint16_t horizontal = projected ? projected : keyValue(directory, kGeographicKey);
  if (horizontal == 0) throw CrsError("the GeoTIFF keys name no projected or geographic system");
  if (horizontal == kUserDefined)
    throw CrsError("the GeoTIFF keys define their own system, which has no EPSG code");
  std::string definition = "EPSG:" + std::to_string(horizontal);
  const std::uint16_t vertical = keyValue(directory, kVerticalKey);
  // A user-defined vertical system carries no more than a unit: the heights stay unlabelled.
  if (vertical != 0 && vertical != kUserDefined) definition += "+" + std::to_string(vertical);
  return parseCoordinateSystem(definition);
}

CoordinateSystem localCoordinateSystem(const std::string& name) {
  std::string escaped;
  for (char ch : name) escaped += ch == '"' ? std::string("\"\"") : std::string(1, ch);
  // Two axes: WKT 1 knows no local system with heights, and readers take z as up in metres.
  const std::string axis = ",LENGTHUNIT[\"metre\",1]]";
  return parseCoordinateSystem("ENGCRS[\"" + escaped + "\",EDATUM[\"" + escaped +
                               "\"],CS[Cartesian,2],AXIS[\"easting (X)\",east,ORDER[1]" + axis +
                               ",AXIS[\"northing (Y)\",north,ORDER[2]" + axis + "]");
}

}  // namespace quillo::geo
