// Saving refined fragments on a thread of its own. Reads the fragments the refinement has
// finished, taken out of the module's grids; encodes them (map chart, counts, stored
// values), puts them into the saved grids and writes them, one write per pass as the
// writer hands them over, so the files hold the bytes of a run that saves on the writer.
// The writer meanwhile refines the next block: refining and saving overlap instead of
// following each other fragment by fragment.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "app/CliError.hpp"
#include "app/FragmentHandover.hpp"
#include "app/StreamedOutput.hpp"

namespace quillo::cli {

class RefinedSaving {
 public:
  // One write of the outputs: per output (in the order given), the fragments to add first.
  using Pass = std::vector<std::vector<OutputPart>>;

  explicit RefinedSaving(std::vector<StreamedOutput*> outputs);
  ~RefinedSaving();  // finishes what was handed over
  RefinedSaving(const RefinedSaving&) = delete;
  RefinedSaving& operator=(const RefinedSaving&) = delete;

  // Hands a pass over; one holding fragments waits while two others are still written or
  // waiting (each holds refined fragments in memory). Throws the error of an earlier pass.
  void add(Pass pass);
  // Returns once every pass is written; throws the first error of any.
  void finish();
  // Takes the named fragment of every output out of the module's grids, as a pass holds it.
  static Pass takeFragments(const std::vector<StreamedOutput*>& outputs,
                            const std::vector<std::string>& names);

 private:
  void run();
  void write(Pass& pass);

  std::vector<StreamedOutput*> outputs_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Pass> waiting_;
  bool busy_ = false, ending_ = false;
  std::size_t passesHeld_ = 0;  // waiting or being written, with fragments
  std::unique_ptr<CliError> error_;
  std::thread thread_;  // started last: it reads the members above
};

}  // namespace quillo::cli
