#include "app/FragmentSpill.hpp"

#include <cstring>

#include "app/CliError.hpp"

namespace quillo::cli {

namespace {

using Tessal::ElementType;
using Tessal::MemBase;

template <class T>
Vorlap::StrongPtr<MemBase> arrayFrom(const std::vector<std::size_t>& extents,
                                     const std::vector<std::uint8_t>& bytes) {
  auto fill = [&](auto array) {
    if (bytes.size() != array->size() * sizeof(T)) return Vorlap::StrongPtr<MemBase>();
    std::memcpy(array->contiguousData(), bytes.data(), array->size() * sizeof(T));
    return Vorlap::StrongPtr<MemBase>(array);
  };
  if (extents.size() == 2)
    return fill(Vorlap::makeStrong<Tessal::MemArray<2, T>>(
        typename Tessal::MemArray<2, T>::Extents{extents[0], extents[1]}));
  return fill(Vorlap::makeStrong<Tessal::MemArray<1, T>>(extents.at(0)));
}

Vorlap::StrongPtr<MemBase> arrayFrom(ElementType type, const std::vector<std::size_t>& extents,
                                     const std::vector<std::uint8_t>& bytes) {
  using namespace Gemwold::PhysicalSpace;
  switch (type) {
    case ElementType::Int8:
      return arrayFrom<std::int8_t>(extents, bytes);
    case ElementType::UInt8:
      return arrayFrom<std::uint8_t>(extents, bytes);
    case ElementType::Int16:
      return arrayFrom<std::int16_t>(extents, bytes);
    case ElementType::UInt16:
      return arrayFrom<std::uint16_t>(extents, bytes);
    case ElementType::Int32:
      return arrayFrom<std::int32_t>(extents, bytes);
    case ElementType::UInt32:
      return arrayFrom<std::uint32_t>(extents, bytes);
    case ElementType::Int64:
      return arrayFrom<std::int64_t>(extents, bytes);
    case ElementType::UInt64:
      return arrayFrom<std::uint64_t>(extents, bytes);
    case ElementType::Float:
      return arrayFrom<float>(extents, bytes);
    case ElementType::Double:
      return arrayFrom<double>(extents, bytes);
    case ElementType::Point:
      return arrayFrom<point>(extents, bytes);
    case ElementType::Vector:
      return arrayFrom<vector>(extents, bytes);
  }
  return {};
}

std::size_t byteCount(const MemBase& data) {
  return data.nElements() * Tessal::elementBytes(data.elementType());
}

}  // namespace

void FragmentSpill::setAside(OutputPart& part) {
  if (!file_ && !unavailable_) {
    file_ = Tessal::openScratchFile();
    unavailable_ = !file_;
  }
  if (!file_) return;
  std::vector<std::uint8_t> bytes;
  for (FieldArray& a : part.arrays) {
    if (!a.data || a.data->rank() > 2) continue;
    bytes.resize(byteCount(*a.data));
    a.data->copyOut(bytes.data());
    const std::int64_t offset = file_->append(bytes);
    if (offset < 0) continue;  // a full disk: this one waits in memory
    a.setAside.offset = offset;
    a.setAside.type = a.data->elementType();
    a.setAside.extents.clear();
    for (unsigned d = 0; d < a.data->rank(); ++d) a.setAside.extents.push_back(a.data->extent(d));
    a.data.reset();
  }
}

void FragmentSpill::bringBack(OutputPart& part) const {
  std::vector<std::uint8_t> bytes;
  for (FieldArray& a : part.arrays) {
    if (a.setAside.offset < 0) continue;
    std::size_t count = Tessal::elementBytes(a.setAside.type);
    for (std::size_t e : a.setAside.extents) count *= e;
    std::string error;
    if (!file_->read(a.setAside.offset, count, bytes, error))
      throw CliError(kFailure,
                     "cannot read back a fragment set aside in the scratch folder: " + error);
    a.data = arrayFrom(a.setAside.type, a.setAside.extents, bytes);
    if (!a.data) throw CliError(kFailure, "a fragment set aside came back with another size");
    a.setAside.offset = -1;
  }
}

}  // namespace quillo::cli
