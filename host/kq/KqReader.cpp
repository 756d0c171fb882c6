// Loading .kq files: the structure (slices, grids, charts, fields, fragment names,
// attributes, element types and shapes) is read at once and checked; a fragment's array is
// read only when its creator is asked for it. A file that fails any check adds nothing to
// the bundle and is reported with the file and object named.
#include <filesystem>
#include <functional>

#include "kq/DirectChunkRead.hpp"
#include "kq/GlobalHeapCheck.hpp"
#include "kq/KqAttributes.hpp"
#include "kq/KqConversion.hpp"
#include "kq/KqFieldReader.hpp"
#include "tessal/Bundle.hpp"
#include "vorlap/Console.hpp"

namespace Tessal {

namespace {

using kq::Hid;

using KqFile = kq::OpenFile;
using kq::kMaxFragmentElements;

// A field's "fragments" group, open while any of its fragments may be read: opening a
// dataset by its name in the group costs one link look-up instead of a walk from the root
// (which dominated loads and reads of files with thousands of fragments).
struct FragmentGroup {
  Vorlap::StrongPtr<KqFile> file;
  hid_t id = -1;
  ~FragmentGroup() {
    std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
    if (id >= 0) H5Gclose(id);
  }
};

// A link of a fragments group: its name and, for a hard link, the object's address, by
// which the dataset opens without a name look-up.
struct LinkedObject {
  std::string name;
  haddr_t address = HADDR_UNDEF;
};

herr_t collectLink(hid_t, const char* name, const H5L_info_t* info, void* into) {
  auto& links = *static_cast<std::vector<LinkedObject>*>(into);
  links.push_back({name, info->type == H5L_TYPE_HARD ? info->u.address : HADDR_UNDEF});
  return 0;
}

// Every link of the group in creation order (by name where no such order is kept).
bool listLinks(hid_t group, std::vector<LinkedObject>& links) {
  hsize_t at = 0;
  if (H5Literate(group, H5_INDEX_CRT_ORDER, H5_ITER_INC, &at, collectLink, &links) >= 0)
    return true;
  links.clear();
  at = 0;
  return H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, &at, collectLink, &links) >= 0;
}

Hid openDataset(const FragmentGroup& group, const LinkedObject& link) {
  if (link.address == HADDR_UNDEF)
    return Hid(H5Dopen2(group.id, link.name.c_str(), H5P_DEFAULT), H5Dclose);
  Hid object(H5Oopen_by_addr(group.file->id, link.address), H5Oclose);
  return object.ok() && H5Iget_type(object.get()) == H5I_DATASET ? std::move(object) : Hid();
}

// What a fragment's dataset holds, as far as the structure tells.
struct DatasetShape {
  ElementType type = ElementType::Double;
  std::vector<std::size_t> extents{0};
  bool convert = false;  // stored as another number type
};

std::string describeDataset(hid_t set, DatasetShape& shape);

class FileCreator final : public CreativeArrayBase {
 public:
  // A fragment whose dataset was checked when the file was loaded.
  FileCreator(Vorlap::StrongPtr<FragmentGroup> group, LinkedObject link, std::string path,
              DatasetShape shape)
      : group_(std::move(group)),
        link_(std::move(link)),
        path_(std::move(path)),
        shape_(std::move(shape)),
        described_(true) {}
  // A fragment whose dataset is opened and checked when first asked about.
  FileCreator(Vorlap::StrongPtr<FragmentGroup> group, LinkedObject link, std::string path)
      : group_(std::move(group)), link_(std::move(link)), path_(std::move(path)) {}
  ElementType elementType() const override { return shape().type; }
  std::vector<std::size_t> extents() const override { return shape().extents; }
  Vorlap::StrongPtr<CreativeArrayBase> unheldCopy() const override;

 protected:
  Vorlap::StrongPtr<MemBase> produce() override;

 private:
  using HeldLock = std::unique_lock<std::recursive_mutex>;
  // Reads with `lock` held, except while the stored chunks are unpacked.
  template <class T>
  Vorlap::StrongPtr<MemBase> read(hid_t set, HeldLock& lock);
  const DatasetShape& shape() const;

  Vorlap::StrongPtr<FragmentGroup> group_;
  LinkedObject link_;
  std::string path_;  // for messages
  mutable DatasetShape shape_;
  mutable bool described_ = false, unreadable_ = false;
  mutable std::string problem_;  // why the dataset cannot be read, when known
};

const DatasetShape& FileCreator::shape() const {
  if (described_) return shape_;
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  described_ = true;
  Hid set = openDataset(*group_, link_);
  problem_ = set.ok() ? describeDataset(set.get(), shape_) : "missing dataset";
  unreadable_ = !problem_.empty();
  if (unreadable_) {
    shape_ = DatasetShape{};
    Vorlap::Console() << group_->file->name << ": cannot read " << path_ << ": " << problem_;
  }
  return shape_;
}

Vorlap::StrongPtr<CreativeArrayBase> FileCreator::unheldCopy() const {
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());  // shape() may still be found
  if (!described_) return Vorlap::makeStrong<FileCreator>(group_, link_, path_);
  auto copy = Vorlap::makeStrong<FileCreator>(group_, link_, path_, shape_);
  copy->unreadable_ = unreadable_;
  copy->problem_ = problem_;
  return copy;
}

template <class T>
Vorlap::StrongPtr<MemBase> FileCreator::read(hid_t set, HeldLock& lock) {
  Vorlap::StrongPtr<MemBase> result;
  auto fill = [&](auto array) {
    const ElementType type = shape_.type;
    if (shape_.convert) {
      const std::string problem = kq::readConverted(set, type, array->contiguousData(),
                                                    array->size() * componentCount(type));
      if (!problem.empty()) {
        problem_ = problem + " " + elementTypeName(type);
        return;
      }
    } else if (array->size() &&
               !kq::readChunksDirectly(set, kq::nativeTypeOf(type), array->contiguousData(),
                                       array->size() * elementBytes(type), &lock) &&
               H5Dread(set, kq::nativeTypeOf(type), H5S_ALL, H5S_ALL, H5P_DEFAULT,
                       array->contiguousData()) < 0) {
      return;
    }
    result = array;
  };
  const auto& extents = shape_.extents;
  // Every element is read over at once (or the array dropped): nothing to initialise.
  if (extents.size() == 2)
    fill(Vorlap::makeStrong<MemArray<2, T>>(
        typename MemArray<2, T>::Extents{extents[0], extents[1]}, Uninitialised{}));
  else
    fill(Vorlap::makeStrong<MemArray<1, T>>(typename MemArray<1, T>::Extents{extents[0]},
                                            Uninitialised{}));
  return result;
}

Vorlap::StrongPtr<MemBase> FileCreator::produce() {
  HeldLock lock(kq::hdf5Mutex());
  if (shape(); unreadable_) return {};  // said when it was found
  Hid set = openDataset(*group_, link_);
  Vorlap::StrongPtr<MemBase> data;
  try {
    if (set.ok()) {
      using namespace Gemwold::PhysicalSpace;
      switch (shape_.type) {
        case ElementType::Int8:
          data = read<std::int8_t>(set.get(), lock);
          break;
        case ElementType::UInt8:
          data = read<std::uint8_t>(set.get(), lock);
          break;
        case ElementType::Int16:
          data = read<std::int16_t>(set.get(), lock);
          break;
        case ElementType::UInt16:
          data = read<std::uint16_t>(set.get(), lock);
          break;
        case ElementType::Int32:
          data = read<std::int32_t>(set.get(), lock);
          break;
        case ElementType::UInt32:
          data = read<std::uint32_t>(set.get(), lock);
          break;
        case ElementType::Int64:
          data = read<std::int64_t>(set.get(), lock);
          break;
        case ElementType::UInt64:
          data = read<std::uint64_t>(set.get(), lock);
          break;
        case ElementType::Float:
          data = read<float>(set.get(), lock);
          break;
        case ElementType::Double:
          data = read<double>(set.get(), lock);
          break;
        case ElementType::Point:
          data = read<point>(set.get(), lock);
          break;
        case ElementType::Vector:
          data = read<vector>(set.get(), lock);
          break;
      }
    }
  } catch (const std::bad_alloc&) {
    data.reset();
  }
  if (!data)
    Vorlap::Console() << group_->file->name << ": cannot read " << path_
                      << (problem_.empty() ? " (damaged data)" : ": " + problem_);
  return data;
}

// Walks the file's groups, building grids into a bundle of its own.
class Reader {
 public:
  Reader(Vorlap::StrongPtr<KqFile> file, bool deferFragments)
      : file_(std::move(file)), deferFragments_(deferFragments) {}

  bool read(Bundle& into) {
    std::string error;
    if (!checkFormat()) return false;
    return eachLink("/slices", [&](const std::string& path, const std::string&) {
      return readSlice(path, into);
    });
  }
  const std::string& error() const { return error_; }
  const std::string& where() const { return where_; }

 private:
  bool fail(const std::string& where, const std::string& what) {
    where_ = where, error_ = what;
    return false;
  }

  // Calls `visit` with the path and unescaped name of every link of `path`, in creation order.
  bool eachLink(const std::string& path,
                const std::function<bool(const std::string&, const std::string&)>& visit) {
    Hid g(H5Gopen2(file_->id, path.c_str(), H5P_DEFAULT), H5Gclose);
    if (!g.ok()) return fail(path, "missing group");
    return eachLinkOf(g.get(), path, [&](const std::string& link, const std::string& name) {
      return visit(path + "/" + link, name);
    });
  }

  // The same for an open group: `visit` gets the link and its unescaped name.
  bool eachLinkOf(hid_t g, const std::string& path,
                  const std::function<bool(const std::string&, const std::string&)>& visit) {
    H5G_info_t info;
    if (H5Gget_info(g, &info) < 0) return fail(path, "unreadable group");
    for (hsize_t i = 0; i < info.nlinks; ++i) {
      char name[1024];
      ssize_t len = H5Lget_name_by_idx(g, ".", H5_INDEX_CRT_ORDER, H5_ITER_INC, i, name,
                                       sizeof name, H5P_DEFAULT);
      if (len < 0)
        len = H5Lget_name_by_idx(g, ".", H5_INDEX_NAME, H5_ITER_INC, i, name, sizeof name,
                                 H5P_DEFAULT);
      if (len < 0 || len >= ssize_t(sizeof name)) return fail(path, "unreadable link name");
      if (!visit(name, kq::unescapeName(name))) return false;
    }
    return true;
  }

  bool checkFormat() {
    Hid root(H5Gopen2(file_->id, "/", H5P_DEFAULT), H5Gclose);
    Vorlap::Attributes a;
    std::string error;
    if (!kq::readAttributes(root.get(), a, error)) return fail("/", error);
    std::string format;
    long long version = 0;
    if (kq::singleText(a, "kq_format", format) != kq::Single::Ok || format != kq::kFormatName)
      return fail("/", "not a .kq file (no format marker: attribute kq_format = \"kq\")");
    if (kq::singleInteger(a, "kq_version", version) != kq::Single::Ok ||
        (version != kq::kFormatVersion && version != kq::kPerFragmentVersion))
      return fail("/", "unsupported .kq layout version (attribute kq_version must be 1 or 2)");
    perField_ = version == kq::kFormatVersion;
    return true;
  }

  // An absent attributes group reads as an empty one: writers need not create it.
  bool readAttributeGroup(const std::string& path, Vorlap::Attributes& into) {
    const std::string groupPath = path + "/attributes";
    if (H5Lexists(file_->id, groupPath.c_str(), H5P_DEFAULT) <= 0) return true;
    Hid g(H5Gopen2(file_->id, groupPath.c_str(), H5P_DEFAULT), H5Gclose);
    if (!g.ok()) return fail(groupPath, "is not a group");
    std::string error;
    return kq::readAttributes(g.get(), into, error) || fail(groupPath, error);
  }

  bool readSlice(const std::string& path, Bundle& into) {
    Hid s(H5Gopen2(file_->id, path.c_str(), H5P_DEFAULT), H5Gclose);
    Vorlap::Attributes a;
    std::string error;
    if (!s.ok() || !kq::readAttributes(s.get(), a, error)) return fail(path, "unreadable slice");
    double time = 0.0;
    if (kq::singleNumber(a, "time", time) != kq::Single::Ok)
      return fail(path, "slice without a time (attribute time, one number)");
    auto slice = into[time];
    return eachLink(path + "/grids", [&](const std::string& p, const std::string& name) {
      return readGrid(p, *slice->makeGrid(name));
    });
  }

  bool readGrid(const std::string& path, Grid& grid) {
    Vorlap::Attributes a;
    if (!readAttributeGroup(path, a)) return false;
    grid.replaceAttributes(a);
    return eachLink(path + "/charts", [&](const std::string& p, const std::string& name) {
      Hid c(H5Gopen2(file_->id, p.c_str(), H5P_DEFAULT), H5Gclose);
      Vorlap::Attributes ca;
      std::string error;
      if (!c.ok() || !kq::readAttributes(c.get(), ca, error)) return fail(p, "unreadable chart");
      long long dims = 3;
      kq::singleInteger(ca, "dimensions", dims);
      auto rep = grid.makeCartesianRepresentation(static_cast<int>(dims), name, 0);
      return eachLink(p + "/fields", [&](const std::string& fp, const std::string& fname) {
        return readField(fp, fname, *rep);
      });
    });
  }

  bool readField(const std::string& path, const std::string& name, Representation& rep) {
    Vorlap::StrongPtr<Field> field = rep.makeField(rep.makeFieldID(name), {}, {});
    if (!readAttributeGroup(path, field->attributes())) return false;
    if (perField_) {
      std::string where;
      const std::string problem =
          kq::readFieldValues(file_, path, *field, where, lastFragments_.get());
      if (field->getNumberOfFragments() > 0) lastFragments_ = field->getFragmentIDCollection();
      return problem.empty() || fail(where, problem);
    }
    const std::string groupPath = path + "/fragments";
    auto group = Vorlap::makeStrong<FragmentGroup>();
    group->file = file_;
    group->id = H5Gopen2(file_->id, groupPath.c_str(), H5P_DEFAULT);
    if (group->id < 0) return fail(groupPath, "missing group");
    std::vector<LinkedObject> links;
    if (!listLinks(group->id, links)) return fail(groupPath, "unreadable group");
    for (const auto& l : links)
      if (!readFragment(group, l, groupPath + "/" + l.name, kq::unescapeName(l.name), *field))
        return false;
    return true;
  }

  bool readFragment(const Vorlap::StrongPtr<FragmentGroup>& group, const LinkedObject& link,
                    const std::string& path, const std::string& name, Field& field);

  Vorlap::StrongPtr<KqFile> file_;
  bool deferFragments_;
  bool perField_ = false;  // one dataset per field (else one per fragment)
  // The fragments of the last field read: the next field's share its identifiers.
  Vorlap::StrongPtr<FragmentIDCollection> lastFragments_;
  std::string error_, where_;
};

// The extents (first extent varying fastest) of a dataset of `rank` holding `type`.
std::string readExtents(hid_t set, ElementType type, int rank, std::vector<std::size_t>& out) {
  Hid space(H5Dget_space(set), H5Sclose);
  const bool triple = componentCount(type) == 3;
  const int expectedDims = rank + (triple ? 1 : 0);
  hsize_t dims[3] = {0, 0, 0};
  if (H5Sget_simple_extent_ndims(space.get()) != expectedDims)
    return "shape does not match its rank";
  H5Sget_simple_extent_dims(space.get(), dims, nullptr);
  if (triple && dims[expectedDims - 1] != 3) return "points and vectors need 3 components";
  std::uint64_t total = 1;
  for (int d = 0; d < rank; ++d) {
    if (dims[d] > kMaxFragmentElements) return "declares an absurd number of elements";
    total *= dims[d];
  }
  if (total > kMaxFragmentElements) return "declares an absurd number of elements";
  if (std::string problem = kq::checkStoredSize(total, type, H5Dget_storage_size(set));
      !problem.empty())
    return problem;
  if (rank == 2)
    out = {std::size_t(dims[1]), std::size_t(dims[0])};
  else
    out = {std::size_t(dims[0])};
  return "";
}

std::string describeDataset(hid_t set, DatasetShape& shape) {
  int rank = 0;
  if (std::string problem = kq::readTypeAndRank(set, shape.type, rank, shape.convert);
      !problem.empty())
    return problem;
  return readExtents(set, shape.type, rank, shape.extents);
}

bool Reader::readFragment(const Vorlap::StrongPtr<FragmentGroup>& group, const LinkedObject& link,
                          const std::string& path, const std::string& name, Field& field) {
  auto id = field.makeFragmentID(name);
  if (deferFragments_) {
    field.setCreator(id, Vorlap::makeStrong<FileCreator>(group, link, path));
    return true;
  }
  Hid set = openDataset(*group, link);
  if (!set.ok()) return fail(path, "missing dataset");
  DatasetShape shape;
  if (const std::string problem = describeDataset(set.get(), shape); !problem.empty())
    return fail(path, problem);
  field.setCreator(id, Vorlap::makeStrong<FileCreator>(group, link, path, std::move(shape)));
  return true;
}

bool loadFile(const std::string& fileName, bool deferFragments, Bundle& into) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(fileName, ec)) {
    Vorlap::Console() << fileName << ": cannot load: no such file";
    return false;
  }
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  kq::silenceHdf5Errors();
  if (H5Fis_hdf5(fileName.c_str()) <= 0) {
    Vorlap::Console() << fileName << ": cannot load: not an HDF5 file (or a damaged one)";
    return false;
  }
  if (const std::string heap = kq::damagedGlobalHeap(fileName); !heap.empty()) {
    Vorlap::Console() << fileName << ": cannot load: " << heap;
    return false;
  }
  auto file = Vorlap::makeStrong<KqFile>();
  file->name = fileName;
  file->id = H5Fopen(fileName.c_str(), H5F_ACC_RDONLY, kq::readerAccess().get());
  if (file->id < 0) {
    Vorlap::Console() << fileName << ": cannot load: the file cannot be opened (damaged?)";
    return false;
  }
  Bundle staged;
  Reader reader(file, deferFragments);
  if (!reader.read(staged)) {
    Vorlap::Console() << fileName << ": cannot load " << reader.where() << ": " << reader.error();
    return false;
  }
  for (const auto& [time, slice] : staged.slices())
    for (const auto& grid : slice->grids()) into[time]->adoptGrid(grid);
  return true;
}

}  // namespace

void Bundle::load(bool& success, const LoaderParameters& parameters, BundlePtr& bundle) {
  success = !parameters.fileNames().empty();
  for (const auto& name : parameters.fileNames())
    if (!loadFile(name, parameters.fragmentsDeferred(), *bundle.create())) success = false;
}

}  // namespace Tessal
