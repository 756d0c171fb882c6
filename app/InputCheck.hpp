// `quillo check` and the check `quillo run` performs first: reads an input .kq file and lists
// what would stop or spoil a run (missing, mistyped and inconsistent items), each with its
// fix, plus the defaults that stand in for missing scanner attributes.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tessal/Bundle.hpp"

namespace quillo::cli {

// Error: a run would fail or give wrong results. Warning: a run works but may lose data.
// Default: a missing attribute is replaced by its default. Note: what the data imply.
enum class Severity { Error, Warning, Default, Note };
const char* severityName(Severity s);

struct Finding {
  Severity severity;
  std::string where;  // grid, field, fragment or attribute; empty for the whole file
  std::string what;
  std::string fix;  // empty when there is nothing to fix
};

struct CheckReport {
  std::string input;
  std::vector<Finding> findings;
  std::uint32_t fragments = 0;
  std::uint64_t shots = 0, waveformRows = 0, onlineRecords = 0;
  std::string loadError;     // why the file could not be loaded; empty when it was
  Tessal::BundlePtr bundle;  // the loaded file (its structure), for a run to reuse

  void add(Severity s, std::string where, std::string what, std::string fix = {});
  std::size_t count(Severity s) const;
  bool runnable() const { return count(Severity::Error) == 0; }
};

// What a check covers: `quillo run` leaves the samples' values out (they cost most to read)
// and the grids its options tell it to ignore. `threads`: how many read and check fragments
// at once (the findings and their order do not depend on it).
struct CheckScope {
  bool readSamples = true;
  bool waveforms = true, online = true;
  unsigned threads = 1;
};

// Loads and checks `path`; a file that cannot be loaded gives one error with the reason.
CheckReport checkInput(const std::string& path, const CheckScope& scope = {});
// Checks a loaded input.
CheckReport checkBundle(const Tessal::BundlePtr& bundle, const std::string& path,
                        const CheckScope& scope = {});

// The findings of the given kinds, in that order, each followed by its fix.
std::string findingsAsText(const CheckReport& report, std::initializer_list<Severity> kinds);
// Every finding and a closing line: usable with its counts, or the number of errors.
std::string reportAsText(const CheckReport& report);
std::string reportAsJson(const std::vector<CheckReport>& reports);

}  // namespace quillo::cli
