// Reads one grid's attributes and fragment counts straight from a .kq file (see GridProbe):
// the format marker, the slices' times, the grid's attributes group and, per chart, the
// field's fragment table (one dataset per field) or fragments group (one per fragment).
#include <filesystem>

#include "kq/Hdf5.hpp"
#include "kq/KqAttributes.hpp"
#include "kq/KqFieldWriter.hpp"
#include "tessal/GridProbe.hpp"

namespace Tessal {

namespace {

using kq::Hid;

Hid openGroup(hid_t parent, const std::string& path) {
  if (H5Lexists(parent, path.c_str(), H5P_DEFAULT) <= 0) return Hid();
  return Hid(H5Gopen2(parent, path.c_str(), H5P_DEFAULT), H5Gclose);
}

bool readOwnAttributes(hid_t owner, Vorlap::Attributes& into) {
  std::string ignored;
  return kq::readAttributes(owner, into, ignored);
}

// The layout the format marker names: true for one dataset per field.
std::optional<bool> perFieldLayout(hid_t file) {
  Hid root(H5Gopen2(file, "/", H5P_DEFAULT), H5Gclose);
  Vorlap::Attributes a;
  std::string format;
  long long version = 0;
  if (!root.ok() || !readOwnAttributes(root.get(), a) ||
      kq::singleText(a, "kq_format", format) != kq::Single::Ok || format != kq::kFormatName ||
      kq::singleInteger(a, "kq_version", version) != kq::Single::Ok)
    return std::nullopt;
  if (version != kq::kFormatVersion && version != kq::kPerFragmentVersion) return std::nullopt;
  return version == kq::kFormatVersion;
}

// The path of the slice whose time is 0, or the empty text.
std::string sliceAtTimeZero(hid_t file) {
  Hid slices = openGroup(file, "/slices");
  H5G_info_t info;
  if (!slices.ok() || H5Gget_info(slices.get(), &info) < 0) return "";
  for (hsize_t i = 0; i < info.nlinks; ++i) {
    char name[1024];
    const ssize_t len = H5Lget_name_by_idx(slices.get(), ".", H5_INDEX_NAME, H5_ITER_INC, i, name,
                                           sizeof name, H5P_DEFAULT);
    if (len < 0 || len >= ssize_t(sizeof name)) continue;
    Hid slice = openGroup(slices.get(), name);
    Vorlap::Attributes a;
    double time = 1.0;
    if (slice.ok() && readOwnAttributes(slice.get(), a) &&
        kq::singleNumber(a, "time", time) == kq::Single::Ok && time == 0.0)
      return std::string("/slices/") + name;
  }
  return "";
}

std::optional<std::size_t> datasetLength(hid_t group, const char* name) {
  if (H5Lexists(group, name, H5P_DEFAULT) <= 0) return std::nullopt;
  Hid set(H5Dopen2(group, name, H5P_DEFAULT), H5Dclose);
  Hid space(set.ok() ? H5Dget_space(set.get()) : -1, H5Sclose);
  hsize_t n = 0;
  if (!space.ok() || H5Sget_simple_extent_ndims(space.get()) != 1 ||
      H5Sget_simple_extent_dims(space.get(), &n, nullptr) < 0)
    return std::nullopt;
  return std::size_t(n);
}

// The field's fragments: the names of its table (which its row offsets must match), or the
// links of its fragments group.
std::optional<std::size_t> fragmentsOf(hid_t field, bool perField) {
  if (!perField) {
    Hid fragments = openGroup(field, "fragments");
    H5G_info_t info;
    if (!fragments.ok() || H5Gget_info(fragments.get(), &info) < 0) return std::nullopt;
    return std::size_t(info.nlinks);
  }
  const auto names = datasetLength(field, kq::kFragmentNamesName);
  const auto rows = datasetLength(field, kq::kFragmentRowsName);
  if (!names || !rows || *rows != *names + 1) return std::nullopt;
  return names;
}

void probeOpenFile(hid_t file, const std::string& grid, const std::string& field,
                   const std::vector<std::string>& charts, GridProbe& probe) {
  const std::optional<bool> perField = perFieldLayout(file);
  if (!perField) return;
  probe.readable = true;
  const std::string slice = sliceAtTimeZero(file);
  const std::string gridPath = slice + "/grids/" + kq::escapeName(grid);
  Hid g = slice.empty() ? Hid() : openGroup(file, gridPath);
  if (!g.ok()) return;
  probe.found = true;
  // An absent attributes group reads as an empty one, as a load takes it.
  if (Hid a = openGroup(g.get(), "attributes");
      a.ok() && !readOwnAttributes(a.get(), probe.attributes))
    probe.readable = false;
  for (const std::string& chart : charts) {
    Hid f =
        openGroup(g.get(), "charts/" + kq::escapeName(chart) + "/fields/" + kq::escapeName(field));
    probe.fragments[chart] = f.ok() ? fragmentsOf(f.get(), *perField) : std::nullopt;
  }
}

}  // namespace

GridProbe probeGrid(const std::string& fileName, const std::string& grid, const std::string& field,
                    const std::vector<std::string>& charts) {
  GridProbe probe;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(fileName, ec)) return probe;
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  kq::silenceHdf5Errors();
  if (H5Fis_hdf5(fileName.c_str()) <= 0) return probe;
  Hid file(H5Fopen(fileName.c_str(), H5F_ACC_RDONLY, kq::readerAccess().get()), H5Fclose);
  if (file.ok()) probeOpenFile(file.get(), grid, field, charts, probe);
  return probe;
}

}  // namespace Tessal
