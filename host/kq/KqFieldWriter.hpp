// One field of the one-dataset-per-field layout (kq_version 2), written as its fragments
// arrive: their rows are appended to a tail chunk held in memory, each chunk that fills is
// shuffled and deflated without any HDF5 call, and store() writes the finished chunks into
// the field's extendible "values" dataset. finish() writes the last, partly filled chunk and
// the table of fragment names and row offsets. packChunks() shuffles and deflates the sealed
// chunks of several fields on several threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kq/Hdf5.hpp"
#include "tessal/EncodedArray.hpp"

namespace Tessal::kq {

inline constexpr const char* kValuesName = "values";
inline constexpr const char* kFragmentNamesName = "fragment_names";
inline constexpr const char* kFragmentRowsName = "fragment_rows";
// Values per chunk of a field's dataset: small enough that a field's tail chunk costs little
// memory and that reading one small fragment inflates little, large enough for deflate.
inline constexpr std::size_t kFieldChunkValues = std::size_t(1) << 16;

// A fragment's values as stored: (rows, inner dims...) and the raw bytes in that order.
struct StoredRows {
  ElementType type = ElementType::UInt8;
  unsigned rank = 1;
  std::vector<hsize_t> dims;
  const unsigned char* bytes = nullptr;
};

class FieldValuesWriter {
 public:
  // `field` names the field in messages.
  explicit FieldValuesWriter(std::string field) : field_(std::move(field)) {}

  // Appends the fragment's rows after those of the fragments before; no HDF5 call. The empty
  // text, else why the fragment does not fit the field's dataset.
  std::string append(const std::string& fragment, const StoredRows& rows);
  // Chunks filled since the last store(); pack(k) shuffles and deflates the k-th of them
  // (no HDF5 call: threads may pack different chunks at once). store() packs any left.
  std::size_t pendingChunks() const { return pending_.size(); }
  void pack(std::size_t k);
  // The k-th pending chunk's bytes (its values, or once packed its stored bytes), whether it
  // is packed, and the bytes per component; adoptPacked() takes another writer's packed chunk
  // of the same values.
  const std::vector<unsigned char>& chunkBytes(std::size_t k) const { return pending_[k].bytes; }
  bool isPacked(std::size_t k) const { return pending_[k].packed; }
  std::size_t componentBytes() const { return component_; }
  void adoptPacked(std::size_t k, const FieldValuesWriter& from, std::size_t fromK);
  // Writes the chunks filled since the last call into the field group's dataset.
  bool store(hid_t fieldGroup);
  // Seals the partly filled last chunk once no row follows, so that packChunks() packs it
  // with the other fields' last chunks rather than finish() one after the other.
  void sealLast();
  // Writes the last chunk, the dataset's final extent and the fragment table.
  bool finish(hid_t fieldGroup);

 private:
  void fixShape(const StoredRows& rows);
  void sealChunk();
  bool createValues(hid_t fieldGroup, bool extendible);
  bool writeTable(hid_t fieldGroup) const;

  std::string field_;
  bool typed_ = false, shaped_ = false;
  ElementType type_ = ElementType::UInt8;
  unsigned rank_ = 1;
  std::vector<hsize_t> inner_;  // dims after the rows
  std::size_t component_ = 1, rowBytes_ = 0;
  hsize_t chunkRows_ = 0;
  std::vector<std::string> names_;
  std::vector<std::uint64_t> offsets_{0};
  std::vector<unsigned char> tail_;  // rows after the last sealed chunk
  struct Sealed {
    std::vector<unsigned char> bytes;  // the chunk's values, or once packed its stored bytes
    bool packed = false;
    std::vector<unsigned char> spent;  // the values' buffer once packed, until the store
  };
  // Sealed chunks not yet stored. No buffer is kept for the next tail: held between saves,
  // one per field, they raised the peak (across the module's stages) by more than the
  // allocator's reuse of the freed ones costs.
  std::vector<Sealed> pending_;
  hsize_t chunksStored_ = 0;
  Hid values_;
};

// The stored bytes of an array as a save hands it over: `scratch` receives them unless the
// array holds them as they are. Empty when encoded chunks do not unpack.
const unsigned char* storedBytes(const EncodedArray& e, std::vector<unsigned char>& scratch);

// Packs every pending chunk of the given fields, on up to `threads` threads (this one too).
void packChunks(const std::vector<FieldValuesWriter*>& fields, unsigned threads);

}  // namespace Tessal::kq
