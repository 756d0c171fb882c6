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

namespace {

// The bytes to set aside: the encoded chunks one after the other, or the raw elements.
bool bytesToSetAside(const FieldArray& a, std::vector<std::uint8_t>& bytes) {
  if (a.encoded) {
    bytes.clear();
    for (const auto& chunk : a.encoded->chunks)
      bytes.insert(bytes.end(), chunk.begin(), chunk.end());
    return true;
  }
  if (!a.data || a.data->rank() > 2) return false;
  bytes.resize(byteCount(*a.data));
  a.data->copyOut(bytes.data());
  return true;
}

void letGo(FieldArray& a, std::int64_t offset) {
  a.setAside.offset = offset;
  if (a.encoded) {
    a.setAside.chunkBytes.clear();
    for (const auto& chunk : a.encoded->chunks) a.setAside.chunkBytes.push_back(chunk.size());
    a.encoded->chunks = {};
    return;
  }
  a.setAside.type = a.data->elementType();
  a.setAside.extents.clear();
  for (unsigned d = 0; d < a.data->rank(); ++d) a.setAside.extents.push_back(a.data->extent(d));
  a.data.reset();
}

std::size_t setAsideBytes(const FieldArray& a) {
  std::size_t count = 0;
  if (a.encoded) {
    for (std::size_t n : a.setAside.chunkBytes) count += n;
    return count;
  }
  count = Tessal::elementBytes(a.setAside.type);
  for (std::size_t e : a.setAside.extents) count *= e;
  return count;
}

// Gives the array back what was read from the scratch file; false when it does not fit.
bool takeBack(FieldArray& a, const std::vector<std::uint8_t>& bytes) {
  if (!a.encoded) {
    a.data = arrayFrom(a.setAside.type, a.setAside.extents, bytes);
    return bool(a.data);
  }
  auto at = bytes.begin();
  for (std::size_t n : a.setAside.chunkBytes) {
    a.encoded->chunks.emplace_back(at, at + std::ptrdiff_t(n));
    at += std::ptrdiff_t(n);
  }
  return true;
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
    if (!bytesToSetAside(a, bytes)) continue;
    const std::int64_t offset = file_->append(bytes);
    if (offset >= 0) letGo(a, offset);  // else a full disk: this one waits in memory
  }
}

void FragmentSpill::bringBack(OutputPart& part) const {
  std::vector<std::uint8_t> bytes;
  for (FieldArray& a : part.arrays) {
    if (a.setAside.offset < 0) continue;
    std::string error;
    if (!file_->read(a.setAside.offset, setAsideBytes(a), bytes, error))
      throw CliError(kFailure,
                     "cannot read back a fragment set aside in the scratch folder: " + error);
    if (!takeBack(a, bytes))
      throw CliError(kFailure, "a fragment set aside came back with another size");
    a.setAside.offset = -1;
  }
}

}  // namespace quillo::cli
