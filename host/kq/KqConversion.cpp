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
bool readWide(hid_t set, hid_t memoryType, std::vector<Wide>& values) {
  return values.empty() ||
         H5Dread(set, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()) >= 0;
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
std::string narrow(hid_t set, hid_t memoryType, C* out, std::size_t n) {
  std::vector<Wide> values(n);
  if (!readWide(set, memoryType, values)) return "the values cannot be read (damaged data)";
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
std::string readAs(hid_t set, void* out, std::size_t n) {
  Hid stored(H5Dget_type(set), H5Tclose);
  C* target = static_cast<C*>(out);
  if (std::is_floating_point_v<C> || H5Tget_class(stored.get()) == H5T_FLOAT)
    return narrow<C, double>(set, H5T_NATIVE_DOUBLE, target, n);
  if (H5Tget_sign(stored.get()) == H5T_SGN_NONE)
    return narrow<C, std::uint64_t>(set, H5T_NATIVE_UINT64, target, n);
  return narrow<C, std::int64_t>(set, H5T_NATIVE_INT64, target, n);
}

}  // namespace

bool convertibleType(hid_t stored) {
  const H5T_class_t c = H5Tget_class(stored);
  return (c == H5T_INTEGER || c == H5T_FLOAT) && H5Tget_size(stored) <= 8;
}

std::string readConverted(hid_t set, ElementType t, void* out, std::size_t n) {
  switch (t) {
    case ElementType::Int8:
      return readAs<std::int8_t>(set, out, n);
    case ElementType::UInt8:
      return readAs<std::uint8_t>(set, out, n);
    case ElementType::Int16:
      return readAs<std::int16_t>(set, out, n);
    case ElementType::UInt16:
      return readAs<std::uint16_t>(set, out, n);
    case ElementType::Int32:
      return readAs<std::int32_t>(set, out, n);
    case ElementType::UInt32:
      return readAs<std::uint32_t>(set, out, n);
    case ElementType::Int64:
      return readAs<std::int64_t>(set, out, n);
    case ElementType::UInt64:
      return readAs<std::uint64_t>(set, out, n);
    case ElementType::Float:
      return readAs<float>(set, out, n);
    case ElementType::Double:
    case ElementType::Point:
    case ElementType::Vector:
      return readAs<double>(set, out, n);
  }
  return "unknown element type";
}

}  // namespace Tessal::kq
