#include "kq/KqFieldReader.hpp"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "kq/ChunkCodec.hpp"
#include "kq/DirectChunkRead.hpp"
#include "kq/KqAttributes.hpp"
#include "kq/KqConversion.hpp"
#include "kq/KqFieldWriter.hpp"
#include "vorlap/Console.hpp"

namespace Tessal::kq {

namespace {

// Deflate packs at most about 1032:1; below the slack any declared size is believed.
constexpr std::uint64_t kMaxCompressionRatio = 2048;
constexpr std::uint64_t kStorageSlack = std::uint64_t(1) << 20;

constexpr const char* kElementTypes =
    "int8, uint8, int16, uint16, int32, uint32, int64, uint64, float32, float64, point3, "
    "vector3";

std::string readElementType(const Vorlap::Attributes& meta, ElementType& type) {
  std::string name;
  switch (singleText(meta, "element_type", name)) {
    case Single::Ok:
      break;
    case Single::Missing:
      return std::string("missing attribute \"element_type\" (one of ") + kElementTypes + ")";
    default:
      return "attribute \"element_type\" must be one text";
  }
  if (!elementTypeFromName(name, type))
    return "unknown element type \"" + name + "\" (one of " + kElementTypes + ")";
  return "";
}

std::string readRank(const Vorlap::Attributes& meta, int& rank) {
  long long value = 0;
  switch (singleInteger(meta, "rank", value)) {
    case Single::Ok:
      break;
    case Single::Missing:
      return "missing attribute \"rank\" (1, or 2 for rows of samples)";
    default:
      return "attribute \"rank\" must be one whole number, 1 or 2";
  }
  if (value != 1 && value != 2) return "rank must be 1 or 2, is " + std::to_string(value);
  rank = static_cast<int>(value);
  return "";
}

// A field's values dataset, shared by its fragments' creators (and their copies for other
// threads), with the last chunk each thread unpacked.
struct FieldValues {
  Vorlap::StrongPtr<OpenFile> file;
  hid_t set = -1;
  std::string path;  // for messages
  ElementType type = ElementType::Double;
  bool convert = false;
  std::size_t rowValues = 0, rowBytes = 0;  // components per row, and their bytes
  hsize_t chunkRows = 0;                    // 0: not read chunk by chunk
  bool shuffled = false;

  struct Cached {
    hsize_t chunk = ~hsize_t(0);
    std::vector<unsigned char> raw, packed;
  };
  std::mutex cacheMutex;
  std::map<std::thread::id, Cached> caches;

  ~FieldValues() {
    std::lock_guard<std::recursive_mutex> lock(hdf5Mutex());
    if (set >= 0) H5Dclose(set);
  }
  Cached& cache() {
    std::lock_guard<std::mutex> lock(cacheMutex);
    return caches[std::this_thread::get_id()];
  }
};

using HeldLock = std::unique_lock<std::recursive_mutex>;

// Copies rows [first, first + count) out of the chunks they overlap, fetching with `lock`
// held and unpacking without it; false when a chunk cannot be had so.
bool readRowsByChunk(FieldValues& v, hsize_t first, hsize_t count, unsigned char* out,
                     HeldLock& lock) {
  const std::size_t chunkBytes = v.chunkRows * v.rowBytes;
  const std::size_t component = elementBytes(v.type) / componentCount(v.type);
  FieldValues::Cached& cache = v.cache();
  for (hsize_t c = first / v.chunkRows; c * v.chunkRows < first + count; ++c) {
    // A chunk wholly inside the rows asked for unpacks straight into place; the cache keeps
    // the chunks a fragment shares with its neighbours.
    const bool whole = c * v.chunkRows >= first && (c + 1) * v.chunkRows <= first + count;
    if (whole && cache.chunk != c) {
      if (!fetchChunk(v.set, c * v.chunkRows, chunkBytes, cache.packed)) return false;
      lock.unlock();
      const bool unpacked =
          decodeChunk(cache.packed.data(), cache.packed.size(), component, v.shuffled,
                      out + (c * v.chunkRows - first) * v.rowBytes, chunkBytes);
      lock.lock();
      if (!unpacked) return false;
      continue;
    }
    if (cache.chunk != c) {
      cache.chunk = ~hsize_t(0);
      if (!fetchChunk(v.set, c * v.chunkRows, chunkBytes, cache.packed)) return false;
      cache.raw.resize(chunkBytes);
      lock.unlock();
      const bool unpacked = decodeChunk(cache.packed.data(), cache.packed.size(), component,
                                        v.shuffled, cache.raw.data(), chunkBytes);
      lock.lock();
      if (!unpacked) return false;
      cache.chunk = c;
    }
    const hsize_t from = std::max(first, c * v.chunkRows);
    const hsize_t to = std::min(first + count, (c + 1) * v.chunkRows);
    std::memcpy(out + (from - first) * v.rowBytes,
                cache.raw.data() + (from - c * v.chunkRows) * v.rowBytes, (to - from) * v.rowBytes);
  }
  return true;
}

// Reads the rows through HDF5 (any layout and filter), converting the number type if need be.
std::string readRowsThroughHdf5(const FieldValues& v, hsize_t first, hsize_t count, void* out) {
  const RowSelection rows{first, count};
  const std::size_t components = count * v.rowValues;
  if (v.convert)
    if (std::string problem = readConverted(v.set, v.type, out, components, &rows);
        !problem.empty())
      return problem + " " + elementTypeName(v.type);
  if (v.convert) return "";
  Hid fileSpace, memorySpace;
  if (!selectRows(v.set, rows, components, fileSpace, memorySpace) ||
      H5Dread(v.set, nativeTypeOf(v.type), memorySpace.get(), fileSpace.get(), H5P_DEFAULT, out) <
          0)
    return "damaged data";
  return "";
}

template <class T>
Vorlap::StrongPtr<MemBase> uninitialised(const std::vector<std::size_t>& e, void*& data) {
  if (e.size() == 2) {
    auto a = Vorlap::makeStrong<MemArray<2, T>>(typename MemArray<2, T>::Extents{e[0], e[1]},
                                                Uninitialised{});
    data = a->contiguousData();
    return a;
  }
  auto a =
      Vorlap::makeStrong<MemArray<1, T>>(typename MemArray<1, T>::Extents{e[0]}, Uninitialised{});
  data = a->contiguousData();
  return a;
}

Vorlap::StrongPtr<MemBase> uninitialisedArray(ElementType t, const std::vector<std::size_t>& e,
                                              void*& data) {
  using namespace Gemwold::PhysicalSpace;
  switch (t) {
    case ElementType::Int8:
      return uninitialised<std::int8_t>(e, data);
    case ElementType::UInt8:
      return uninitialised<std::uint8_t>(e, data);
    case ElementType::Int16:
      return uninitialised<std::int16_t>(e, data);
    case ElementType::UInt16:
      return uninitialised<std::uint16_t>(e, data);
    case ElementType::Int32:
      return uninitialised<std::int32_t>(e, data);
    case ElementType::UInt32:
      return uninitialised<std::uint32_t>(e, data);
    case ElementType::Int64:
      return uninitialised<std::int64_t>(e, data);
    case ElementType::UInt64:
      return uninitialised<std::uint64_t>(e, data);
    case ElementType::Float:
      return uninitialised<float>(e, data);
    case ElementType::Double:
      return uninitialised<double>(e, data);
    case ElementType::Point:
      return uninitialised<point>(e, data);
    case ElementType::Vector:
      return uninitialised<vector>(e, data);
  }
  return {};
}

// One fragment: rows [first, first + count) of its field's values.
class RowsCreator final : public CreativeArrayBase {
 public:
  // `width`: values per row of a two-dimensional field, 0 for a one-dimensional one.
  RowsCreator(std::shared_ptr<FieldValues> values, hsize_t first, hsize_t count, std::size_t width,
              Vorlap::StrongPtr<FragmentID> fragment)
      : values_(std::move(values)),
        first_(first),
        count_(count),
        width_(width),
        fragment_(std::move(fragment)) {}
  ElementType elementType() const override { return values_->type; }
  std::vector<std::size_t> extents() const override {
    if (width_ == 0) return {std::size_t(count_)};
    return {width_, std::size_t(count_)};
  }
  Vorlap::StrongPtr<CreativeArrayBase> unheldCopy() const override {
    return Vorlap::makeStrong<RowsCreator>(values_, first_, count_, width_, fragment_);
  }

 protected:
  Vorlap::StrongPtr<MemBase> produce() override;

 private:
  std::shared_ptr<FieldValues> values_;
  hsize_t first_, count_;
  std::size_t width_;  // kept instead of the extents: one allocation less per fragment
  // For messages: the identifier, which the field's other creators share, not a copy of its name.
  Vorlap::StrongPtr<FragmentID> fragment_;
};

Vorlap::StrongPtr<MemBase> RowsCreator::produce() {
  HeldLock lock(hdf5Mutex());
  FieldValues& v = *values_;
  void* data = nullptr;
  Vorlap::StrongPtr<MemBase> array;
  std::string problem;
  try {
    array = uninitialisedArray(v.type, extents(), data);
  } catch (const std::bad_alloc&) {
    problem = "not enough memory";
  }
  if (array && count_ > 0 && v.rowBytes > 0) {
    const bool direct = v.chunkRows > 0 &&
                        readRowsByChunk(v, first_, count_, static_cast<unsigned char*>(data), lock);
    if (!direct) problem = readRowsThroughHdf5(v, first_, count_, data);
  }
  if (problem.empty()) return array;
  Vorlap::Console() << v.file->name << ": cannot read fragment \"" << fragment_->getName()
                    << "\" of " << v.path << ": " << problem;
  return {};
}

// The names of the field's fragments: variable- or fixed-length strings, one dimension.
std::string readNames(hid_t group, std::vector<std::string>& names) {
  Hid set(H5Dopen2(group, kFragmentNamesName, H5P_DEFAULT), H5Dclose);
  if (!set.ok()) return "missing dataset (the names of the field's fragments)";
  Hid type(H5Dget_type(set.get()), H5Tclose), space(H5Dget_space(set.get()), H5Sclose);
  hsize_t n = 0;
  if (H5Tget_class(type.get()) != H5T_STRING || H5Sget_simple_extent_ndims(space.get()) != 1)
    return "must be a one-dimensional list of texts";
  H5Sget_simple_extent_dims(space.get(), &n, nullptr);
  if (n == 0) return "";
  if (n > kMaxFragmentElements) return "declares an absurd number of fragments";
  if (H5Tis_variable_str(type.get()) > 0) {
    std::vector<char*> texts(n, nullptr);
    Hid memory = variableStringType();
    if (H5Dread(set.get(), memory.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, texts.data()) < 0)
      return "unreadable names";
    for (char* t : texts) names.emplace_back(t ? t : "");
    H5Dvlen_reclaim(memory.get(), space.get(), H5P_DEFAULT, texts.data());
    return "";
  }
  const std::size_t size = H5Tget_size(type.get());
  std::vector<char> text(n * size);
  if (H5Dread(set.get(), type.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, text.data()) < 0)
    return "unreadable names";
  const bool spaces = H5Tget_strpad(type.get()) == H5T_STR_SPACEPAD;
  for (hsize_t i = 0; i < n; ++i) {
    std::string name(text.data() + i * size, size);
    name.resize(std::min(name.size(), name.find('\0')));
    if (spaces) name.erase(name.find_last_not_of(' ') + 1);
    names.push_back(std::move(name));
  }
  return "";
}

// Where each fragment's rows start, and where the last ends: whole numbers, one dimension.
std::string readOffsets(hid_t group, std::vector<std::int64_t>& offsets) {
  Hid set(H5Dopen2(group, kFragmentRowsName, H5P_DEFAULT), H5Dclose);
  if (!set.ok()) return "missing dataset (the first row of each fragment, then the end)";
  Hid type(H5Dget_type(set.get()), H5Tclose), space(H5Dget_space(set.get()), H5Sclose);
  hsize_t n = 0;
  if (H5Tget_class(type.get()) != H5T_INTEGER || H5Sget_simple_extent_ndims(space.get()) != 1)
    return "must be a one-dimensional list of whole numbers";
  H5Sget_simple_extent_dims(space.get(), &n, nullptr);
  if (n > kMaxFragmentElements) return "declares an absurd number of fragments";
  offsets.resize(n);
  if (n && H5Dread(set.get(), H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, offsets.data()) < 0)
    return "unreadable row offsets";
  return "";
}

// The rows of the dataset and the values per row; checks its type, rank and shape.
std::string describeValues(FieldValues& v, int& rank, std::vector<hsize_t>& dims) {
  if (std::string problem = readTypeAndRank(v.set, v.type, rank, v.convert); !problem.empty())
    return problem;
  Hid space(H5Dget_space(v.set), H5Sclose);
  const bool triple = componentCount(v.type) == 3;
  const int expectedDims = rank + (triple ? 1 : 0);
  if (H5Sget_simple_extent_ndims(space.get()) != expectedDims)
    return "shape does not match its rank";
  dims.resize(expectedDims);
  H5Sget_simple_extent_dims(space.get(), dims.data(), nullptr);
  if (triple && dims.back() != 3) return "points and vectors need 3 components";
  if (rank == 2 && dims[1] > kMaxFragmentElements) return "declares an absurd number of elements";
  std::uint64_t total = 1;
  v.rowValues = 1;
  for (int d = 0; d < expectedDims; ++d) {
    if (d > 0) v.rowValues *= dims[d];
    if (dims[d] && total > ~std::uint64_t(0) / dims[d])
      return "declares an absurd number of elements";
    total *= dims[d];
  }
  v.rowBytes = v.rowValues * (elementBytes(v.type) / componentCount(v.type));
  return checkStoredSize(total / (triple ? 3 : 1), v.type, H5Dget_storage_size(v.set));
}

// Shorter names first, names of one length in text order: Fragment_9 before Fragment_10.
bool shortlexLess(const std::string& a, const std::string& b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

// Which names repeat one listed before them: sorted positions, no set of copied names. Names
// in increasing shortlex order (fragments numbered in order, as this system writes them)
// repeat none, which one pass shows.
std::vector<bool> repeatedNames(const std::vector<std::string>& names) {
  const auto notIncreasing = [](const std::string& a, const std::string& b) {
    return !shortlexLess(a, b);
  };
  if (std::adjacent_find(names.begin(), names.end(), notIncreasing) == names.end())
    return std::vector<bool>(names.size(), false);
  std::vector<std::uint32_t> order(names.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = std::uint32_t(i);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return names[a] < names[b]; });
  std::vector<bool> repeated(names.size(), false);
  for (std::size_t k = 1; k < order.size(); ++k)
    if (names[order[k]] == names[order[k - 1]]) repeated[order[k]] = true;
  return repeated;
}

// Checks the table against the dataset's rows: offsets from 0, never decreasing, ending at
// the last row; each fragment within the size limit; no name twice.
std::string checkTable(const std::vector<std::string>& names,
                       const std::vector<std::int64_t>& offsets, hsize_t rows,
                       std::uint64_t recordsPerRow) {
  if (offsets.size() != names.size() + 1)
    return std::to_string(offsets.size()) + " row offsets for " + std::to_string(names.size()) +
           " fragments: one per fragment and the end of the last are needed";
  if (offsets[0] != 0)
    return "the first fragment starts at row " + std::to_string(offsets[0]) + ", not 0";
  const std::vector<bool> repeated = repeatedNames(names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto fragment = [&] { return "fragment \"" + names[i] + "\""; };
    if (offsets[i + 1] < offsets[i])
      return "row offsets are not increasing: " + fragment() + " starts at row " +
             std::to_string(offsets[i]) + " and ends at row " + std::to_string(offsets[i + 1]);
    if (std::uint64_t(offsets[i + 1]) > rows)
      return "row offsets run past the end of the values (" + std::to_string(rows) +
             " rows): " + fragment() + " ends at row " + std::to_string(offsets[i + 1]);
    if (std::uint64_t(offsets[i + 1] - offsets[i]) * recordsPerRow > kMaxFragmentElements)
      return fragment() + " declares an absurd number of elements";
    if (repeated[i]) return fragment() + " is listed twice";
  }
  if (std::uint64_t(offsets.back()) != rows)
    return "the values hold " + std::to_string(rows) + " rows but the fragments end at row " +
           std::to_string(offsets.back());
  return "";
}

}  // namespace

OpenFile::~OpenFile() {
  std::lock_guard<std::recursive_mutex> lock(hdf5Mutex());
  if (id >= 0) H5Fclose(id);
}

std::string readTypeAndRank(hid_t set, ElementType& type, int& rank, bool& convert) {
  Vorlap::Attributes meta;
  std::string error;
  if (!readAttributes(set, meta, error)) return error;
  if (error = readElementType(meta, type); !error.empty()) return error;
  if (error = readRank(meta, rank); !error.empty()) return error;
  // Other number types are converted when the values are read; a value that does not fit
  // refuses the fragment then.
  Hid stored(H5Dget_type(set), H5Tclose);
  const bool exact = stored.ok() && storedTypeMatches(stored.get(), type);
  if (!exact && !(stored.ok() && convertibleType(stored.get())))
    return std::string("stored values are not of type ") + elementTypeName(type) + " but " +
           describeType(stored.get()) + " (store integers or floats)";
  convert = !exact;
  return "";
}

std::string checkStoredSize(std::uint64_t total, ElementType type, std::uint64_t storedBytes) {
  const std::uint64_t bytes = total * elementBytes(type);
  if (bytes > kStorageSlack + kMaxCompressionRatio * storedBytes)
    return "declares " + std::to_string(total) + " elements but stores only " +
           std::to_string(storedBytes) + " bytes";
  return "";
}

std::string readFieldValues(const Vorlap::StrongPtr<OpenFile>& file, const std::string& path,
                            Field& field, std::string& where, const FragmentIDCollection* like) {
  Hid group(H5Gopen2(file->id, path.c_str(), H5P_DEFAULT), H5Gclose);
  std::vector<std::string> names;
  std::vector<std::int64_t> offsets;
  where = path + "/" + kFragmentNamesName;
  if (std::string problem = readNames(group.get(), names); !problem.empty()) return problem;
  where = path + "/" + kFragmentRowsName;
  if (std::string problem = readOffsets(group.get(), offsets); !problem.empty()) return problem;
  if (names.empty() && offsets.size() <= 1 && H5Lexists(group.get(), kValuesName, H5P_DEFAULT) <= 0)
    return "";  // a field without fragments needs no values
  where = path + "/" + kValuesName;
  auto values = std::make_shared<FieldValues>();
  values->file = file;
  values->path = where;
  values->set = H5Dopen2(group.get(), kValuesName, H5P_DEFAULT);
  if (values->set < 0) return "missing dataset (the values of every fragment, one after the other)";
  int rank = 1;
  std::vector<hsize_t> dims;
  if (std::string problem = describeValues(*values, rank, dims); !problem.empty()) return problem;
  const std::uint64_t recordsPerRow = rank == 2 ? dims[1] : 1;
  where = path + "/" + kFragmentRowsName;
  if (std::string problem = checkTable(names, offsets, dims[0], recordsPerRow); !problem.empty())
    return problem;
  if (!values->convert)
    directlyReadable(values->set, nativeTypeOf(values->type), values->chunkRows, values->shuffled);
  const std::size_t width = rank == 2 ? std::size_t(dims[1]) : 0;
  // Named as the field before: its identifiers, table and all.
  bool shared = false;
  if (like && like->size() == names.size()) {
    std::size_t same = 0;
    while (same < names.size() && like->at(same)->getName() == names[same]) ++same;
    shared = same == names.size() && field.shareFragmentIDs(*like);
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto rows = hsize_t(offsets[i + 1] - offsets[i]);
    const bool named = like && i < like->size() && like->at(i)->getName() == names[i];
    auto id = shared  ? like->at(i)
              : named ? field.adoptFragmentID(like->at(i))
                      : field.makeFragmentID(names[i]);
    field.setCreator(id,
                     Vorlap::makeStrong<RowsCreator>(values, hsize_t(offsets[i]), rows, width, id));
  }
  return "";
}

}  // namespace Tessal::kq
