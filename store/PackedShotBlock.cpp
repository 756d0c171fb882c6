// Packing and reading one settled block of the shot-time index (see header).
#include "store/PackedShotBlock.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace FullWaveform {

namespace {

constexpr std::uint64_t kSignBit = std::uint64_t(1) << 63;

// An integer that sorts like the double: negative times flip all bits, others the sign.
std::uint64_t orderedKey(double time) {
  const auto bits = std::bit_cast<std::uint64_t>(time);
  return (bits & kSignBit) ? ~bits : bits | kSignBit;
}

double timeOfKey(std::uint64_t key) {
  return std::bit_cast<double>((key & kSignBit) ? key & ~kSignBit : ~key);
}

std::uint64_t zigZag(std::int64_t v) {
  return (std::uint64_t(v) << 1) ^ std::uint64_t(v >> 63);
}

std::int64_t unZigZag(std::uint64_t u) {
  return std::int64_t(u >> 1) ^ -std::int64_t(u & 1);
}

void putVarint(std::vector<std::uint8_t>& out, std::uint64_t v) {
  for (; v >= 0x80; v >>= 7) out.push_back(std::uint8_t(v | 0x80));
  out.push_back(std::uint8_t(v));
}

}  // namespace

// Walks the entries after one mark; wrapping arithmetic undoes the packing's exactly.
class PackedShotBlock::Cursor {
 public:
  Cursor(const PackedShotBlock& block, std::size_t mark)
      : at_(block.steps_.data() + block.marks_[mark].offset),
        key_(block.marks_[mark].key),
        shot_(block.marks_[mark].shot) {}

  void next() {
    step_ += std::uint64_t(unZigZag(varint()));
    key_ += step_;
    shot_ += std::uint32_t(unZigZag(varint())) + 1u;
  }
  Entry entry() const { return {timeOfKey(key_), shot_}; }

 private:
  std::uint64_t varint() {
    std::uint64_t v = 0;
    for (int shift = 0;; shift += 7) {
      const std::uint8_t byte = *at_++;
      v |= std::uint64_t(byte & 0x7F) << shift;
      if (!(byte & 0x80)) return v;
    }
  }

  const std::uint8_t* at_;
  std::uint64_t key_, step_ = 0;
  std::uint32_t shot_;
};

PackedShotBlock::PackedShotBlock(const Entry* entries, std::size_t count) : size_(count) {
  marks_.reserve((count + kMarkEvery - 1) >> kMarkShift);
  std::uint64_t previousKey = 0, previousStep = 0;
  for (std::size_t k = 0; k < count; ++k) {
    const std::uint64_t key = orderedKey(entries[k].first);
    if ((k & (kMarkEvery - 1)) == 0) {
      marks_.push_back({key, entries[k].second, std::uint32_t(steps_.size())});
      previousStep = 0;
    } else {
      const std::uint64_t step = key - previousKey;
      putVarint(steps_, zigZag(std::int64_t(step - previousStep)));
      putVarint(steps_, zigZag(std::int32_t(entries[k].second - entries[k - 1].second - 1u)));
      previousStep = step;
    }
    previousKey = key;
  }
  steps_.shrink_to_fit();
}

PackedShotBlock::Entry PackedShotBlock::at(std::size_t position) const {
  Cursor cursor(*this, position >> kMarkShift);
  for (std::size_t k = position & (kMarkEvery - 1); k > 0; --k) cursor.next();
  return cursor.entry();
}

std::size_t PackedShotBlock::lowerBound(double time) const {
  std::size_t lo = 0, hi = marks_.size();  // first mark whose time is not less than `time`
  while (lo < hi) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (timeOfKey(marks_[mid].key) < time)
      lo = mid + 1;
    else
      hi = mid;
  }
  if (lo == 0) return 0;
  std::size_t position = (lo - 1) << kMarkShift;
  const std::size_t stop = std::min(size_, lo << kMarkShift);
  Cursor cursor(*this, lo - 1);
  while (position < stop && cursor.entry().first < time) {
    if (++position < stop) cursor.next();
  }
  return position;
}

void PackedShotBlock::unpack(Entry* out) const {
  for (std::size_t mark = 0; mark < marks_.size(); ++mark) {
    Cursor cursor(*this, mark);
    const std::size_t begin = mark << kMarkShift, end = std::min(size_, begin + kMarkEvery);
    for (std::size_t k = begin; k < end; ++k) {
      if (k > begin) cursor.next();
      out[k] = cursor.entry();
    }
  }
}

std::vector<std::uint8_t> PackedShotBlock::toBytes() const {
  const std::uint64_t header[3] = {size_, marks_.size(), steps_.size()};
  std::vector<std::uint8_t> bytes(sizeof(header) + marks_.size() * sizeof(Mark) + steps_.size());
  std::uint8_t* at = bytes.data();
  at = std::copy_n(reinterpret_cast<const std::uint8_t*>(header), sizeof(header), at);
  at = std::copy_n(reinterpret_cast<const std::uint8_t*>(marks_.data()),
                   marks_.size() * sizeof(Mark), at);
  std::copy(steps_.begin(), steps_.end(), at);
  return bytes;
}

PackedShotBlock PackedShotBlock::fromBytes(const std::vector<std::uint8_t>& bytes) {
  std::uint64_t header[3];
  std::memcpy(header, bytes.data(), sizeof(header));
  PackedShotBlock block;
  block.size_ = header[0];
  block.marks_.resize(header[1]);
  block.steps_.resize(header[2]);
  const std::uint8_t* at = bytes.data() + sizeof(header);
  std::memcpy(block.marks_.data(), at, header[1] * sizeof(Mark));
  std::memcpy(block.steps_.data(), at + header[1] * sizeof(Mark), header[2]);
  return block;
}

std::size_t PackedShotBlock::memoryBytes() const {
  return sizeof(*this) + marks_.capacity() * sizeof(Mark) + steps_.capacity();
}

}  // namespace FullWaveform
