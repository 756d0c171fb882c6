// Chunks: shared, typed arrays that hold attribute values (int, unsigned int, float, double,
// text). Callers receive a ChunkBase handle and check the element type by casting.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vorlap/StrongPtr.hpp"

namespace Vorlap {

enum class ChunkType { Int, UInt, Float, Double, Text };

const char* chunkTypeName(ChunkType t);

class ChunkBase {
 public:
  virtual ~ChunkBase() = default;
  virtual ChunkType type() const = 0;
  virtual std::size_t size() const = 0;
  virtual StrongPtr<ChunkBase> clone() const = 0;
};

template <class T>
struct ChunkTraits;
template <>
struct ChunkTraits<int> {
  static constexpr ChunkType type = ChunkType::Int;
};
template <>
struct ChunkTraits<unsigned int> {
  static constexpr ChunkType type = ChunkType::UInt;
};
template <>
struct ChunkTraits<float> {
  static constexpr ChunkType type = ChunkType::Float;
};
template <>
struct ChunkTraits<double> {
  static constexpr ChunkType type = ChunkType::Double;
};
template <>
struct ChunkTraits<std::string> {
  static constexpr ChunkType type = ChunkType::Text;
};

template <class T>
class Chunk final : public ChunkBase {
 public:
  Chunk() = default;
  explicit Chunk(std::vector<T> values) : values_(std::move(values)) {}

  ChunkType type() const override { return ChunkTraits<T>::type; }
  std::size_t size() const override { return values_.size(); }
  StrongPtr<ChunkBase> clone() const override { return makeStrong<Chunk<T>>(values_); }

  const T& operator[](std::size_t i) const { return values_[i]; }
  T& operator[](std::size_t i) { return values_[i]; }
  const std::vector<T>& values() const { return values_; }
  std::vector<T>& values() { return values_; }

 private:
  std::vector<T> values_;
};

template <class T>
StrongPtr<ChunkBase> makeChunk(std::vector<T> values) {
  return makeStrong<Chunk<T>>(std::move(values));
}

// The first value of a numeric chunk as a double; false for a text or an empty chunk.
inline bool firstNumberOf(const StrongPtr<ChunkBase>& chunk, double& out) {
  if (!chunk || chunk->size() == 0) return false;
  if (auto d = dynamicPtrCast<Chunk<double>>(chunk))
    out = (*d)[0];
  else if (auto f = dynamicPtrCast<Chunk<float>>(chunk))
    out = (*f)[0];
  else if (auto i = dynamicPtrCast<Chunk<int>>(chunk))
    out = (*i)[0];
  else if (auto u = dynamicPtrCast<Chunk<unsigned>>(chunk))
    out = (*u)[0];
  else
    return false;
  return true;
}

}  // namespace Vorlap
