#include "app/FragmentSpill.hpp"

#include <cstring>

#include "app/CliError.hpp"

namespace quillo::cli {

namespace {

using Tessal::ElementType;
using Tessal::MemBase;

constexpr std::size_t kInMemory = ~std::size_t{0};

template <class T>
Vorlap::StrongPtr<MemBase> arrayFrom(const std::vector<std::size_t>& extents,
                                     const std::uint8_t* bytes, std::size_t count) {
  auto fill = [&](auto array) {
    if (count != array->size() * sizeof(T)) return Vorlap::StrongPtr<MemBase>();
    std::memcpy(array->contiguousData(), bytes, count);
    return Vorlap::StrongPtr<MemBase>(array);
  };
  if (extents.size() == 2)
    return fill(Vorlap::makeStrong<Tessal::MemArray<2, T>>(
        typename Tessal::MemArray<2, T>::Extents{extents[0], extents[1]}));
  return fill(Vorlap::makeStrong<Tessal::MemArray<1, T>>(extents.at(0)));
}

Vorlap::StrongPtr<MemBase> arrayFrom(ElementType type, const std::vector<std::size_t>& extents,
                                     const std::uint8_t* bytes, std::size_t count) {
  using namespace Gemwold::PhysicalSpace;
  switch (type) {
    case ElementType::Int8:
      return arrayFrom<std::int8_t>(extents, bytes, count);
    case ElementType::UInt8:
      return arrayFrom<std::uint8_t>(extents, bytes, count);
    case ElementType::Int16:
      return arrayFrom<std::int16_t>(extents, bytes, count);
    case ElementType::UInt16:
      return arrayFrom<std::uint16_t>(extents, bytes, count);
    case ElementType::Int32:
      return arrayFrom<std::int32_t>(extents, bytes, count);
    case ElementType::UInt32:
      return arrayFrom<std::uint32_t>(extents, bytes, count);
    case ElementType::Int64:
      return arrayFrom<std::int64_t>(extents, bytes, count);
    case ElementType::UInt64:
      return arrayFrom<std::uint64_t>(extents, bytes, count);
    case ElementType::Float:
      return arrayFrom<float>(extents, bytes, count);
    case ElementType::Double:
      return arrayFrom<double>(extents, bytes, count);
    case ElementType::Point:
      return arrayFrom<point>(extents, bytes, count);
    case ElementType::Vector:
      return arrayFrom<vector>(extents, bytes, count);
  }
  return {};
}

std::size_t byteCount(const MemBase& data) {
  return data.nElements() * Tessal::elementBytes(data.elementType());
}

// Appends the bytes to set aside: the encoded chunks one after the other, or the raw elements.
bool appendBytesToSetAside(const FieldArray& a, std::vector<std::uint8_t>& bytes) {
  if (a.encoded) {
    for (const auto& chunk : a.encoded->chunks)
      bytes.insert(bytes.end(), chunk.begin(), chunk.end());
    return true;
  }
  if (!a.data || a.data->rank() > 2) return false;
  const std::size_t at = bytes.size();
  bytes.resize(at + byteCount(*a.data));
  a.data->copyOut(bytes.data() + at);
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

// Gives the array back its bytes as read from the scratch file; false when they do not fit.
bool takeBack(FieldArray& a, const std::uint8_t* bytes, std::size_t count) {
  if (!a.encoded) {
    a.data = arrayFrom(a.setAside.type, a.setAside.extents, bytes, count);
    return bool(a.data);
  }
  for (std::size_t n : a.setAside.chunkBytes) {
    a.encoded->chunks.emplace_back(bytes, bytes + n);
    bytes += n;
  }
  return true;
}

}  // namespace

// A part's arrays go out in one write and come back in one read: with thousands of small
// fragments the calls, not the bytes, were the cost.
void FragmentSpill::setAside(OutputPart& part) {
  if (!file_ && !unavailable_) {
    file_ = Tessal::openScratchFile();
    unavailable_ = !file_;
  }
  if (!file_) return;
  std::vector<std::uint8_t> bytes;
  std::vector<std::size_t> starts(part.arrays.size(), kInMemory);
  for (std::size_t i = 0; i < part.arrays.size(); ++i) {
    const std::size_t at = bytes.size();
    if (appendBytesToSetAside(part.arrays[i], bytes)) starts[i] = at;
  }
  if (bytes.empty()) return;
  const std::int64_t offset = file_->append(bytes);
  if (offset < 0) return;  // a full disk: the part waits in memory
  for (std::size_t i = 0; i < part.arrays.size(); ++i)
    if (starts[i] != kInMemory) letGo(part.arrays[i], offset + std::int64_t(starts[i]));
}

void FragmentSpill::bringBack(OutputPart& part) const {
  std::int64_t first = -1;
  std::size_t total = 0;
  for (const FieldArray& a : part.arrays) {
    if (a.setAside.offset < 0) continue;
    if (first < 0) first = a.setAside.offset;
    total += setAsideBytes(a);
  }
  if (first < 0) return;
  std::vector<std::uint8_t> bytes;
  std::string error;
  if (!file_->read(first, total, bytes, error))
    throw CliError(kFailure,
                   "cannot read back a fragment set aside in the scratch folder: " + error);
  for (FieldArray& a : part.arrays) {
    if (a.setAside.offset < 0) continue;
    const std::size_t count = setAsideBytes(a);
    if (!takeBack(a, bytes.data() + (a.setAside.offset - first), count))
      throw CliError(kFailure, "a fragment set aside came back with another size");
    a.setAside.offset = -1;
  }
}

}  // namespace quillo::cli
