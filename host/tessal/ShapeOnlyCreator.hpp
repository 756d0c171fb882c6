// A creator that stands for an array whose data went elsewhere (handed to another thread,
// written to a file and let go): its element type and extents stay known, it produces
// nothing. One is made per fragment and field, so the extents are kept in place.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

#include "tessal/Field.hpp"

namespace Tessal {

class ShapeOnlyCreator final : public CreativeArrayBase {
 public:
  ShapeOnlyCreator(ElementType type, const std::vector<std::size_t>& extents)
      : type_(type), rank_(std::min(extents.size(), extents_.size())) {
    std::copy_n(extents.begin(), rank_, extents_.begin());
  }
  explicit ShapeOnlyCreator(const MemBase& data)
      : type_(data.elementType()), rank_(std::min<std::size_t>(data.rank(), extents_.size())) {
    for (std::size_t d = 0; d < rank_; ++d) extents_[d] = data.extent(unsigned(d));
  }
  ElementType elementType() const override { return type_; }
  std::vector<std::size_t> extents() const override {
    return std::vector<std::size_t>(extents_.begin(), extents_.begin() + std::ptrdiff_t(rank_));
  }

 protected:
  Vorlap::StrongPtr<MemBase> produce() override { return {}; }

 private:
  ElementType type_;
  std::size_t rank_;
  std::array<std::size_t, 3> extents_{};  // arrays have one to three dimensions
};

}  // namespace Tessal
