// Saving a bundle to a .kq file: all groups and attributes first, then the fragments
// position by position (fragment i of every field before fragment i + 1), each produced,
// written and released in turn. A streaming save writes held fragments while the bundle is
// still being filled and the structure at the end. Files are written under a temporary name
// and renamed into place when complete. In the layout with one dataset per field the
// fragments are appended to their field's dataset in fragment order (see KqFieldWriter); in
// the older one each is a dataset of its own.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <type_traits>

#include "kq/ChunkCodec.hpp"
#include "kq/EncodedDataset.hpp"
#include "kq/GlobalHeapCheck.hpp"
#include "kq/KqAttributes.hpp"
#include "kq/KqFieldWriter.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/EncodedArray.hpp"
#include "tessal/ShapeOnlyCreator.hpp"

namespace Tessal {

namespace {

using kq::Hid;

constexpr std::chrono::milliseconds kCollectInterval{100};

// A field of the one-dataset layout: its dataset being filled and its next fragment.
struct FieldState {
  explicit FieldState(const std::string& name) : values(name) {}
  kq::FieldValuesWriter values;
  std::size_t next = 0;
};

struct FieldJob {
  Vorlap::StrongPtr<Field> field;
  std::string path;  // group of the field's fragments (one dataset per fragment), else the field's
  // Its state in the one-dataset layout, once found: a pass per fragment visits every field.
  mutable FieldState* state = nullptr;
};

class Writer {
 public:
  Writer(hid_t file, KqLayout layout)
      : file_(file), perField_(layout == KqLayout::DatasetPerField) {}
  bool perField() const { return perField_; }

  // With `groupsOnly` the walk makes the groups of every field's fragments and no attributes.
  bool structure(const Bundle& bundle, bool groupsOnly = false) {
    groupsOnly_ = groupsOnly;
    jobs_.clear();
    Hid root(H5Gopen2(file_, "/", H5P_DEFAULT), H5Gclose);
    if (!writeText(root.get(), "kq_format", kq::kFormatName) ||
        !writeInt(root.get(), "kq_version",
                  perField_ ? kq::kFormatVersion : kq::kPerFragmentVersion))
      return fail("cannot write the format marker");
    Hid slices = group(file_, "slices");
    int index = 0;
    for (const auto& [time, slice] : bundle.slices())
      if (!writeSlice(slices.get(), std::to_string(index++), time, *slice)) return false;
    return true;
  }

  bool fragments() {
    if (perField_) return fieldFragments();
    for (std::size_t position = 0;; ++position) {
      bool any = false;
      for (const auto& job : jobs_) {
        auto ids = job.field->getFragmentIDCollection();
        if (position >= ids->size()) continue;
        any = true;
        if (!writeFragment(job, ids->at(position))) return false;
      }
      if (!any) return true;
    }
  }

  // Writes every fragment whose data is held and that is not written yet, then lets it go.
  // Only fragments given data since the last pass are looked at: a pass after each of
  // thousands of fragments must not walk them all.
  bool heldFragments() {
    for (const auto& job : jobs_) {
      auto ids = job.field->getFragmentIDCollection();
      for (std::size_t i : changes_.newlyChanged(*job.field)) {
        auto creator = job.field->getCreator(ids->at(i));
        const bool inHand =
            creator && (creator->heldData() || dynamic_cast<EncodedCreator*>(creator.get()));
        if (!inHand || written_.count(datasetPath(job, ids->at(i)))) continue;
        if (!writeFragment(job, ids->at(i))) return false;
        job.field->setCreator(ids->at(i), Vorlap::makeStrong<ShapeOnlyCreator>(
                                              creator->elementType(), creator->extents()));
      }
    }
    return true;
  }

  const std::string& error() const { return error_; }

  // Whether the bundle's fields differ from those of the last call.
  bool fieldsChanged(const Bundle& bundle) {
    std::vector<const Field*> fields;
    for (const auto& [time, slice] : bundle.slices())
      for (const auto& grid : slice->grids())
        for (const auto& rep : grid->representations())
          for (const auto& entry : rep->fields()) fields.push_back(entry.field.get());
    if (fields == knownFields_) return false;
    knownFields_ = std::move(fields);
    return true;
  }

 private:
  bool fail(const std::string& what) {
    if (error_.empty()) error_ = what;
    return false;
  }

  // Opens the group when an earlier streaming pass made it. A fragments group, which may
  // hold thousands of links and is listed once by a load, keeps no creation order index.
  Hid group(hid_t parent, const std::string& name, bool indexed = true) {
    if (H5Lexists(parent, name.c_str(), H5P_DEFAULT) > 0)
      return Hid(H5Gopen2(parent, name.c_str(), H5P_DEFAULT), H5Gclose);
    Hid props = kq::orderedGroupProperties(indexed);
    return Hid(H5Gcreate2(parent, name.c_str(), H5P_DEFAULT, props.get(), H5P_DEFAULT), H5Gclose);
  }

  bool writeText(hid_t owner, const char* name, const std::string& value) {
    if (groupsOnly_) return true;
    Vorlap::Attributes a;
    a.setAttribute(name, Vorlap::makeChunk<std::string>({value}));
    std::string ignored;
    return kq::writeAttributes(owner, a, ignored);
  }
  bool writeInt(hid_t owner, const char* name, int value) {
    if (groupsOnly_) return true;
    Vorlap::Attributes a;
    a.setAttribute(name, Vorlap::makeChunk<int>({value}));
    std::string ignored;
    return kq::writeAttributes(owner, a, ignored);
  }
  bool writeDouble(hid_t owner, const char* name, double value) {
    if (groupsOnly_) return true;
    Vorlap::Attributes a;
    a.setAttribute(name, Vorlap::makeChunk<double>({value}));
    std::string ignored;
    return kq::writeAttributes(owner, a, ignored);
  }

  bool writeAttributeGroup(hid_t parent, const Vorlap::Attributes& attributes,
                           const std::string& where) {
    if (groupsOnly_) return true;
    Hid g = group(parent, "attributes");
    std::string error;
    if (!g.ok() || !kq::writeAttributes(g.get(), attributes, error))
      return fail(where + ": " + error);
    return true;
  }

  bool writeSlice(hid_t slices, const std::string& name, double time, const Slice& slice) {
    Hid s = group(slices, name);
    if (!s.ok() || !writeDouble(s.get(), "time", time)) return fail("cannot create slice " + name);
    Hid grids = group(s.get(), "grids");
    for (const auto& grid : slice.grids())
      if (!writeGrid(grids.get(), *grid, "/slices/" + name + "/grids/")) return false;
    return true;
  }

  bool writeGrid(hid_t grids, const Grid& grid, const std::string& prefix) {
    const std::string link = kq::escapeName(grid.getName());
    Hid g = group(grids, link);
    if (!g.ok()) return fail("cannot create grid \"" + grid.getName() + "\"");
    if (!writeAttributeGroup(g.get(), grid.attributes(), "grid \"" + grid.getName() + "\""))
      return false;
    Hid charts = group(g.get(), "charts");
    for (const auto& rep : grid.representations())
      if (!writeChart(charts.get(), *rep, prefix + link + "/charts/")) return false;
    return true;
  }

  bool writeChart(hid_t charts, const Representation& rep, const std::string& prefix) {
    const std::string link = kq::escapeName(rep.getName());
    Hid c = group(charts, link);
    if (!c.ok() || !writeInt(c.get(), "dimensions", rep.getChart()->getDimensions()))
      return fail("cannot create chart \"" + rep.getName() + "\"");
    Hid fields = group(c.get(), "fields");
    for (const auto& entry : rep.fields()) {
      if (!entry.field) continue;
      if (!writeField(fields.get(), entry.field, prefix + link + "/fields/")) return false;
    }
    return true;
  }

  bool writeField(hid_t fields, const Vorlap::StrongPtr<Field>& field, const std::string& prefix) {
    const std::string link = kq::escapeName(field->getName());
    Hid f = group(fields, link);
    if (!f.ok()) return fail("cannot create field \"" + field->getName() + "\"");
    if (!writeAttributeGroup(f.get(), field->attributes(), "field \"" + field->getName() + "\""))
      return false;
    if (perField_) {
      jobs_.push_back({field, prefix + link});
      return true;
    }
    Hid frags = group(f.get(), "fragments", false);
    jobs_.push_back({field, prefix + link + "/fragments"});
    return frags.ok() || fail("cannot create the fragments of \"" + field->getName() + "\"");
  }

  bool writeFragment(const FieldJob& job, const Vorlap::StrongPtr<FragmentID>& id);
  const unsigned char* contiguousBytes(const MemBase& data);

 public:
  // One dataset per field, streaming: appends every field's fragments that are in hand, in
  // fragment order, and compresses the chunks they fill. No HDF5 call, so no HDF5 lock.
  bool stageHeld() {
    for (const auto& job : jobs_) {
      FieldState& state = stateOf(job);
      auto ids = job.field->getFragmentIDCollection();
      for (; state.next < ids->size(); ++state.next) {
        auto id = ids->at(state.next);
        auto creator = job.field->getCreator(id);
        if (!creator || !(creator->heldData() || dynamic_cast<EncodedCreator*>(creator.get())))
          break;  // a later pass or the finish takes it, and the fragments after it
        if (!appendFragment(job, state, id)) return false;
        job.field->setCreator(
            id, Vorlap::makeStrong<ShapeOnlyCreator>(creator->elementType(), creator->extents()));
      }
    }
    packStaged();
    return true;
  }
  // Packs the chunks filled since the last store, on the threads given.
  void packStaged() {
    std::vector<kq::FieldValuesWriter*> fields;
    for (const auto& job : jobs_) fields.push_back(&stateOf(job).values);
    kq::packChunks(fields, packThreads_);
  }
  void setPackThreads(unsigned threads) { packThreads_ = std::max(1u, threads); }
  // Stores the chunks staged since the last call.
  bool storeStaged() {
    for (const auto& job : jobs_) {
      kq::FieldValuesWriter& values = stateOf(job).values;
      // Most passes fill no chunk of most fields: no group to look up by its path then.
      if (values.pendingChunks() == 0) continue;
      const hid_t g = fragmentGroup(job.path);
      if (g < 0 || !values.store(g))
        return fail("cannot write field \"" + job.field->getName() + "\"");
    }
    return true;
  }

 private:
  FieldState& stateOf(const FieldJob& job) {
    if (job.state) return *job.state;
    auto& state = fieldStates_[job.field.get()];
    if (!state) state = std::make_unique<FieldState>(job.field->getName());
    job.state = state.get();
    return *state;
  }
  bool appendFragment(const FieldJob& job, FieldState& state,
                      const Vorlap::StrongPtr<FragmentID>& id);
  // The first position some field has not staged: a streaming save has staged them all, and
  // a walk over thousands of positions of every field would find nothing to do.
  std::size_t firstUnstaged() {
    std::size_t first = ~std::size_t(0);
    for (const auto& job : jobs_) {
      const std::size_t next = stateOf(job).next;
      if (next < job.field->getFragmentIDCollection()->size()) first = std::min(first, next);
    }
    return first;
  }
  // The rest of every field's fragments, position by position, then the tables.
  bool fieldFragments() {
    for (std::size_t position = firstUnstaged();; ++position) {
      bool any = false;
      for (const auto& job : jobs_) {
        FieldState& state = stateOf(job);
        auto ids = job.field->getFragmentIDCollection();
        if (position >= ids->size()) continue;
        any = true;
        if (position < state.next) continue;
        if (!appendFragment(job, state, ids->at(position))) return false;
        state.next = position + 1;
      }
      if (!any) break;
      packStaged();
      if (!storeStaged()) return false;
    }
    // The last chunks of all fields are packed together, on the threads given: at the end of
    // a run on several threads this is work the others no longer share.
    for (const auto& job : jobs_) stateOf(job).values.sealLast();
    packStaged();
    for (const auto& job : jobs_) {
      const hid_t g = fragmentGroup(job.path);
      if (g < 0 || !stateOf(job).values.finish(g))
        return fail("cannot write field \"" + job.field->getName() + "\"");
    }
    return true;
  }

  // The field's "fragments" group, opened once: a walk from the root per dataset written
  // cost more than the dataset itself in files of thousands of fragments.
  hid_t fragmentGroup(const std::string& path) {
    Hid& g = fragmentGroups_[path];
    if (!g.ok()) g = Hid(H5Gopen2(file_, path.c_str(), H5P_DEFAULT), H5Gclose);
    return g.get();
  }

  static std::string datasetPath(const FieldJob& job, const Vorlap::StrongPtr<FragmentID>& id) {
    return job.path + "/" + kq::escapeName(id->getName());
  }

  hid_t file_;
  bool perField_;
  unsigned packThreads_ = 1;  // threads that compress a pass's chunks
  std::map<const Field*, std::unique_ptr<FieldState>> fieldStates_;
  std::vector<unsigned char> scratch_;  // a fragment's stored bytes
  std::vector<FieldJob> jobs_;
  std::set<std::string> written_;  // datasets a streaming pass wrote
  FragmentChangeCursor changes_;   // how far the streaming passes have looked
  std::map<std::string, Hid> fragmentGroups_;
  bool groupsOnly_ = false;
  std::vector<const Field*> knownFields_;
  std::string error_;
};

bool Writer::writeFragment(const FieldJob& job, const Vorlap::StrongPtr<FragmentID>& id) {
  if (!written_.insert(datasetPath(job, id)).second) return true;
  const std::string where =
      "fragment \"" + id->getName() + "\" of field \"" + job.field->getName() + "\"";
  auto creator = job.field->getCreator(id);
  if (!creator) return fail(where + " has no data");
  EncodedArray produced;
  const EncodedArray* encoded = &produced;
  if (const auto* given = dynamic_cast<const EncodedCreator*>(creator.get())) {
    encoded = &given->encoded();
    if (!encoded->consistent()) return fail(where + " has chunks that do not fit its shape");
  } else {
    Vorlap::StrongPtr<MemBase> data = creator->heldData();
    if (!data) {
      // Produced only for writing: not kept, so saving holds one fragment at a time.
      data = creator->create();
      creator->enableCaching(false);
    }
    if (!data) return fail(where + " could not be produced");
    produced = encodeArray(*data);
  }
  const hid_t parent = fragmentGroup(job.path);
  if (parent < 0 || !kq::writeEncodedDataset(parent, kq::escapeName(id->getName()), *encoded))
    return fail("cannot write " + where);
  return true;
}

// The array's bytes in place when it is one plain block (no copy, and no scratch of the
// largest field held between saves), else copied into the scratch.
const unsigned char* Writer::contiguousBytes(const MemBase& data) {
  if (const void* bytes = data.contiguousBytes()) return static_cast<const unsigned char*>(bytes);
  // Grown only: fields of different element sizes take turns, and a resize up again would
  // zero what the copy overwrites at once.
  const std::size_t bytes = data.nElements() * elementBytes(data.elementType());
  if (scratch_.size() < bytes) scratch_.resize(bytes);
  if (bytes > 0) data.copyOut(scratch_.data());
  return scratch_.data();
}

bool Writer::appendFragment(const FieldJob& job, FieldState& state,
                            const Vorlap::StrongPtr<FragmentID>& id) {
  // Made only for a message: an allocation per fragment and field otherwise.
  const auto where = [&] {
    return "fragment \"" + id->getName() + "\" of field \"" + job.field->getName() + "\"";
  };
  auto creator = job.field->getCreator(id);
  if (!creator) return fail(where() + " has no data");
  kq::StoredRows rows;
  Vorlap::StrongPtr<MemBase> data;  // held until its rows are appended: they may be read in place
  if (const auto* given = dynamic_cast<const EncodedCreator*>(creator.get())) {
    const EncodedArray& e = given->encoded();
    if (!e.consistent()) return fail(where() + " has chunks that do not fit its shape");
    rows = {e.type, e.rank, e.dims, kq::storedBytes(e, scratch_)};
    if (!rows.bytes) return fail(where() + " has chunks that do not unpack");
  } else {
    data = creator->heldData();
    if (!data) {
      data = creator->create();  // produced for writing only, as in the other layout
      creator->enableCaching(false);
    }
    if (!data) return fail(where() + " could not be produced");
    rows = {data->elementType(), data->rank(), kq::storedShape(*data), contiguousBytes(*data)};
  }
  if (const std::string problem = state.values.append(id->getName(), rows); !problem.empty())
    return fail(problem);
  return true;
}

std::string temporaryName(const std::string& fileName) {
  static std::atomic<unsigned> counter{0};
  return fileName + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

}  // namespace

std::string Bundle::save(const BundlePtr& bundle, const std::string& fileName, KqLayout layout) {
  if (bundle.isEmpty()) return "cannot save " + fileName + ": no bundle";
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  kq::silenceHdf5Errors();
  const std::string temporary = temporaryName(fileName);
  std::string error;
  {
    Hid file(H5Fcreate(temporary.c_str(), H5F_ACC_TRUNC, kq::writerCreation().get(),
                       kq::writerAccess().get()),
             H5Fclose);
    if (!file.ok()) return "cannot create " + fileName + ": the folder is missing or not writable";
    Writer writer(file.get(), layout);
    if (!writer.structure(*bundle.get()) || !writer.fragments()) error = writer.error();
    if (error.empty() && H5Fflush(file.get(), H5F_SCOPE_GLOBAL) < 0) error = "cannot flush";
  }
  std::error_code ec;
  if (error.empty()) std::filesystem::rename(temporary, fileName, ec);
  if (error.empty() && ec) error = "cannot rename into place: " + ec.message();
  if (error.empty()) kq::markGlobalHeapSound(fileName);
  if (error.empty()) return "";
  std::filesystem::remove(temporary, ec);
  return "cannot save " + fileName + ": " + error;
}

struct StreamingSave::State {
  BundlePtr bundle;
  std::string fileName, temporary, error;
  kq::Hid file;
  std::unique_ptr<Writer> writer;
  bool finished = false;
  std::chrono::steady_clock::time_point lastCollect{};

  std::string failure() const { return "cannot save " + fileName + ": " + error; }
};

StreamingSave::StreamingSave(BundlePtr bundle, std::string fileName, KqLayout layout)
    : state_(new State) {
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  kq::silenceHdf5Errors();
  State& s = *state_;
  s.bundle = std::move(bundle);
  s.fileName = std::move(fileName);
  s.temporary = temporaryName(s.fileName);
  s.file = Hid(H5Fcreate(s.temporary.c_str(), H5F_ACC_TRUNC, kq::writerCreation().get(),
                         kq::writerAccess().get()),
               H5Fclose);
  if (!s.file.ok())
    s.error = "cannot create the file: the folder is missing or not writable";
  else
    s.writer = std::make_unique<Writer>(s.file.get(), layout);
}

StreamingSave::~StreamingSave() {
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  state_->writer.reset();
  state_->file = Hid();
  std::error_code ec;
  if (!state_->finished) std::filesystem::remove(state_->temporary, ec);
}

void StreamingSave::setPackThreads(unsigned threads) {
  if (state_->writer) state_->writer->setPackThreads(threads);
}

std::string StreamingSave::write() {
  std::unique_lock<std::recursive_mutex> lock(kq::hdf5Mutex());
  State& s = *state_;
  if (s.error.empty() && s.bundle.isEmpty()) s.error = "no bundle";
  if (!s.error.empty()) return s.failure();
  // The groups are made again only when fields were added since the last pass: a walk
  // through HDF5 per pass cost more than a small fragment's datasets.
  const bool newFields = s.writer->fieldsChanged(*s.bundle.get());
  if (newFields && !s.writer->structure(*s.bundle.get(), true)) s.error = s.writer->error();
  if (s.error.empty() && !s.writer->perField() && !s.writer->heldFragments())
    s.error = s.writer->error();
  if (s.error.empty() && s.writer->perField()) {
    // Chunks are filled and compressed while other threads may read their inputs.
    lock.unlock();
    const bool staged = s.writer->stageHeld();
    lock.lock();
    if (!staged || !s.writer->storeStaged()) s.error = s.writer->error();
  }
  // HDF5's free lists would otherwise grow with every fragment written; collecting them walks
  // them all, so not after every one of thousands of small fragments.
  const auto now = std::chrono::steady_clock::now();
  if (now - s.lastCollect >= kCollectInterval) {
    H5garbage_collect();
    s.lastCollect = now;
  }
  return s.error.empty() ? "" : s.failure();
}

std::string StreamingSave::finish() {
  std::lock_guard<std::recursive_mutex> lock(kq::hdf5Mutex());
  State& s = *state_;
  if (!write().empty()) return s.failure();
  if (!s.writer->structure(*s.bundle.get()) || !s.writer->fragments()) s.error = s.writer->error();
  if (s.error.empty() && H5Fflush(s.file.get(), H5F_SCOPE_GLOBAL) < 0) s.error = "cannot flush";
  s.writer.reset();
  if (H5Fclose(s.file.release()) < 0 && s.error.empty()) s.error = "cannot close";
  std::error_code ec;
  if (s.error.empty()) std::filesystem::rename(s.temporary, s.fileName, ec);
  if (s.error.empty() && ec) s.error = "cannot rename into place: " + ec.message();
  if (s.error.empty()) kq::markGlobalHeapSound(s.fileName);
  s.finished = s.error.empty();
  return s.error.empty() ? "" : s.failure();
}

}  // namespace Tessal
