#include "app/RefinedSaving.hpp"

#include <algorithm>
#include <system_error>
#include <utility>

#include "app/CaughtError.hpp"
#include "app/FragmentEncoding.hpp"

namespace quillo::cli {

namespace {

// Passes holding fragments, the one being written among them: the writer may refine one
// block ahead. Passes without fragments hold no memory and never hold the writer up: most
// reports refine nothing, and counted they made the writer wait for a block's write.
constexpr std::size_t kMostHeld = 2;

bool holdsFragments(const RefinedSaving::Pass& pass) {
  return std::any_of(pass.begin(), pass.end(), [](const auto& parts) { return !parts.empty(); });
}

}  // namespace

RefinedSaving::RefinedSaving(std::vector<StreamedOutput*> outputs) : outputs_(std::move(outputs)) {
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    // No thread: add() writes each pass itself.
  }
}

RefinedSaving::~RefinedSaving() {
  {
    std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

RefinedSaving::Pass RefinedSaving::takeFragments(const std::vector<StreamedOutput*>& outputs,
                                                 const std::vector<std::string>& names) {
  Pass pass(outputs.size());
  for (std::size_t k = 0; k < outputs.size(); ++k)
    for (const std::string& name : names)
      pass[k].push_back(takeFragment(*outputs[k]->moduleGrid(), name));
  return pass;
}

void RefinedSaving::add(Pass pass) {
  if (!thread_.joinable()) {
    if (auto error = caughtError("saving", [&] { write(pass); })) throw *error;
    return;
  }
  std::unique_lock lock(mutex_);
  const bool holds = holdsFragments(pass);
  changed_.wait(lock, [&] { return error_ || !holds || passesHeld_ < kMostHeld; });
  if (error_) throw *error_;
  passesHeld_ += holds;
  waiting_.push_back(std::move(pass));
  changed_.notify_all();
}

void RefinedSaving::finish() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return error_ || (waiting_.empty() && !busy_); });
  if (error_) throw *error_;
}

void RefinedSaving::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return ending_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    Pass pass = std::move(waiting_.front());
    waiting_.pop_front();
    const bool held = holdsFragments(pass);
    busy_ = true;
    const bool failed = error_ != nullptr;  // after an error the rest is only let go
    lock.unlock();
    auto error = failed ? nullptr : caughtError("saving", [&] { write(pass); });
    pass.clear();  // its arrays go here, not under the lock
    lock.lock();
    busy_ = false;
    passesHeld_ -= held;
    if (error && !error_) error_ = std::move(error);
    changed_.notify_all();
  }
}

// What the writer did on its own thread: the fragments mapped, counted and encoded as a
// worker encodes a streamed one, then one write of each output.
void RefinedSaving::write(Pass& pass) {
  for (std::size_t k = 0; k < outputs_.size(); ++k) {
    StreamedOutput& output = *outputs_[k];
    for (OutputPart& part : pass[k]) {
      prepareForSaving(part, output.toMap());
      putArrays(*output.grid(), part);
      output.addCounts(part.counts);
    }
    output.writeFinished();
  }
}

}  // namespace quillo::cli
