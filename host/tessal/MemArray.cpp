#include "tessal/MemArray.hpp"

namespace Tessal {

namespace {
struct TypeInfo {
  ElementType type;
  const char* name;
  unsigned components;
  std::size_t bytes;
};
constexpr TypeInfo kTypes[] = {
    {ElementType::Int8, "int8", 1, 1},     {ElementType::UInt8, "uint8", 1, 1},
    {ElementType::Int16, "int16", 1, 2},   {ElementType::UInt16, "uint16", 1, 2},
    {ElementType::Int32, "int32", 1, 4},   {ElementType::UInt32, "uint32", 1, 4},
    {ElementType::Int64, "int64", 1, 8},   {ElementType::UInt64, "uint64", 1, 8},
    {ElementType::Float, "float32", 1, 4}, {ElementType::Double, "float64", 1, 8},
    {ElementType::Point, "point3", 3, 24}, {ElementType::Vector, "vector3", 3, 24},
};
const TypeInfo& infoOf(ElementType t) {
  return kTypes[static_cast<int>(t)];
}
}  // namespace

const char* elementTypeName(ElementType t) {
  return infoOf(t).name;
}
unsigned componentCount(ElementType t) {
  return infoOf(t).components;
}
std::size_t elementBytes(ElementType t) {
  return infoOf(t).bytes;
}

bool elementTypeFromName(const std::string& name, ElementType& out) {
  for (const auto& info : kTypes) {
    if (name == info.name) {
      out = info.type;
      return true;
    }
  }
  return false;
}

std::size_t MemBase::nElements() const {
  std::size_t n = 1;
  for (unsigned d = 0; d < rank(); ++d) n *= extent(d);
  return n;
}

}  // namespace Tessal
