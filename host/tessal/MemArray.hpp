// Typed N-dimensional arrays of the data model. Element k (linear index, first extent
// varying fastest) lies at (k + offset) * stride of a shared data block, or comes from the
// array's element accessor when it has one. Readers must go through get() to honour both.
#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "gemwold/PhysicalSpace.hpp"
#include "vorlap/Cache.hpp"
#include "vorlap/StrongPtr.hpp"

namespace Tessal {

enum class ElementType : std::uint8_t {
  Int8,
  UInt8,
  Int16,
  UInt16,
  Int32,
  UInt32,
  Int64,
  UInt64,
  Float,
  Double,
  Point,
  Vector
};

const char* elementTypeName(ElementType t);
// Scalars have one component, points and vectors three.
unsigned componentCount(ElementType t);
std::size_t elementBytes(ElementType t);
// Parses a name written by elementTypeName; false when unknown.
bool elementTypeFromName(const std::string& name, ElementType& out);

template <class T>
inline constexpr bool kAlwaysFalse = false;

template <class T>
constexpr ElementType elementTypeOf() {
  using namespace Gemwold::PhysicalSpace;
  if constexpr (std::is_same_v<T, std::int8_t>)
    return ElementType::Int8;
  else if constexpr (std::is_same_v<T, std::uint8_t>)
    return ElementType::UInt8;
  else if constexpr (std::is_same_v<T, std::int16_t>)
    return ElementType::Int16;
  else if constexpr (std::is_same_v<T, std::uint16_t>)
    return ElementType::UInt16;
  else if constexpr (std::is_same_v<T, std::int32_t>)
    return ElementType::Int32;
  else if constexpr (std::is_same_v<T, std::uint32_t>)
    return ElementType::UInt32;
  else if constexpr (std::is_same_v<T, std::int64_t>)
    return ElementType::Int64;
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return ElementType::UInt64;
  else if constexpr (std::is_same_v<T, float>)
    return ElementType::Float;
  else if constexpr (std::is_same_v<T, double>)
    return ElementType::Double;
  else if constexpr (std::is_same_v<T, point>)
    return ElementType::Point;
  else if constexpr (std::is_same_v<T, vector>)
    return ElementType::Vector;
  else
    static_assert(kAlwaysFalse<T>, "not an element type of the data model");
}

template <class T>
struct ElementTraits {
  static constexpr ElementType type = elementTypeOf<T>();
};

// Component c of an element, as a double (for value ranges and generic readers).
template <class T>
double componentOf(const T& v, unsigned) {
  return static_cast<double>(v);
}
inline double componentOf(const Gemwold::PhysicalSpace::point& p, unsigned c) {
  return c == 0 ? p.x : c == 1 ? p.y : p.z;
}
inline double componentOf(const Gemwold::PhysicalSpace::vector& v, unsigned c) {
  return c == 0 ? v.x : c == 1 ? v.y : v.z;
}

// Widens min[c] and max[c] to component c of the n elements at p, NaNs left out, with the
// result of the one-by-one loop `if (v < min) min = v; if (max < v) max = v;`. Four lanes
// break the loop's dependency chain; they can pick another zero of the two signs than that
// loop would, so a range ending at zero is taken again one by one.
template <class T>
void widenContiguousRange(const T* p, std::size_t n, double* min, double* max) {
  constexpr unsigned nc = std::is_arithmetic_v<T> ? 1 : 3;
  constexpr unsigned lanes = 4;
  for (unsigned c = 0; c < nc; ++c) {
    double lo[lanes], hi[lanes];
    std::fill(lo, lo + lanes, min[c]);
    std::fill(hi, hi + lanes, max[c]);
    std::size_t k = 0;
    for (; k + lanes <= n; k += lanes)
      for (unsigned l = 0; l < lanes; ++l) {
        const double v = componentOf(p[k + l], c);
        lo[l] = v < lo[l] ? v : lo[l];
        hi[l] = hi[l] < v ? v : hi[l];
      }
    for (; k < n; ++k) {
      const double v = componentOf(p[k], c);
      lo[0] = v < lo[0] ? v : lo[0];
      hi[0] = hi[0] < v ? v : hi[0];
    }
    double newMin = min[c], newMax = max[c];
    for (unsigned l = 0; l < lanes; ++l) {
      newMin = lo[l] < newMin ? lo[l] : newMin;
      newMax = newMax < hi[l] ? hi[l] : newMax;
    }
    if (newMin == 0.0 || newMax == 0.0) {
      for (k = 0; k < n; ++k) {
        const double v = componentOf(p[k], c);
        min[c] = v < min[c] ? v : min[c];
        max[c] = max[c] < v ? v : max[c];
      }
      continue;
    }
    min[c] = newMin;
    max[c] = newMax;
  }
}

// Type-erased view of an array, for storage and generic readers.
class MemBase : public Vorlap::Cacheable {
 public:
  virtual ElementType elementType() const = 0;
  virtual unsigned rank() const = 0;
  virtual std::size_t extent(unsigned dim) const = 0;
  std::size_t nElements() const;
  // Writes every element, in linear order, contiguously into dst (elementBytes each).
  virtual void copyOut(void* dst) const = 0;
  // The elements as copyOut writes them, when the array is one plain block; else nullptr.
  virtual const void* contiguousBytes() const = 0;
  virtual double component(std::size_t k, unsigned c) const = 0;
  // Widens min[c] and max[c] (one per component) to every element's component c, NaNs left
  // out: the loop of component() calls without a virtual call per value.
  virtual void widenRange(double* min, double* max) const = 0;
};

// Allocates like std::allocator but default-initialises: a vector resized without a value
// leaves numbers unset, for storage that a read fills at once.
template <class T>
struct DefaultInitAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = DefaultInitAllocator<U>;
  };
  DefaultInitAllocator() = default;
  template <class U>
  DefaultInitAllocator(const DefaultInitAllocator<U>&) noexcept {}
  template <class U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

template <class T>
using Values = std::vector<T, DefaultInitAllocator<T>>;

// Storage shared between arrays that view it with different offsets and strides.
template <class T>
struct DataBlock {
  Values<T> values;
};

// Asks for an array whose elements are about to be overwritten whole (by a file read).
struct Uninitialised {};

template <unsigned N, class T>
class MemArray final : public MemBase {
  static_assert(N >= 1 && N <= 3, "arrays have one to three dimensions");

 public:
  using value_type = T;
  using Extents = std::array<std::size_t, N>;
  using Accessor = std::function<T(std::size_t)>;

  // A fresh, contiguous, value-initialised array.
  explicit MemArray(const Extents& extents) : extents_(extents) {
    block_ = Vorlap::makeStrong<DataBlock<T>>();
    block_->values.resize(countOf(extents), T{});
  }
  // The same with numbers left unset (class types are still constructed): the caller
  // writes every element before anyone reads one.
  MemArray(const Extents& extents, Uninitialised) : extents_(extents) {
    block_ = Vorlap::makeStrong<DataBlock<T>>();
    block_->values.resize(countOf(extents));
  }
  explicit MemArray(std::size_t n) requires(N == 1) : MemArray(Extents{n}) {}
  // A view of an existing block.
  MemArray(const Extents& extents, Vorlap::StrongPtr<DataBlock<T>> block, std::size_t offset,
           std::size_t stride)
      : extents_(extents), block_(std::move(block)), offset_(offset), stride_(stride) {}
  // Elements computed on demand.
  MemArray(const Extents& extents, Accessor accessor)
      : extents_(extents), accessor_(std::move(accessor)) {}

  ElementType elementType() const override { return ElementTraits<T>::type; }
  unsigned rank() const override { return N; }
  std::size_t extent(unsigned dim) const override { return dim < N ? extents_[dim] : 1; }
  const Extents& extents() const { return extents_; }
  std::size_t size() const { return countOf(extents_); }
  std::size_t offset() const { return offset_; }
  std::size_t stride() const { return stride_; }
  bool hasAccessor() const { return static_cast<bool>(accessor_); }

  T get(std::size_t k) const {
    assert(k < size());
    if (accessor_) return accessor_(k);
    return block_->values[(k + offset_) * stride_];
  }
  T operator[](std::size_t k) const { return get(k); }
  // Two-dimensional access: i along the first extent, j along the second.
  T get(std::size_t i, std::size_t j) const requires(N == 2) { return get(j * extents_[0] + i); }

  // Writes through offset and stride; arrays computed by an accessor are read-only.
  void set(std::size_t k, const T& v) {
    assert(k < size() && !accessor_);
    block_->values[(k + offset_) * stride_] = v;
  }
  // Element k lies at stridedData()[k * stride()]; nullptr for arrays with an accessor.
  const T* stridedData() const {
    return accessor_ ? nullptr : block_->values.data() + offset_ * stride_;
  }
  // Direct storage when the array is a plain contiguous block, else nullptr.
  T* contiguousData() {
    return (!accessor_ && offset_ == 0 && stride_ == 1) ? block_->values.data() : nullptr;
  }
  const T* contiguousData() const {
    return (!accessor_ && offset_ == 0 && stride_ == 1) ? block_->values.data() : nullptr;
  }

  const void* contiguousBytes() const override { return contiguousData(); }
  void copyOut(void* dst) const override {
    T* out = static_cast<T*>(dst);
    const std::size_t n = size();
    if (const T* src = contiguousData()) {
      std::copy(src, src + n, out);
      return;
    }
    for (std::size_t k = 0; k < n; ++k) out[k] = get(k);
  }
  double component(std::size_t k, unsigned c) const override { return componentOf(get(k), c); }
  void widenRange(double* min, double* max) const override {
    const unsigned nc = componentCount(ElementTraits<T>::type);
    const std::size_t n = size();
    if constexpr (std::is_integral_v<T>) {
      // Every integer converts to double in order, so the extremes of the values give the
      // same range as the values one by one, in a loop that vectorises.
      if (n == 0) return;
      const auto [lo, hi] = integerRange();
      min[0] = std::min(min[0], double(lo));
      max[0] = std::max(max[0], double(hi));
      return;
    }
    if (const T* p = contiguousData()) return widenContiguousRange(p, n, min, max);
    for (std::size_t k = 0; k < n; ++k) {
      const T value = get(k);
      for (unsigned c = 0; c < nc; ++c) {
        const double v = componentOf(value, c);
        if (std::isnan(v)) continue;
        min[c] = std::min(min[c], v);
        max[c] = std::max(max[c], v);
      }
    }
  }
  std::size_t memoryBytes() const override {
    return block_ ? block_->values.size() * sizeof(T) : 0;
  }

 private:
  // The smallest and largest element of a non-empty integer array.
  std::pair<T, T> integerRange() const {
    const std::size_t n = size();
    T lo = get(0), hi = lo;
    if (const T* p = contiguousData()) {
      for (std::size_t k = 1; k < n; ++k) {
        lo = std::min(lo, p[k]);
        hi = std::max(hi, p[k]);
      }
      return {lo, hi};
    }
    for (std::size_t k = 1; k < n; ++k) {
      lo = std::min(lo, get(k));
      hi = std::max(hi, get(k));
    }
    return {lo, hi};
  }

  static std::size_t countOf(const Extents& e) {
    std::size_t n = 1;
    for (auto x : e) n *= x;
    return n;
  }

  Extents extents_{};
  Vorlap::StrongPtr<DataBlock<T>> block_;
  std::size_t offset_ = 0;
  std::size_t stride_ = 1;
  Accessor accessor_;
};

}  // namespace Tessal
