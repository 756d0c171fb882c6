// Helpers for the fuzz entry functions: a scratch file holding one input, and a reader that
// takes typed values from the front of arbitrary bytes (zeros once the bytes run out).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>

namespace quillo::fuzz {

// A file in the temporary folder holding `size` bytes, removed when the object goes away.
// The name is unique per process, so parallel fuzzers do not share it.
class ScratchFile {
 public:
  ScratchFile(const std::uint8_t* data, std::size_t size, const std::string& suffix);
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  const std::filesystem::path& path() const { return path_; }
  bool written() const { return written_; }

 private:
  std::filesystem::path path_;
  bool written_ = false;
};

class ByteReader {
 public:
  ByteReader(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  template <class T>
  T take() {
    static_assert(std::is_trivially_copyable_v<T>);
    unsigned char bytes[sizeof(T)] = {};
    const std::size_t n = left_ < sizeof(T) ? left_ : sizeof(T);
    if (n) std::memcpy(bytes, data_, n);
    data_ += n;
    left_ -= n;
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
  }
  // A value in [0, bound); 0 for bound 0.
  std::uint32_t below(std::uint32_t bound) { return bound ? take<std::uint32_t>() % bound : 0; }
  std::size_t left() const { return left_; }

 private:
  const std::uint8_t* data_;
  std::size_t left_;
};

}  // namespace quillo::fuzz
