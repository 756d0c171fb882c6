#include "kq/Hdf5.hpp"

namespace Tessal::kq {

std::recursive_mutex& hdf5Mutex() {
  static std::recursive_mutex m;
  return m;
}

hid_t nativeTypeOf(ElementType t) {
  switch (t) {
    case ElementType::Int8:
      return H5T_NATIVE_INT8;
    case ElementType::UInt8:
      return H5T_NATIVE_UINT8;
    case ElementType::Int16:
      return H5T_NATIVE_INT16;
    case ElementType::UInt16:
      return H5T_NATIVE_UINT16;
    case ElementType::Int32:
      return H5T_NATIVE_INT32;
    case ElementType::UInt32:
      return H5T_NATIVE_UINT32;
    case ElementType::Int64:
      return H5T_NATIVE_INT64;
    case ElementType::UInt64:
      return H5T_NATIVE_UINT64;
    case ElementType::Float:
      return H5T_NATIVE_FLOAT;
    case ElementType::Double:
    case ElementType::Point:
    case ElementType::Vector:
      return H5T_NATIVE_DOUBLE;
  }
  return H5T_NATIVE_DOUBLE;
}

bool storedTypeMatches(hid_t stored, ElementType t) {
  const hid_t native = nativeTypeOf(t);
  if (H5Tget_class(stored) != H5Tget_class(native)) return false;
  if (H5Tget_size(stored) != H5Tget_size(native)) return false;
  if (H5Tget_class(stored) == H5T_INTEGER && H5Tget_sign(stored) != H5Tget_sign(native))
    return false;
  return true;
}

std::string describeType(hid_t type) {
  if (type < 0) return "unknown";
  const std::string bits = std::to_string(8 * H5Tget_size(type)) + "-bit ";
  switch (H5Tget_class(type)) {
    case H5T_INTEGER:
      return bits + (H5Tget_sign(type) == H5T_SGN_NONE ? "unsigned" : "signed") + " integer";
    case H5T_FLOAT:
      return bits + "float";
    case H5T_STRING:
      return H5Tis_variable_str(type) > 0 ? "variable-length string" : "fixed-length string";
    case H5T_COMPOUND:
      return "compound";
    case H5T_ENUM:
      return "enum (boolean?)";
    case H5T_ARRAY:
      return "array";
    case H5T_VLEN:
      return "variable-length sequence";
    case H5T_REFERENCE:
      return "reference";
    default:
      return "opaque";
  }
}

std::string escapeName(const std::string& name) {
  if (name.empty()) return "%";
  if (name == ".") return "%2E";
  std::string out;
  for (char c : name) {
    if (c == '%')
      out += "%25";
    else if (c == '/')
      out += "%2F";
    else
      out += c;
  }
  return out;
}

std::string unescapeName(const std::string& link) {
  if (link == "%") return "";
  std::string out;
  for (std::size_t i = 0; i < link.size(); ++i) {
    if (link[i] == '%' && i + 2 < link.size()) {
      const std::string code = link.substr(i + 1, 2);
      if (code == "25")
        out += '%';
      else if (code == "2F")
        out += '/';
      else if (code == "2E")
        out += '.';
      else
        out += link.substr(i, 3);
      i += 2;
    } else {
      out += link[i];
    }
  }
  return out;
}

Hid orderedGroupProperties(bool indexed) {
  Hid p(H5Pcreate(H5P_GROUP_CREATE), H5Pclose);
  H5Pset_link_creation_order(p.get(),
                             H5P_CRT_ORDER_TRACKED | (indexed ? H5P_CRT_ORDER_INDEXED : 0));
  H5Pset_attr_creation_order(p.get(), H5P_CRT_ORDER_TRACKED | H5P_CRT_ORDER_INDEXED);
  H5Pset_obj_track_times(p.get(), 0);  // same content, same bytes
  return p;
}

namespace {

void boundMetadataCache(hid_t access) {
  H5AC_cache_config_t config{};
  config.version = H5AC__CURR_CACHE_CONFIG_VERSION;
  H5Pget_mdc_config(access, &config);
  config.set_initial_size = true;
  config.initial_size = kMetadataCacheBytes;
  config.max_size = kMetadataCacheBytes;
  config.min_size = std::min<size_t>(config.min_size, kMetadataCacheBytes);
  H5Pset_mdc_config(access, &config);
}

}  // namespace

Hid readerAccess() {
  Hid p(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
  boundMetadataCache(p.get());
  return p;
}

Hid writerCreation() {
  Hid p(H5Pcreate(H5P_FILE_CREATE), H5Pclose);
  H5Pset_obj_track_times(p.get(), 0);  // the root group's header would carry clock times
  return p;
}

Hid writerAccess() {
  Hid p = readerAccess();
  // The 1.10 format gives a dataset of one chunk no B-tree. With the old format, the B-tree
  // nodes of the datasets written stayed in memory until the file closed (0.6 MB a fragment).
  H5Pset_libver_bounds(p.get(), H5F_LIBVER_V110, H5F_LIBVER_V110);
  return p;
}

Hid variableStringType() {
  Hid t(H5Tcopy(H5T_C_S1), H5Tclose);
  H5Tset_size(t.get(), H5T_VARIABLE);
  H5Tset_cset(t.get(), H5T_CSET_UTF8);
  return t;
}

Hid fixedStringType(std::size_t bytes) {
  Hid t(H5Tcopy(H5T_C_S1), H5Tclose);
  H5Tset_size(t.get(), bytes);
  H5Tset_strpad(t.get(), H5T_STR_NULLTERM);
  H5Tset_cset(t.get(), H5T_CSET_UTF8);
  return t;
}

void silenceHdf5Errors() {
  static std::once_flag once;
  std::call_once(once, [] {
    // A file whose close failed (full disk) stays registered, and HDF5's own clean-up at exit
    // crashes on it; every file here is closed explicitly, so that clean-up is not needed.
    H5dont_atexit();
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  });
}

}  // namespace Tessal::kq
