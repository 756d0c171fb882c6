// An output of a run saved while the run goes on: each time the module starts a fragment,
// the fragments it has finished are mapped, counted, written to the output's temporary file
// and let go, so a run holds about one fragment of output whatever the file's size. The
// structure, the attributes and the success mark are written when the run has succeeded;
// an output of a failed run leaves no file.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/MapPositions.hpp"
#include "app/Progress.hpp"
#include "app/RunJob.hpp"
#include "tessal/Bundle.hpp"

namespace quillo::cli {

class StreamedOutput {
 public:
  StreamedOutput(const std::filesystem::path& path, const Transform& toMap);
  // The grid saved to the file.
  Vorlap::StrongPtr<Tessal::Grid> grid() const { return grid_; }
  // Where the module puts its fragments: the saved grid, or with holdForRefinement() a grid
  // of its own, from which refined fragments move to the saved one (moveFragment).
  Vorlap::StrongPtr<Tessal::Grid> moduleGrid() const { return held_ ? held_ : grid_; }
  void holdForRefinement();
  // Moves a fragment from the module's grid to the saved one (nothing when it has none).
  void moveFragment(const std::string& name);
  // Gives the saved grid the run's attributes, set on the module's grid.
  void takeRunAttributes();
  // Threads that compress what a write fills (the run's threads).
  void setSaveThreads(unsigned threads) { save_->setPackThreads(threads); }
  const Transform& toMap() const { return toMap_; }
  // Counts of fragments that reach the grid encoded (counted where they were encoded).
  void addCounts(const OutputSummary& counts);
  // Maps, counts and writes every fragment the module has finished.
  void writeFinished();
  // Writes the last fragments, the success mark and the structure, renames the file into
  // place and verifies it. Throws CliError when the output cannot be written.
  OutputSummary finish();
  double mapSeconds = 0, saveSeconds = 0;

 private:
  std::filesystem::path path_;
  Transform toMap_;
  Tessal::BundlePtr bundle_;
  Vorlap::StrongPtr<Tessal::Grid> grid_, held_;
  std::unique_ptr<Tessal::StreamingSave> save_;
  Tessal::FragmentChangeCursor mapped_, counted_;  // fragments already mapped, counted
  OutputSummary summary_;
  std::string error_;  // the first write error; reported when the run ends
};

// The run's progress receiver: drives the bar and writes finished fragments of the outputs.
// `trimHeap`: give the freed pages back after each fragment (one thread only: see report).
class StreamingProgress : public Vorlap::ProgressSink {
 public:
  StreamingProgress(Vorlap::StrongPtr<ProgressBar> bar, std::vector<StreamedOutput*> outputs,
                    bool trimHeap)
      : bar_(std::move(bar)), outputs_(std::move(outputs)), trimHeap_(trimHeap) {}
  void report(const std::string& text, unsigned current, unsigned end) override;
  // Runs before the finished fragments are written, with the number of the fragment the run
  // starts (those below it are finished).
  void setBeforeWrite(std::function<void(unsigned)> f) { beforeWrite_ = std::move(f); }

 private:
  std::function<void(unsigned)> beforeWrite_;
  Vorlap::StrongPtr<ProgressBar> bar_;
  std::vector<StreamedOutput*> outputs_;
  bool trimHeap_;
  std::chrono::steady_clock::time_point lastTrim_{};
};

}  // namespace quillo::cli
