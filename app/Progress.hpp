// Progress of runs on stderr: a one-line bar on a terminal, plain periodic lines otherwise,
// nothing when quiet. Console messages are printed above the bar, never into its line.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "app/WaveCounts.hpp"
#include "vorlap/ProgressSink.hpp"

namespace quillo::cli {

class ProgressBar : public Vorlap::ProgressSink {
 public:
  ProgressBar(std::string label, bool quiet);
  ~ProgressBar() override;

  void report(const std::string& text, unsigned current, unsigned end) override;
  // With the input's wave counts the bar shows waves per second and bases the time left on
  // them; without, it counts fragments.
  void setWaveCounts(WaveCounts counts) { waves_ = std::move(counts); }
  // What the bar counts, singular ("fragment" unless set; `batch local` counts strips).
  void setUnit(std::string unit) { unit_ = std::move(unit); }
  // Shows the bar full (all fragments done); the module reports each fragment as it starts.
  void complete();
  // Ends the bar's line once the work is done.
  void finish();

  // Routes console messages around every live bar; call once at start-up.
  static void installConsoleSink(bool quiet);

 private:
  void draw(unsigned done, unsigned total);
  std::string rateText(unsigned done, unsigned total, double elapsed) const;

  std::string label_;
  bool quiet_, terminal_;
  std::chrono::steady_clock::time_point start_, lastLine_;
  bool drawn_ = false;
  WaveCounts waves_;
  std::string unit_ = "fragment";
  unsigned lastTotal_ = 0;
};

}  // namespace quillo::cli
