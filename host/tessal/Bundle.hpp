// Bundles: the top of the data model. A bundle holds slices by time; a slice holds named
// grids. Bundles are saved to and loaded from .kq files (see docs/kq-format.md).
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tessal/Grid.hpp"

namespace Tessal {

class Slice {
 public:
  // The grid of that name, or an empty handle.
  Vorlap::StrongPtr<Grid> operator()(const std::string& name) const;
  // The grid of that name, made when missing.
  Vorlap::StrongPtr<Grid> makeGrid(const std::string& name);
  // Takes `grid` in, replacing a grid of the same name.
  void adoptGrid(const Vorlap::StrongPtr<Grid>& grid);
  const std::vector<Vorlap::StrongPtr<Grid>>& grids() const { return grids_; }

 private:
  std::vector<Vorlap::StrongPtr<Grid>> grids_;  // creation order
};

class BundlePtr;

// How a .kq file stores the fragments of a field: all in one dataset, one after the other,
// with a table of their names and first rows (kq_version 2); or one dataset per fragment
// (kq_version 1: files of earlier builds and of scripts that write that layout).
enum class KqLayout { DatasetPerField, DatasetPerFragment };

// Which files a load reads.
class LoaderParameters {
 public:
  LoaderParameters() = default;
  explicit LoaderParameters(std::vector<std::string> fileNames) : files_(std::move(fileNames)) {}
  const std::vector<std::string>& fileNames() const { return files_; }

  // Lists the fragments without opening their datasets: each is checked when its type,
  // extents or data are first asked for, and one that fails then reports that it cannot be
  // read (extents of zero, no data). For readers that look at the structure alone.
  LoaderParameters& checkFragmentsWhenUsed(bool on = true) {
    deferFragments_ = on;
    return *this;
  }
  bool fragmentsDeferred() const { return deferFragments_; }

 private:
  std::vector<std::string> files_;
  bool deferFragments_ = false;
};

class Bundle {
 public:
  // The slice nearest to `time` (which takes the slice's own time), or empty with no slices.
  Vorlap::StrongPtr<Slice> operator()(double& time) const;
  // The slice at exactly `time`, made when missing.
  Vorlap::StrongPtr<Slice> operator[](double time);
  const std::map<double, Vorlap::StrongPtr<Slice>>& slices() const { return slices_; }

  // Reads every named .kq file into `bundle` (made when empty). The structure is read at
  // once, array data only when a fragment's creator is asked. A file that cannot be read
  // leaves `success` false, with a console message naming the file and the object.
  static void load(bool& success, const LoaderParameters& parameters, BundlePtr& bundle);

  // Writes the bundle to `fileName` through a temporary file renamed into place when
  // complete. Returns the empty text on success, else what went wrong.
  static std::string save(const BundlePtr& bundle, const std::string& fileName,
                          KqLayout layout = KqLayout::DatasetPerField);

 private:
  std::map<double, Vorlap::StrongPtr<Slice>> slices_;
};

// The bundle's slices, grids, fields, fragments and attributes with creators that produce
// the arrays anew: another thread reads them while this bundle is in use, without loading
// the file again. Empty when a creator cannot be copied so. Nothing may change the bundle
// while it is copied.
BundlePtr copyForAnotherThread(const BundlePtr& bundle);

// Saves a bundle while it is still being filled, so that memory holds only what is not yet
// written: write() stores every fragment whose data is held and lets it go (its creator then
// knows type and extents only); finish() writes the rest, the structure and the attributes,
// and renames the file into place. Destroyed unfinished, it removes its temporary file.
// Methods return the empty text on success, else what went wrong.
class StreamingSave {
 public:
  StreamingSave(BundlePtr bundle, std::string fileName,
                KqLayout layout = KqLayout::DatasetPerField);
  ~StreamingSave();
  StreamingSave(const StreamingSave&) = delete;
  StreamingSave& operator=(const StreamingSave&) = delete;

  // Threads (this one included) that compress the chunks a write() fills: a run on several
  // threads gives its writer as many, the same bytes whatever the count.
  void setPackThreads(unsigned threads);
  std::string write();
  std::string finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The handle through which hosts and the module pass bundles.
class BundlePtr {
 public:
  BundlePtr() = default;
  explicit BundlePtr(Vorlap::StrongPtr<Bundle> b) : bundle_(std::move(b)) {}
  static BundlePtr make() { return BundlePtr(Vorlap::makeStrong<Bundle>()); }

  // The bundle, made when the handle has none.
  Vorlap::StrongPtr<Bundle> create();
  const Vorlap::StrongPtr<Bundle>& get() const { return bundle_; }
  bool isEmpty() const { return bundle_.isEmpty(); }
  explicit operator bool() const { return !isEmpty(); }
  Bundle* operator->() const { return bundle_.get(); }
  void reset() { bundle_.reset(); }

 private:
  Vorlap::StrongPtr<Bundle> bundle_;
};

}  // namespace Tessal
