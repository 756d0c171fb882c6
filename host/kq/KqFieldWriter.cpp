#include "kq/KqFieldWriter.hpp"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <unordered_map>

#include "kq/ChunkCodec.hpp"
#include "kq/KqAttributes.hpp"

namespace Tessal::kq {

namespace {

constexpr std::size_t kPaddedNamesSlack = 64 * 1024;  // padding always allowed, in bytes

std::string shapeText(const std::vector<hsize_t>& inner) {
  std::string text;
  for (hsize_t d : inner) text += (text.empty() ? "" : " x ") + std::to_string(d);
  return text.empty() ? "single values" : "rows of " + text;
}

bool writeTypeAttributes(hid_t set, ElementType type, unsigned rank) {
  Vorlap::Attributes meta;
  meta.setAttribute("element_type", Vorlap::makeChunk<std::string>({elementTypeName(type)}));
  meta.setAttribute("rank", Vorlap::makeChunk<int>({int(rank)}));
  std::string ignored;
  return writeAttributes(set, meta, ignored);
}

// A one-dimensional dataset of `n` values, written whole.
bool writeList(hid_t group, const char* name, hid_t type, hsize_t n, const void* values) {
  Hid space(H5Screate_simple(1, &n, nullptr), H5Sclose);
  Hid props(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
  H5Pset_obj_track_times(props.get(), 0);  // same content, same bytes
  Hid set(H5Dcreate2(group, name, type, space.get(), H5P_DEFAULT, props.get(), H5P_DEFAULT),
          H5Dclose);
  return set.ok() &&
         (n == 0 || H5Dwrite(set.get(), type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values) >= 0);
}

// The fragments' names as fixed-length texts, each padded to the longest: they read back with
// one copy, where variable-length texts cost a global-heap look-up each (most of a load of a
// file with thousands of fragments). Names of very unequal lengths stay variable-length.
bool writeNames(hid_t group, const std::vector<std::string>& names) {
  std::size_t longest = 0, total = 0;
  for (const auto& n : names) longest = std::max(longest, n.size()), total += n.size() + 1;
  const std::size_t width = longest + 1;  // the terminating zero
  if (width * names.size() > 4 * total + kPaddedNamesSlack) {
    std::vector<const char*> texts;
    for (const auto& n : names) texts.push_back(n.c_str());
    Hid text = variableStringType();
    return writeList(group, kFragmentNamesName, text.get(), texts.size(), texts.data());
  }
  std::vector<char> padded(width * names.size(), '\0');
  for (std::size_t i = 0; i < names.size(); ++i)
    std::memcpy(padded.data() + i * width, names[i].data(), names[i].size());
  Hid text = fixedStringType(width);
  return writeList(group, kFragmentNamesName, text.get(), names.size(), padded.data());
}

}  // namespace

void FieldValuesWriter::fixShape(const StoredRows& rows) {
  inner_.assign(rows.dims.begin() + 1, rows.dims.end());
  component_ = elementBytes(type_) / componentCount(type_);
  std::size_t rowValues = 1;
  for (hsize_t d : inner_) rowValues *= d;
  rowBytes_ = rowValues * component_;
  chunkRows_ = rowValues ? std::max<hsize_t>(1, kFieldChunkValues / rowValues) : 0;
  if (rowBytes_) tail_.reserve(chunkRows_ * rowBytes_);
}

std::string FieldValuesWriter::append(const std::string& fragment, const StoredRows& rows) {
  // Made only for a message: an allocation per fragment and field otherwise.
  const auto where = [&] { return "fragment \"" + fragment + "\" of field \"" + field_ + "\""; };
  if (rows.dims.empty()) return where() + " has no shape";
  if (!typed_) type_ = rows.type, rank_ = rows.rank, typed_ = true;
  if (rows.type != type_ || rows.rank != rank_)
    return where() + " is of type " + elementTypeName(rows.type) + ", rank " +
           std::to_string(rows.rank) + ", where the fragments before are of type " +
           elementTypeName(type_) + ", rank " + std::to_string(rank_);
  // Empty fragments take the field's shape; the first fragment with rows fixes it.
  if (rows.dims[0] > 0 && shaped_ &&
      !std::equal(rows.dims.begin() + 1, rows.dims.end(), inner_.begin(), inner_.end()))
    return where() + " holds " +
           shapeText(std::vector<hsize_t>(rows.dims.begin() + 1, rows.dims.end())) +
           " where the fragments before hold " + shapeText(inner_) +
           ": the rows of one field are all of one shape";
  if (!shaped_ && (rows.dims[0] > 0 || names_.empty())) {
    fixShape(rows);
    shaped_ = rows.dims[0] > 0;
  }
  names_.push_back(fragment);
  offsets_.push_back(offsets_.back() + rows.dims[0]);
  if (rows.dims[0] == 0 || rowBytes_ == 0) return "";
  const unsigned char* next = rows.bytes;
  std::size_t left = rows.dims[0] * rowBytes_;
  const std::size_t chunkBytes = chunkRows_ * rowBytes_;
  while (left > 0) {
    const std::size_t take = std::min(left, chunkBytes - tail_.size());
    tail_.insert(tail_.end(), next, next + take);
    next += take, left -= take;
    if (tail_.size() == chunkBytes) sealChunk();
  }
  return "";
}

// The tail as a stored chunk; a last chunk's rows past the end are zero, the fill value.
void FieldValuesWriter::sealChunk() {
  tail_.resize(chunkRows_ * rowBytes_, 0);
  pending_.push_back({std::move(tail_), false, {}});
  tail_ = {};
  tail_.reserve(chunkRows_ * rowBytes_);
}

void FieldValuesWriter::adoptPacked(std::size_t k, const FieldValuesWriter& from,
                                    std::size_t fromK) {
  pending_[k].bytes = from.pending_[fromK].bytes;
  pending_[k].packed = true;
}

void FieldValuesWriter::pack(std::size_t k) {
  Sealed& chunk = pending_[k];
  if (chunk.packed) return;
  std::vector<unsigned char> stored;
  encodeChunk(chunk.bytes.data(), chunk.bytes.size(), component_, stored);
  // The values' buffer is kept until the store: freed while the pass packs, its pages went
  // to the packed chunks and the next tails took fresh ones.
  chunk.spent = std::move(chunk.bytes);
  chunk.bytes = std::move(stored);
  chunk.packed = true;
}

namespace {

using ChunkRef = std::pair<FieldValuesWriter*, std::size_t>;

// Cheap first test of two chunks being the same: size, element size and a few sampled bytes.
std::uint64_t sampleKey(const std::vector<unsigned char>& b, std::size_t component) {
  std::uint64_t key = b.size() * 31 + component;
  for (std::size_t i = 0; i < b.size(); i += 4093) key = key * 1099511628211ull + b[i];
  return key * 1099511628211ull + (b.empty() ? 0 : b.back());
}

// For each chunk, the earlier one in `work` with the same values and element size, or itself.
// A field saved in two charts (the map positions under the identity transform) then is
// deflated once; deflate is deterministic, so the copy is the very bytes packing would give.
std::vector<std::size_t> sameAsEarlier(const std::vector<ChunkRef>& work) {
  std::vector<std::size_t> source(work.size());
  std::unordered_map<std::uint64_t, std::vector<std::size_t>> byKey;
  for (std::size_t i = 0; i < work.size(); ++i) {
    source[i] = i;
    const auto& [field, k] = work[i];
    if (field->isPacked(k)) continue;
    auto& candidates = byKey[sampleKey(field->chunkBytes(k), field->componentBytes())];
    for (std::size_t j : candidates)
      if (work[j].first->componentBytes() == field->componentBytes() &&
          work[j].first->chunkBytes(work[j].second) == field->chunkBytes(k)) {
        source[i] = j;
        break;
      }
    if (source[i] == i) candidates.push_back(i);
  }
  return source;
}

}  // namespace

void packChunks(const std::vector<FieldValuesWriter*>& fields, unsigned threads) {
  std::vector<ChunkRef> work;
  for (FieldValuesWriter* f : fields)
    for (std::size_t k = 0; k < f->pendingChunks(); ++k) work.emplace_back(f, k);
  const std::vector<std::size_t> source = sameAsEarlier(work);
  std::vector<std::size_t> unique;
  for (std::size_t i = 0; i < work.size(); ++i)
    if (source[i] == i) unique.push_back(i);
  std::atomic<std::size_t> next{0};
  const auto packSome = [&] {
    for (std::size_t k; (k = next++) < unique.size();)
      work[unique[k]].first->pack(work[unique[k]].second);
  };
  std::vector<std::thread> helpers;
  for (std::size_t t = 1; t < std::min<std::size_t>(threads, unique.size()); ++t)
    helpers.emplace_back(packSome);
  packSome();
  for (std::thread& h : helpers) h.join();
  for (std::size_t i = 0; i < work.size(); ++i)
    if (source[i] != i)
      work[i].first->adoptPacked(work[i].second, *work[source[i]].first, work[source[i]].second);
}

bool FieldValuesWriter::createValues(hid_t fieldGroup, bool extendible) {
  std::vector<hsize_t> dims{extendible ? 0 : offsets_.back()}, max{H5S_UNLIMITED};
  dims.insert(dims.end(), inner_.begin(), inner_.end());
  max.insert(max.end(), inner_.begin(), inner_.end());
  Hid space(H5Screate_simple(int(dims.size()), dims.data(), extendible ? max.data() : nullptr),
            H5Sclose);
  Hid props(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
  H5Pset_obj_track_times(props.get(), 0);  // same content, same bytes
  if (extendible) {
    std::vector<hsize_t> chunk = dims;
    chunk[0] = chunkRows_;
    H5Pset_chunk(props.get(), int(chunk.size()), chunk.data());
    H5Pset_shuffle(props.get());
    H5Pset_deflate(props.get(), kDeflateLevel);
  }
  values_ = Hid(H5Dcreate2(fieldGroup, kValuesName, nativeTypeOf(type_), space.get(), H5P_DEFAULT,
                           props.get(), H5P_DEFAULT),
                H5Dclose);
  return values_.ok() && writeTypeAttributes(values_.get(), type_, rank_);
}

bool FieldValuesWriter::store(hid_t fieldGroup) {
  if (pending_.empty()) return true;
  if (!values_.ok() && !createValues(fieldGroup, true)) return false;
  // Never past the rows appended: shrinking a dataset would make HDF5 rewrite its last chunk.
  const hsize_t covered = (chunksStored_ + pending_.size()) * chunkRows_;
  std::vector<hsize_t> extent{std::min<hsize_t>(covered, offsets_.back())};
  extent.insert(extent.end(), inner_.begin(), inner_.end());
  if (H5Dset_extent(values_.get(), extent.data()) < 0) return false;
  std::vector<hsize_t> offset(extent.size(), 0);
  for (std::size_t k = 0; k < pending_.size(); ++k) {
    pack(k);
    const std::vector<unsigned char>& chunk = pending_[k].bytes;
    offset[0] = chunksStored_++ * chunkRows_;
    if (H5Dwrite_chunk(values_.get(), H5P_DEFAULT, 0, offset.data(), chunk.size(), chunk.data()) <
        0)
      return false;
  }
  pending_.clear();
  return true;
}

void FieldValuesWriter::sealLast() {
  if (!tail_.empty()) sealChunk();
}

bool FieldValuesWriter::finish(hid_t fieldGroup) {
  if (!names_.empty()) {
    sealLast();
    // Without rows (or with rows of no values) there is no chunk to store.
    const bool chunked = values_.ok() || !pending_.empty();
    if (!chunked && !createValues(fieldGroup, false)) return false;
    if (chunked && !store(fieldGroup)) return false;
  }
  return writeTable(fieldGroup);
}

bool FieldValuesWriter::writeTable(hid_t fieldGroup) const {
  return writeNames(fieldGroup, names_) &&
         writeList(fieldGroup, kFragmentRowsName, H5T_NATIVE_UINT64, offsets_.size(),
                   offsets_.data());
}

const unsigned char* storedBytes(const EncodedArray& e, std::vector<unsigned char>& scratch) {
  if (e.compact) return e.chunks.front().data();
  std::size_t total = 1;
  for (auto d : e.dims) total *= d;
  const std::size_t component = elementBytes(e.type) / componentCount(e.type);
  scratch.resize(total * component);
  if (total == 0) return scratch.data();
  const std::size_t rowBytes = total / e.dims[0] * component, chunkBytes = e.chunk[0] * rowBytes;
  std::vector<unsigned char> chunk(chunkBytes);
  std::size_t at = 0;
  for (const auto& stored : e.chunks) {
    if (!decodeChunk(stored.data(), stored.size(), component, true, chunk.data(), chunkBytes))
      return nullptr;
    const std::size_t take = std::min(chunkBytes, scratch.size() - at);
    std::memcpy(scratch.data() + at, chunk.data(), take);
    at += take;
  }
  return scratch.data();
}

}  // namespace Tessal::kq
