#include "app/FragmentSpill.hpp"

#include <span>

#include "app/CliError.hpp"

namespace quillo::cli {

namespace {

using Tessal::ElementType;
using Tessal::MemBase;

constexpr std::size_t kInMemory = ~std::size_t{0};

// A fresh array of the type and extents, its elements left for a read to fill; `bytes` is
// where they go.
template <class T>
Vorlap::StrongPtr<MemBase> emptyArray(const std::vector<std::size_t>& extents,
                                      std::span<std::uint8_t>& bytes) {
  auto keep = [&](auto array) {
    bytes = {reinterpret_cast<std::uint8_t*>(array->contiguousData()), array->size() * sizeof(T)};
    return Vorlap::StrongPtr<MemBase>(array);
  };
  if (extents.size() == 2)
    return keep(Vorlap::makeStrong<Tessal::MemArray<2, T>>(
        typename Tessal::MemArray<2, T>::Extents{extents[0], extents[1]}, Tessal::Uninitialised{}));
  return keep(Vorlap::makeStrong<Tessal::MemArray<1, T>>(
      typename Tessal::MemArray<1, T>::Extents{extents.at(0)}, Tessal::Uninitialised{}));
}

Vorlap::StrongPtr<MemBase> emptyArray(ElementType type, const std::vector<std::size_t>& extents,
                                      std::span<std::uint8_t>& bytes) {
  using namespace Gemwold::PhysicalSpace;
  switch (type) {
    case ElementType::Int8:
      return emptyArray<std::int8_t>(extents, bytes);
    case ElementType::UInt8:
      return emptyArray<std::uint8_t>(extents, bytes);
    case ElementType::Int16:
      return emptyArray<std::int16_t>(extents, bytes);
    case ElementType::UInt16:
      return emptyArray<std::uint16_t>(extents, bytes);
    case ElementType::Int32:
      return emptyArray<std::int32_t>(extents, bytes);
    case ElementType::UInt32:
      return emptyArray<std::uint32_t>(extents, bytes);
    case ElementType::Int64:
      return emptyArray<std::int64_t>(extents, bytes);
    case ElementType::UInt64:
      return emptyArray<std::uint64_t>(extents, bytes);
    case ElementType::Float:
      return emptyArray<float>(extents, bytes);
    case ElementType::Double:
      return emptyArray<double>(extents, bytes);
    case ElementType::Point:
      return emptyArray<point>(extents, bytes);
    case ElementType::Vector:
      return emptyArray<vector>(extents, bytes);
  }
  return {};
}

std::size_t byteCount(const MemBase& data) {
  return data.nElements() * Tessal::elementBytes(data.elementType());
}

// Whether the array's data can go to the scratch file: encoded chunks, or plain elements.
bool canSetAside(const FieldArray& a) {
  return a.encoded || (a.data && a.data->rank() <= 2);
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

// Gives the set-aside array room for its bytes again; the places a read is to fill.
void makeRoom(FieldArray& a, std::vector<std::span<std::uint8_t>>& pieces) {
  if (!a.encoded) {
    std::span<std::uint8_t> bytes;
    a.data = emptyArray(a.setAside.type, a.setAside.extents, bytes);
    if (!a.data || bytes.size() != setAsideBytes(a))
      throw CliError(kFailure, "a fragment set aside came back with another size");
    pieces.push_back(bytes);
    return;
  }
  a.encoded->chunks.reserve(a.setAside.chunkBytes.size());
  for (std::size_t n : a.setAside.chunkBytes) pieces.push_back(a.encoded->chunks.emplace_back(n));
}

// The bytes of the part's arrays that can be set aside, in order; `starts[i]`: where array i's
// begin among them (kInMemory for those that stay). Plain elements are copied out to `plain`
// first (they may be strided); encoded chunks go as they are.
std::vector<std::span<const std::uint8_t>> piecesToSetAside(const OutputPart& part,
                                                            std::vector<std::uint8_t>& plain,
                                                            std::vector<std::size_t>& starts) {
  std::size_t plainBytes = 0;
  for (const FieldArray& a : part.arrays)
    if (!a.encoded && canSetAside(a)) plainBytes += byteCount(*a.data);
  plain.resize(plainBytes);
  std::vector<std::span<const std::uint8_t>> pieces;
  std::size_t at = 0, plainAt = 0;
  for (std::size_t i = 0; i < part.arrays.size(); ++i) {
    const FieldArray& a = part.arrays[i];
    if (!canSetAside(a)) continue;
    starts[i] = at;
    if (a.encoded) {
      for (const auto& chunk : a.encoded->chunks) pieces.emplace_back(chunk), at += chunk.size();
      continue;
    }
    const std::size_t n = byteCount(*a.data);
    a.data->copyOut(plain.data() + plainAt);
    pieces.emplace_back(plain.data() + plainAt, n);
    plainAt += n, at += n;
  }
  return pieces;
}

}  // namespace

// A part's arrays go out in one write and come back in one read (with thousands of small
// fragments the calls were the cost), straight from and into their own storage (with big
// ones, copies through a buffer of the part's size were).
void FragmentSpill::setAside(OutputPart& part) {
  if (!file_ && !unavailable_) {
    file_ = Tessal::openScratchFile();
    unavailable_ = !file_;
  }
  if (!file_) return;
  std::vector<std::size_t> starts(part.arrays.size(), kInMemory);
  const auto pieces = piecesToSetAside(part, plain_, starts);
  std::size_t total = 0;
  for (const auto& p : pieces) total += p.size();
  if (total == 0) return;
  const std::int64_t offset = file_->appendPieces(pieces);
  if (offset < 0) return;  // a full disk: the part waits in memory
  for (std::size_t i = 0; i < part.arrays.size(); ++i)
    if (starts[i] != kInMemory) letGo(part.arrays[i], offset + std::int64_t(starts[i]));
}

void FragmentSpill::bringBack(OutputPart& part) const {
  std::int64_t first = -1, next = -1;
  std::vector<std::span<std::uint8_t>> pieces;
  for (FieldArray& a : part.arrays) {
    if (a.setAside.offset < 0) continue;
    if (first < 0) first = next = a.setAside.offset;
    if (a.setAside.offset != next)
      throw CliError(kFailure, "a fragment set aside came back out of order");
    next += std::int64_t(setAsideBytes(a));
    makeRoom(a, pieces);
  }
  if (first < 0) return;
  std::string error;
  if (!file_->readPieces(first, pieces, error))
    throw CliError(kFailure,
                   "cannot read back a fragment set aside in the scratch folder: " + error);
  for (FieldArray& a : part.arrays) a.setAside.offset = -1;
}

}  // namespace quillo::cli
