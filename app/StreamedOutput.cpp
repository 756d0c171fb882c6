#include "app/StreamedOutput.hpp"

#include <chrono>

#include "app/CliError.hpp"
#include "app/FragmentHandover.hpp"
#include "app/HugePageHeap.hpp"
#include "app/OutputStats.hpp"
#include "run/Verification.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

constexpr std::chrono::milliseconds kTrimInterval{100};

class Timer {
 public:
  explicit Timer(double& total) : total_(total) {}
  ~Timer() {
    total_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  double& total_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace

StreamedOutput::StreamedOutput(const std::filesystem::path& path, const Transform& toMap)
    : path_(path), toMap_(toMap), bundle_(Tessal::BundlePtr::make()) {
  grid_ = (*bundle_.create())[0.0]->makeGrid(schema::kResultGrid);
  // Made up front so that an output no point reaches still takes the run's attributes.
  grid_->makeCartesianRepresentation(3, schema::kScannerChart, 0);
  save_ = std::make_unique<Tessal::StreamingSave>(bundle_, path_.string());
}

void StreamedOutput::holdForRefinement() {
  auto bundle = Tessal::BundlePtr::make();
  held_ = (*bundle.create())[0.0]->makeGrid(schema::kResultGrid);
  held_->makeCartesianRepresentation(3, schema::kScannerChart, 0);
}

void StreamedOutput::moveFragment(const std::string& name) {
  if (held_) putArrays(*grid_, takeFragment(*held_, name));
}

void StreamedOutput::takeRunAttributes() {
  if (held_) copyRunAttributes(*held_, *grid_);
}

void StreamedOutput::writeFinished() {
  if (!error_.empty()) return;
  {
    Timer timer(mapSeconds);
    addMapPositions(*grid_, toMap_, mapped_);
    addToSummary(*grid_, summary_, counted_);
  }
  Timer timer(saveSeconds);
  error_ = save_->write();
}

void StreamedOutput::addCounts(const OutputSummary& counts) {
  quillo::cli::addCounts(summary_, counts);
}

OutputSummary StreamedOutput::finish() {
  writeFinished();
  grid_->attributes().setAttribute("BrastowSuccessful?", Vorlap::makeChunk<std::string>({"yes"}));
  if (error_.empty()) {
    Timer timer(saveSeconds);
    error_ = save_->finish();
  }
  if (!error_.empty()) throw CliError(kOutput, error_);
  summary_.path = path_.string();
  summary_.verification = FullWaveform::successfullyConverted(summary_.path, true);
  return summary_;
}

void StreamingProgress::report(const std::string& text, unsigned current, unsigned end) {
  bar_->report(text, current, end);
  if (beforeWrite_) beforeWrite_(current);
  for (StreamedOutput* output : outputs_) output->writeFinished();
  // A fragment's arrays are freed by now; hand the pages back rather than let the heap's
  // high-water mark creep up with every fragment. A trim walks the whole heap and costs
  // more than a fragment of a few hundred shots takes, so it runs at most every so often, and
  // not while worker threads run: it walks their heaps too, under their locks, and they fault
  // the same pages in again for their next fragment (on the demo survey 2 s of the writer's CPU
  // and as much again on the workers, for about 5 % less peak memory).
  if (!trimHeap_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - lastTrim_ < kTrimInterval) return;
  trimFreeHeap();
  lastTrim_ = now;
}

}  // namespace quillo::cli
