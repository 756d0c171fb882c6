// Receiver of a run's progress reports; the host implements it (a bar, a log, a test probe).
#pragma once

#include <string>

namespace Vorlap {

class ProgressSink {
 public:
  virtual ~ProgressSink() = default;
  virtual void report(const std::string& text, unsigned current, unsigned end) = 0;
};

}  // namespace Vorlap
