#include "kq/KqConversion.hpp"

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "vorlap/NumberText.hpp"

namespace Tessal::kq {

namespace {

template <class Wide>
bool readWide(hid_t set, hid_t memoryType, std::vector<Wide>& values, const RowSelection* rows) {
  if (values.empty()) return true;
  Hid fileSpace, memorySpace;
  if (rows && !selectRows(set, *rows, values.size(), fileSpace, memorySpace)) return false;
  return H5Dread(set, memoryType, rows ? memorySpace.get() : H5S_ALL,
                 rows ? fileSpace.get() : H5S_ALL, H5P_DEFAULT, values.data()) >= 0;
}

template <class C, class Wide>
bool fits(Wide v) {
  if constexpr (std::is_floating_point_v<C>) {
    return !std::isfinite(static_cast<double>(v)) || std::isfinite(static_cast<C>(v));
  } else if constexpr (std::is_floating_point_v<Wide>) {
    return std::isfinite(v) && v == std::floor(v) && v >= double(std::numeric_limits<C>::min()) &&
           v <= double(std::numeric_limits<C>::max());
  } else {
    return std::cmp_greater_equal(v, std::numeric_limits<C>::min()) &&
           std::cmp_less_equal(v, std::numeric_limits<C>::max());
  }
}

template <class C, class Wide>
std::string narrow(hid_t set, hid_t memoryType, C* out, std::size_t n, const RowSelection* rows) {
  std::vector<Wide> values(n);
  if (!readWide(set, memoryType, values, rows)) return "the values cannot be read (damaged data)";
  for (std::size_t i = 0; i < n; ++i) {
    if (!fits<C>(values[i])) {
      const std::string value = std::is_floating_point_v<Wide>
                                    ? Vorlap::shortestText(double(values[i]))
                                    : std::to_string(values[i]);
      return "value " + value + " (element " + std::to_string(i) + ") does not fit";
    }
    out[i] = static_cast<C>(values[i]);
  }
  return {};
}

template <class C>
std::string readAs(hid_t set, void* out, std::size_t n, const RowSelection* rows) {
  Hid stored(H5Dget_type(set), H5Tclose);
  C* target = static_cast<C*>(out);
  if (std::is_floating_point_v<C> || H5Tget_class(stored.get()) == H5T_FLOAT)
    return narrow<C, double>(set, H5T_NATIVE_DOUBLE, target, n, rows);
  if (H5Tget_sign(stored.get()) == H5T_SGN_NONE)
    return narrow<C, std::uint64_t>(set, H5T_NATIVE_UINT64, target, n, rows);
  return narrow<C, std::int64_t>(set, H5T_NATIVE_INT64, target, n, rows);
}

}  // namespace

bool convertibleType(hid_t stored) {
  const H5T_class_t c = H5Tget_class(stored);
  return (c == H5T_INTEGER || c == H5T_FLOAT) && H5Tget_size(stored) <= 8;
}

bool selectRows(hid_t set, const RowSelection& rows, std::size_t components, Hid& fileSpace,
                Hid& memorySpace) {
  fileSpace = Hid(H5Dget_space(set), H5Sclose);
  hsize_t dims[H5S_MAX_RANK], start[H5S_MAX_RANK] = {rows.first};
  const int rank = H5Sget_simple_extent_dims(fileSpace.get(), dims, nullptr);
  if (rank < 1) return false;
  dims[0] = rows.count;
  const hsize_t n = components;
  memorySpace = Hid(H5Screate_simple(1, &n, nullptr), H5Sclose);
  return H5Sselect_hyperslab(fileSpace.get(), H5S_SELECT_SET, start, nullptr, dims, nullptr) >= 0;
}

std::string readConverted(hid_t set, ElementType t, void* out, std::size_t n,
                          const RowSelection* rows) {
  switch (t) {
    case ElementType::Int8:
      return readAs<std::int8_t>(set, out, n, rows);
    case ElementType::UInt8:
      return readAs<std::uint8_t>(set, out, n, rows);
    case ElementType::Int16:
      return readAs<std::int16_t>(set, out, n, rows);
    case ElementType::UInt16:
      return readAs<std::uint16_t>(set, out, n, rows);
    case ElementType::Int32:
      return readAs<std::int32_t>(set, out, n, rows);
    case ElementType::UInt32:
      return readAs<std::uint32_t>(set, out, n, rows);
    case ElementType::Int64:
      return readAs<std::int64_t>(set, out, n, rows);
    case ElementType::UInt64:
      return readAs<std::uint64_t>(set, out, n, rows);
    case ElementType::Float:
      return readAs<float>(set, out, n, rows);
    case ElementType::Double:
    case ElementType::Point:
    case ElementType::Vector:
      return readAs<double>(set, out, n, rows);
  }
  return "unknown element type";
}

}  // namespace Tessal::kq
