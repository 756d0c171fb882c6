// Export of a run result (.kq, grid "FWF") to LAS 1.4: point format 6, or format 9 with the
// exported waveforms in a "waveform data packets" EVLR. Also the fragment-wise reading of a
// result's fields that the quick-look pictures share.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/CliError.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

// The output grid of a result and the fields a reader needs.
struct ResultGrid {
  Vorlap::StrongPtr<Tessal::Grid> grid;
  Vorlap::StrongPtr<Tessal::Representation> scanner;
  Vorlap::StrongPtr<Tessal::Field> positions;  // map positions when present, else scanner frame
  bool mapPositions = false;
  std::vector<std::string> fragments;  // fragment names of `positions`, in order

  Vorlap::StrongPtr<Tessal::Field> field(const std::string& name) const;
};

// The "FWF" grid of `result` (at time 0). Throws CliError naming `fileName` when the grid or
// its positions are missing.
ResultGrid openResultGrid(const Tessal::BundlePtr& result, const std::string& fileName);

// Reads one fragment of fields; what the loader produced is released with the reader, so a
// pass over a result holds one fragment at a time.
class FragmentReader {
 public:
  FragmentReader(const ResultGrid& result, std::size_t index);
  ~FragmentReader();
  FragmentReader(const FragmentReader&) = delete;
  FragmentReader& operator=(const FragmentReader&) = delete;

  const std::string& name() const { return name_; }
  std::size_t size() const { return size_; }
  Vorlap::StrongPtr<Tessal::MemArray<1, Gemwold::PhysicalSpace::point>> positions() {
    return array<Gemwold::PhysicalSpace::point>(result_.positions, Tessal::schema::kPositions);
  }
  // The fragment of the named field; empty when the field does not exist and `required` is
  // false. Throws CliError for a missing fragment, a wrong element type or a wrong length.
  template <class T>
  Vorlap::StrongPtr<Tessal::MemArray<1, T>> get(const std::string& field, bool required = true) {
    auto f = result_.field(field);
    if (!f) {
      if (required) throw CliError(kInput, "result has no field \"" + field + "\"");
      return {};
    }
    return array<T>(f, field);
  }
  // The fragment as an N-dimensional array (used for the 2-D "Waveforms").
  Vorlap::StrongPtr<Tessal::MemBase> raw(const Vorlap::StrongPtr<Tessal::Field>& field,
                                         const std::string& fieldName);

 private:
  template <class T>
  Vorlap::StrongPtr<Tessal::MemArray<1, T>> array(const Vorlap::StrongPtr<Tessal::Field>& field,
                                                  const std::string& fieldName) {
    auto typed = Vorlap::dynamicPtrCast<Tessal::MemArray<1, T>>(raw(field, fieldName));
    if (!typed)
      throw CliError(kInput, where(fieldName) + " has an unexpected element type or rank");
    if (typed->size() != size_ && size_ != kUnknown)
      throw CliError(kInput, where(fieldName) + " holds " + std::to_string(typed->size()) +
                                 " values, expected " + std::to_string(size_));
    if (size_ == kUnknown) size_ = typed->size();
    return typed;
  }
  std::string where(const std::string& fieldName) const;

  static constexpr std::size_t kUnknown = static_cast<std::size_t>(-1);
  const ResultGrid& result_;
  std::string name_;
  std::size_t size_ = kUnknown;
  std::vector<Vorlap::StrongPtr<Tessal::MemBase>> held_;
};

struct LasExportOptions {
  bool waveforms = false;  // format 9 with waveform packets (needs a "Waveforms" field)
  std::string crs;         // --crs: overrides the result's coordinate system
};

struct LasExportSummary {
  std::uint64_t points = 0;
  int pointFormat = 6;
  bool adjustedGpsTime = false;
  std::string crs;              // label of the coordinate system written; empty: none
  double intensityScale = 1.0;  // intensity per count of amplitude
  std::uint64_t leftOut = 0;    // points without a finite position (no LAS record can hold them)
};

// Writes `outPath` (through a temporary file renamed into place when complete). Throws
// CliError (and leaves no output) for a bad result or an unwritable output.
LasExportSummary exportLas(const Tessal::BundlePtr& result, const std::string& resultName,
                           const std::string& outPath, const LasExportOptions& options);

}  // namespace quillo::cli
