#include "tessal/EncodedArray.hpp"

namespace Tessal {

std::vector<std::size_t> EncodedArray::extents() const {
  if (dims.empty()) return {};
  if (rank == 2) return {std::size_t(dims.at(1)), std::size_t(dims[0])};
  return {std::size_t(dims[0])};
}

bool EncodedArray::consistent() const {
  const std::size_t shapeRank = (rank == 2 ? 2 : 1) + (componentCount(type) == 3 ? 1 : 0);
  if ((rank != 1 && rank != 2) || dims.size() != shapeRank) return false;
  unsigned long long total = 1;
  for (auto d : dims) total *= d;
  if (total == 0) return chunk.empty() && chunks.empty() && !compact;
  if (compact)
    return chunk.empty() && chunks.size() == 1 &&
           chunks[0].size() == total * (elementBytes(type) / componentCount(type));
  if (chunk.size() != dims.size() || chunk[0] == 0) return false;
  for (std::size_t d = 1; d < dims.size(); ++d)
    if (chunk[d] != dims[d]) return false;
  return chunks.size() == (dims[0] + chunk[0] - 1) / chunk[0];
}

std::size_t EncodedArray::encodedBytes() const {
  std::size_t total = 0;
  for (const auto& c : chunks) total += c.size();
  return total;
}

}  // namespace Tessal
