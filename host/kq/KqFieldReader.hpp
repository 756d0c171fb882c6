// Reading a field of the one-dataset-per-field layout (kq_version 2): its table of fragment
// names and row offsets is read and checked with the field, and each fragment gets a
// creator that reads only its rows when asked, through the chunks they overlap. The last
// chunk unpacked is kept (one per reading thread), so neighbouring small fragments do not
// unpack it again.
#pragma once

#include <string>

#include "kq/Hdf5.hpp"
#include "tessal/Field.hpp"
#include "vorlap/StrongPtr.hpp"

namespace Tessal::kq {

// A .kq file open for reading, closed when nothing that may read it is left.
struct OpenFile {
  hid_t id = -1;
  std::string name;
  ~OpenFile();
};

// Adds the fragments of the field group at `path` to `field`. The empty text, else the
// problem, with `where` set to the object that has it. Fragments named as in `like` at the
// same place (the fields read before, mostly) share its identifiers.
std::string readFieldValues(const Vorlap::StrongPtr<OpenFile>& file, const std::string& path,
                            Field& field, std::string& where,
                            const FragmentIDCollection* like = nullptr);

// A dataset's element type and rank (its attributes) and whether its stored number type
// differs from the element type; the empty text, else what is wrong.
std::string readTypeAndRank(hid_t set, ElementType& type, int& rank, bool& convert);

// Fragments larger than this are refused before anything is allocated.
inline constexpr std::uint64_t kMaxFragmentElements = std::uint64_t(1) << 31;
// Whether `total` elements of `type` are believable for a dataset storing `storedBytes`
// (unwritten chunks read as fill values: a dataset declaring far more than the file stores
// would only exhaust the memory when read); the empty text, else why not.
std::string checkStoredSize(std::uint64_t total, ElementType type, std::uint64_t storedBytes);

}  // namespace Tessal::kq
