// A fragment's array encoded the way a .kq file stores it: cut into chunks of whole rows of
// about a million numbers, each byte-shuffled and deflated (small arrays: kept raw, stored
// compact). Encoding makes no HDF5 call and
// takes no lock, so the threads that make fragments can encode them while another thread
// saves; a fragment given an EncodedCreator is then stored chunk by chunk as it is, in the
// same bytes a save of the plain array would write.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "tessal/Field.hpp"

namespace Tessal {

struct EncodedArray {
  ElementType type = ElementType::UInt8;
  unsigned rank = 0;
  // The stored shape ((n), (n, 3), or (rows, samples) for 2-D arrays), and the chunk's: rows
  // per chunk, then the full other extents (empty when the array has no elements).
  std::vector<unsigned long long> dims, chunk;
  std::vector<std::vector<unsigned char>> chunks;
  // A small array stored in the dataset's header: `chunks` then holds one block of the raw
  // values (neither shuffled nor deflated) and `chunk` is empty.
  bool compact = false;

  // The array's extents, as MemBase gives them.
  std::vector<std::size_t> extents() const;
  // Whether the shapes agree with the type and rank and the chunks cover the rows exactly.
  bool consistent() const;
  std::size_t encodedBytes() const;
};

// Encodes `data` as a save would; safe on any thread.
EncodedArray encodeArray(const MemBase& data);
// The values of `data` as stored but neither shuffled nor deflated (`compact`): the layout
// with one dataset per field compresses whole chunks of several fragments, so a fragment
// handed to a save ahead of time carries its raw bytes. Safe on any thread.
EncodedArray rawArray(const MemBase& data);

// A fragment known only by its encoded array. It exists to be saved: its data cannot be
// produced again (create() gives nothing), and a save lets the chunks go once written.
class EncodedCreator final : public CreativeArrayBase {
 public:
  explicit EncodedCreator(std::shared_ptr<const EncodedArray> encoded)
      : encoded_(std::move(encoded)) {}
  const EncodedArray& encoded() const { return *encoded_; }
  ElementType elementType() const override { return encoded_->type; }
  std::vector<std::size_t> extents() const override { return encoded_->extents(); }

 protected:
  Vorlap::StrongPtr<MemBase> produce() override { return {}; }

 private:
  std::shared_ptr<const EncodedArray> encoded_;
};

}  // namespace Tessal
