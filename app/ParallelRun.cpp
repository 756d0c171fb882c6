#include "app/ParallelRun.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "app/CaughtError.hpp"
#include "app/CliError.hpp"
#include "app/FragmentEncoding.hpp"
#include "app/FragmentHandover.hpp"
#include "app/FragmentSpill.hpp"
#include "app/LoadKq.hpp"
#include "app/ParallelSplit.hpp"
#include "app/WaveCounts.hpp"
#include "run/Quillo.hpp"
#include "tessal/Schema.hpp"
#include "vorlap/Console.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

using Range = FragmentRange;

std::uint32_t fragmentCount(const Tessal::BundlePtr& input) {
  double t = 0.0;
  auto slice = (*input.get())(t);
  auto shots = slice ? (*slice)(schema::kShotsGrid) : Vorlap::StrongPtr<Tessal::Grid>();
  auto positions = shots ? (*shots)(schema::kPositions, "") : Vorlap::StrongPtr<Tessal::Field>();
  return positions ? std::uint32_t(positions->getNumberOfFragments()) : 0u;
}

// The waves of each fragment below `end`, by fragment number.
std::vector<std::uint64_t> wavesByNumber(const WaveCounts& waves, std::uint32_t end) {
  std::vector<std::uint64_t> counts(end, 0);
  for (std::uint32_t f = 0; f < end; ++f)
    if (auto it = waves.perFragment.find(schema::fragmentName(f)); it != waves.perFragment.end())
      counts[f] = it->second;
  return counts;
}

// The bytes of the fragment's arrays held in memory (not set aside in a scratch file).
std::size_t bytesInMemory(const FragmentOutput& output) {
  std::size_t bytes = 0;
  for (const OutputPart& part : output.parts)
    for (const FieldArray& a : part.arrays) {
      if (a.setAside.offset >= 0) continue;
      if (a.encoded)
        for (const auto& chunk : a.encoded->chunks) bytes += chunk.size();
      else if (a.data)
        bytes += a.data->nElements() * Tessal::elementBytes(a.data->elementType());
    }
  return bytes;
}

// Finished fragments on their way from the workers to the writer.
class HandoverQueue {
 public:
  explicit HandoverQueue(std::vector<Range> ranges)
      : ranges_(std::move(ranges)),
        results_(ranges_.size()),
        done_(ranges_.size(), false),
        points_(ranges_.size()),
        spills_(ranges_.size()),
        nextToWrite_(ranges_.front().begin) {}

  // Sets the output aside when the writer is still short of its range: it would wait in
  // memory for the ranges before to be written. Within the range being written, waits while
  // the writer is `kAhead` fragments behind and the outputs waiting hold `kAheadBytes`: a
  // writer that refines, maps and encodes takes longer per fragment than the module, and the
  // outputs would pile up in memory; tiny fragments may run further ahead, so that worker
  // and writer do not wake each other for every one. Called by the range's own worker only.
  void put(std::size_t range, std::uint32_t fragment, FragmentOutput output) {
    if (nextToWrite_.load() < ranges_[range].begin)
      for (OutputPart& part : output.parts) spills_[range].setAside(part);
    const std::size_t bytes = bytesInMemory(output);
    std::unique_lock lock(mutex_);
    const auto mayPut = [&] {
      const std::uint32_t next = nextToWrite_.load();
      return abandoned_ || next < ranges_[range].begin || fragment < next + kAhead ||
             waitingBytes_ + bytes <= kAheadBytes;
    };
    if (!mayPut()) {
      ++workersWaiting_;
      roomMade_.wait(lock, mayPut);
      --workersWaiting_;
    }
    waitingBytes_ += bytes;
    ready_.emplace(fragment, Waiting{std::move(output), bytes});
    if (writerWaitsFor_ == fragment) outputReady_.notify_one();
  }
  // The writer takes no more fragments: no worker may wait for it.
  void abandon() {
    std::lock_guard lock(mutex_);
    abandoned_ = true;
    roomMade_.notify_all();
  }
  // `points`: how many points the range gave, when it ended well.
  void finish(std::size_t range, std::string result,
              std::optional<std::uint32_t> points = std::nullopt) {
    std::lock_guard lock(mutex_);
    results_[range] = std::move(result);
    points_[range] = points;
    done_[range] = true;
    outputReady_.notify_one();
  }
  // The number of the range's first point in one run: known once the ranges before it ended.
  std::optional<std::uint32_t> firstPointOf(std::size_t range) const {
    std::lock_guard lock(mutex_);
    std::uint32_t first = 0;
    for (std::size_t r = 0; r < range; ++r) {
      if (!points_[r]) return std::nullopt;
      first += *points_[r];
    }
    return first;
  }
  // The fragment's output; empty when its range ended before it (the run failed).
  std::optional<FragmentOutput> take(std::uint32_t fragment) {
    std::unique_lock lock(mutex_);
    const std::size_t owner = ownerOf(fragment);
    writerWaitsFor_ = fragment;
    outputReady_.wait(lock, [&] { return ready_.count(fragment) || done_[owner]; });
    writerWaitsFor_ = kNobody;
    auto it = ready_.find(fragment);
    if (it == ready_.end()) return std::nullopt;
    FragmentOutput output = std::move(it->second.output);
    waitingBytes_ -= it->second.bytes;
    ready_.erase(it);
    nextToWrite_ = fragment + 1;
    if (workersWaiting_) roomMade_.notify_all();
    lock.unlock();
    for (OutputPart& part : output.parts) spills_[owner].bringBack(part);
    return output;
  }
  // The first failure in fragment order, as one run would have met it.
  std::string result() const {
    std::lock_guard lock(mutex_);
    for (const auto& r : results_)
      if (!r.empty()) return r;
    return "";
  }

 private:
  std::size_t ownerOf(std::uint32_t fragment) const {
    std::size_t r = 0;
    while (r + 1 < ranges_.size() && fragment >= ranges_[r].end) ++r;
    return r;
  }
  std::vector<Range> ranges_;
  std::vector<std::string> results_;
  std::vector<bool> done_;
  std::vector<std::optional<std::uint32_t>> points_;
  std::vector<FragmentSpill> spills_;  // one per range, written by its worker alone
  struct Waiting {
    FragmentOutput output;
    std::size_t bytes;  // of the output held in memory (not set aside)
  };
  static constexpr std::uint32_t kAhead = 3;
  static constexpr std::size_t kAheadBytes = std::size_t(4) << 20;
  static constexpr std::uint32_t kNobody = ~std::uint32_t(0);
  std::atomic<std::uint32_t> nextToWrite_;
  bool abandoned_ = false;
  std::map<std::uint32_t, Waiting> ready_;
  std::size_t waitingBytes_ = 0;
  std::uint32_t writerWaitsFor_ = kNobody;
  unsigned workersWaiting_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable outputReady_, roomMade_;  // the writer waits on one, workers on the other
};

// A worker's output grids and progress receiver: hands each finished fragment over, encoded
// for saving when the outputs are streamed. The fragment before the range only carries its
// shots on (Input::carryOnlyBelow) and gives no points; its messages are those of the range
// before and are dropped here.
class WorkerOutputs : public Vorlap::ProgressSink {
 public:
  WorkerOutputs(HandoverQueue& queue, std::size_t index, Range range, std::uint32_t start,
                const ParallelRun& run)
      : queue_(queue), index_(index), range_(range), current_(start), encode_(run.streamed) {
    for (int k = 0; k < 2; ++k) {
      StreamedOutput* real = run.outputs[k];
      if (!real) continue;
      toMap_[k] = real->toMap();
      // A bundle each, as the saved outputs have: one slice holds one grid of a name.
      auto bundle = Tessal::BundlePtr::make();
      grids_[k] = (*bundle.create())[0.0]->makeGrid(schema::kResultGrid);
      grids_[k]->makeCartesianRepresentation(3, schema::kScannerChart, 0);
    }
    if (start < range.begin) quietWarmUp_.emplace();
  }
  const Vorlap::StrongPtr<Tessal::Grid>& grid(int k) const { return grids_[k]; }

  void report(const std::string&, unsigned current, unsigned) override {
    if (current > current_) handOver();
    current_ = current;
    if (current_ >= range_.begin) quietWarmUp_.reset();
  }
  // Hands over the range's last fragment once the module has ended well; the range's points.
  std::uint32_t finish() {
    handOver();
    return nextPointId_ - rangeFirstId_.value_or(nextPointId_);
  }

 private:
  void handOver() {
    FragmentOutput output;
    for (int k = 0; k < 2; ++k)
      if (grids_[k]) output.parts[k] = takeHeldArrays(*grids_[k], handedOver_[k]);
    output.firstPointId = nextPointId_;
    nextPointId_ += output.points();
    if (current_ < range_.begin) return;
    if (!rangeFirstId_) rangeFirstId_ = output.firstPointId;
    for (int k = 0; k < 2; ++k)
      if (encode_ && grids_[k]) prepareForSaving(output.parts[k], toMap_[k]);
    // Renumbered here when the ranges before have ended, else by the writer.
    if (auto first = queue_.firstPointOf(index_)) {
      output.shifted = *first - *rangeFirstId_;
      for (OutputPart& part : output.parts) renumberPoints(part, *output.shifted, encode_);
    }
    queue_.put(index_, current_, std::move(output));
  }

  HandoverQueue& queue_;
  std::size_t index_;
  Range range_;
  std::uint32_t current_;
  bool encode_;
  std::uint32_t nextPointId_ = 0;
  std::optional<std::uint32_t> rangeFirstId_;  // the worker's number of the range's first point
  std::array<Vorlap::StrongPtr<Tessal::Grid>, 2> grids_;
  std::array<Transform, 2> toMap_{};
  std::array<Tessal::FragmentChangeCursor, 2> handedOver_;
  std::optional<Vorlap::ConsoleCapture> quietWarmUp_;
};

double cpuSeconds(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

double threadCpuSeconds() {
  return cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
}

std::string tenths(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds);
  return text;
}

// What a thread took: its CPU time and when it ended (wall seconds from the start). For the
// writer, `withHelpers` adds the threads that pack its chunks: the process's CPU time over
// the ranges' run less the workers'.
struct ThreadTimes {
  double cpu = 0.0, ended = 0.0, withHelpers = 0.0;
};

// How the work was shared: each range's fragments and times, and the writer's. Ranges that
// end well before the writer show a split to rebalance.
void describeSharing(const ParallelRun& run, const std::vector<Range>& ranges,
                     const std::vector<ThreadTimes>& workers, ThreadTimes writer) {
  Vorlap::Console say;
  say << run.inputPath << ": " << ranges.size() << " threads:";
  for (std::size_t r = 0; r < ranges.size(); ++r)
    say << " fragments " << ranges[r].begin << "-" << ranges[r].end - 1 << " "
        << tenths(workers[r].cpu) << " s CPU, ended at " << tenths(workers[r].ended) << " s;";
  say << " writing " << tenths(writer.cpu) << " s CPU (" << tenths(writer.withHelpers)
      << " s with its packing helpers), ended at " << tenths(writer.ended) << " s";
}

// The input as a later range reads it: the structure of the first load with readers of its
// own (loading the file again took the HDF5 lock from the other threads for a second or two
// with thousands of fragments); loaded again when the input cannot be copied so.
Tessal::BundlePtr inputOfRange(const ParallelRun& run, std::size_t index) {
  if (index == 0) return run.bundle;
  if (auto copy = Tessal::copyForAnotherThread(run.bundle)) return copy;
  Vorlap::ConsoleCapture alreadySaid;  // the first load told the user about this file
  return loadKqFile(run.inputPath);
}

// Runs the module on one range; keeps the grids of the last range for the run's attributes.
void runRange(const ParallelRun& run, Tessal::BundlePtr bundle, Range range, std::size_t index,
              HandoverQueue& queue, Vorlap::StrongPtr<Tessal::Grid>* attributeSource) {
  const std::uint32_t start = index == 0 ? range.begin : range.begin - 1;
  auto outputs = Vorlap::makeStrong<WorkerOutputs>(queue, index, range, start, run);
  FullWaveform::Input input = run.input;
  input.fragBegin = std::int32_t(start);
  input.fragEnd = range.end;
  input.carryOnlyBelow = range.begin;  // the lead-in's zones and points would be dropped
  input.progress = Vorlap::WeakPtr<Vorlap::ProgressSink>(outputs);
  std::string result =
      FullWaveform::Quillo<unsigned short>(bundle, outputs->grid(0), outputs->grid(1), input);
  std::optional<std::uint32_t> points;
  if (result.empty()) points = outputs->finish();
  if (attributeSource)
    for (int k = 0; k < 2; ++k) attributeSource[k] = outputs->grid(k);
  queue.finish(index, std::move(result), points);
}

// The one-run sequence on the real outputs, fragment by fragment; false when a range failed.
bool writeInOrder(const ParallelRun& run, Range all, HandoverQueue& queue) {
  auto sink = run.input.progress.lock();
  std::uint32_t nextPointId = 0;
  for (std::uint32_t f = all.begin; f < all.end; ++f) {
    if (sink) sink->report("Frag# ", f, all.end);
    std::optional<FragmentOutput> output = queue.take(f);
    if (!output) return false;
    const std::uint32_t shift = nextPointId - output->firstPointId;
    if (output->shifted && *output->shifted != shift)
      throw CliError(kFailure, "fragment " + std::to_string(f) + ": its points were numbered " +
                                   "from another start than the fragments before");
    for (int k = 0; k < 2; ++k) {
      if (!run.outputs[k]) continue;
      if (!output->shifted) renumberPoints(output->parts[k], shift, run.streamed);
      putArrays(*run.outputs[k]->moduleGrid(), output->parts[k]);
      // Only encoded fragments were counted; the counts of refined ones are another thread's.
      if (run.streamed) run.outputs[k]->addCounts(output->parts[k].counts);
    }
    nextPointId += output->points();
  }
  return true;
}

std::string runRanges(const ParallelRun& run, Range all, const std::vector<Range>& ranges) {
  HandoverQueue queue(ranges);
  std::vector<std::unique_ptr<CliError>> errors(ranges.size());
  Vorlap::StrongPtr<Tessal::Grid> attributeSource[2];
  std::vector<std::thread> threads;
  std::vector<ThreadTimes> times(ranges.size());
  const auto start = std::chrono::steady_clock::now();
  const auto sinceStart = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  // Copied before any worker reads the input: a copy made while one runs would race with it.
  std::vector<Tessal::BundlePtr> inputs(ranges.size());
  for (std::size_t r = 0; r < ranges.size(); ++r) inputs[r] = inputOfRange(run, r);
  const double processStart = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
  for (std::size_t r = 0; r < ranges.size(); ++r) {
    auto work = [&, r] {
      errors[r] = caughtError("", [&] {
        runRange(run, inputs[r], ranges[r], r, queue,
                 r + 1 == ranges.size() ? attributeSource : nullptr);
      });
      // A later range's copy of the input goes here, while the writer still writes, rather
      // than on the main thread at the end (a creator per fragment and field).
      inputs[r] = Tessal::BundlePtr();
      if (errors[r]) queue.finish(r, errors[r]->what());
      times[r] = {threadCpuSeconds(), sinceStart()};
    };
    try {
      threads.emplace_back(work);
    } catch (const std::system_error& e) {
      errors[r] =
          std::make_unique<CliError>(kFailure, std::string("cannot start a thread: ") + e.what());
      queue.finish(r, errors[r]->what());
    }
  }
  bool written = false;
  const double writerStart = threadCpuSeconds();
  auto writeError = caughtError("", [&] { written = writeInOrder(run, all, queue); });
  queue.abandon();
  ThreadTimes writer{threadCpuSeconds() - writerStart, sinceStart()};
  for (auto& t : threads) t.join();
  writer.withHelpers = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processStart;
  for (const ThreadTimes& t : times) writer.withHelpers -= t.cpu;
  if (run.verbose) describeSharing(run, ranges, times, writer);
  if (writeError) throw *writeError;
  for (auto& e : errors)
    if (e) throw *e;
  std::string result = queue.result();
  if (!written && result.empty()) result = "Quillo: a worker ended before its last fragment";
  if (!result.empty()) return result;
  for (int k = 0; k < 2; ++k)
    if (run.outputs[k]) copyRunAttributes(*attributeSource[k], *run.outputs[k]->moduleGrid());
  return "";
}

}  // namespace

std::string runModule(const ParallelRun& run) {
  auto grid = [&](int k) {
    return run.outputs[k] ? run.outputs[k]->moduleGrid() : Vorlap::StrongPtr<Tessal::Grid>();
  };
  Tessal::BundlePtr bundle = run.bundle;
  const std::uint32_t count = fragmentCount(bundle);
  const Range all{std::uint32_t(std::max(run.input.fragBegin, 0)),
                  std::min(run.input.fragEnd, count)};
  if (run.threads < 2 || all.end < all.begin + 2)
    return FullWaveform::Quillo<unsigned short>(bundle, grid(0), grid(1), run.input);
  const WaveCounts waves = countWaves(bundle);
  const double writer =
      writerShare(run.input.fwfModus, all.end - all.begin, waves.total, run.streamed);
  return runRanges(run, all,
                   splitFragments(all, run.threads, wavesByNumber(waves, all.end), writer));
}

}  // namespace quillo::cli
