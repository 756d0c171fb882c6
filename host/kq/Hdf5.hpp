// Shared helpers of the .kq reader and writer: owned HDF5 identifiers, the process-wide
// lock (Debian's HDF5 is not thread-safe), element-type mapping and link-name escaping.
#pragma once

#include <hdf5.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tessal/MemArray.hpp"

namespace Tessal::kq {

inline constexpr const char* kFormatName = "kq";
// kq_version of the layout with one dataset per field, and of the one with a dataset per
// fragment, which is still read (and written on request).
inline constexpr int kFormatVersion = 2;
inline constexpr int kPerFragmentVersion = 1;

std::recursive_mutex& hdf5Mutex();

// Closes an HDF5 identifier when it goes out of scope.
class Hid {
 public:
  using Closer = herr_t (*)(hid_t);
  Hid() = default;
  Hid(hid_t id, Closer closer) : id_(id), closer_(closer) {}
  Hid(const Hid&) = delete;
  Hid& operator=(const Hid&) = delete;
  Hid(Hid&& o) noexcept : id_(o.id_), closer_(o.closer_) { o.id_ = -1; }
  Hid& operator=(Hid&& o) noexcept {
    std::swap(id_, o.id_);
    std::swap(closer_, o.closer_);
    return *this;
  }
  ~Hid() {
    if (id_ >= 0 && closer_) closer_(id_);
  }
  hid_t get() const { return id_; }
  bool ok() const { return id_ >= 0; }
  // Gives up ownership, for a close whose result matters.
  hid_t release() { return std::exchange(id_, -1); }

 private:
  hid_t id_ = -1;
  Closer closer_ = nullptr;
};

// Native HDF5 type of one component of an element type.
hid_t nativeTypeOf(ElementType t);
// Whether a stored dataset type can be read as `t` without changing its meaning.
bool storedTypeMatches(hid_t storedType, ElementType t);

// Words for a stored type in messages: "64-bit signed integer", "fixed-length string", ...
std::string describeType(hid_t type);

// Link names cannot hold '/' and "." is special: escape reversibly with %XX.
std::string escapeName(const std::string& name);
std::string unescapeName(const std::string& link);

// Group creation properties that keep the creation order of links and attributes. With
// `indexed` false the order is kept but not indexed: iterating in creation order then sorts
// the links, which costs less than a second B-tree updated for every link of a group that
// holds thousands and is listed once.
Hid orderedGroupProperties(bool indexed = true);
Hid variableStringType();
// Texts of `bytes` bytes each, zero-terminated where shorter (UTF-8).
Hid fixedStringType(std::size_t bytes);

// File access properties that keep HDF5's memory flat over long runs. Its adaptive metadata
// cache may grow to 32 MB of file metadata, and it counts file bytes: an output's object
// headers take about 13 times that once decoded, so the cap keeps them near 13 MB a file.
// (A file written in the old format also kept a B-tree node per dataset written.)
inline constexpr size_t kMetadataCacheBytes = 1024 * 1024;
Hid readerAccess();
Hid writerAccess();
Hid writerCreation();

// Silences HDF5's own error printing once per process.
void silenceHdf5Errors();

}  // namespace Tessal::kq
