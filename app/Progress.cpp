#include "app/Progress.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "vorlap/Console.hpp"

namespace quillo::cli {

namespace {

std::mutex& screenMutex() {
  static std::mutex m;
  return m;
}
// The bar line currently on screen (empty: none), so messages can clear and restore it.
std::string& liveLine() {
  static std::string line;
  return line;
}

std::string formatSeconds(double s) {
  char buf[32];
  if (s >= 3600)
    std::snprintf(buf, sizeof buf, "%dh%02dm", int(s / 3600), int(s / 60) % 60);
  else if (s >= 60)
    std::snprintf(buf, sizeof buf, "%dm%02ds", int(s / 60), int(s) % 60);
  else
    std::snprintf(buf, sizeof buf, "%.0fs", s);
  return buf;
}

}  // namespace

ProgressBar::ProgressBar(std::string label, bool quiet)
    : label_(std::move(label)), quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1) {
  start_ = lastLine_ = std::chrono::steady_clock::now();
}

ProgressBar::~ProgressBar() {
  finish();
}

void ProgressBar::installConsoleSink(bool quiet) {
  Vorlap::Console::setSink([quiet](const std::string& message) {
    if (quiet) return;
    std::lock_guard<std::mutex> lock(screenMutex());
    if (!liveLine().empty()) std::fputs("\r\033[K", stderr);
    std::fprintf(stderr, "%s\n", message.c_str());
    if (!liveLine().empty()) std::fputs(liveLine().c_str(), stderr);
    std::fflush(stderr);
  });
}

void ProgressBar::report(const std::string&, unsigned current, unsigned end) {
  draw(current, end);
}

// "12.3k waves/s, 40s left" (or fragments per second when the wave counts are unknown).
std::string ProgressBar::rateText(unsigned done, unsigned total, double elapsed) const {
  double doneUnits = done, totalUnits = total;
  std::string unit = unit_ + "s";
  if (waves_.total > 0) {
    doneUnits = double(waves_.before(done));
    totalUnits = double(waves_.total);
    unit = "waves";
  }
  const double rate = elapsed > 0 ? doneUnits / elapsed : 0.0;
  const double left = rate > 0 ? (totalUnits - doneUnits) / rate : 0.0;
  char text[96];
  if (rate >= 1000)
    std::snprintf(text, sizeof text, "%.1fk %s/s, %s left", rate / 1000, unit.c_str(),
                  formatSeconds(left).c_str());
  else
    std::snprintf(text, sizeof text, "%.1f %s/s, %s left", rate, unit.c_str(),
                  formatSeconds(left).c_str());
  return text;
}

void ProgressBar::complete() {
  if (lastTotal_ > 0) draw(lastTotal_, lastTotal_);
}

void ProgressBar::draw(unsigned done, unsigned total) {
  if (quiet_) return;
  lastTotal_ = total;
  const auto now = std::chrono::steady_clock::now();
  const double elapsed = std::chrono::duration<double>(now - start_).count();
  char line[256];
  const int width = 30;
  const int filled = total ? int(width * double(std::min(done, total)) / total) : width;
  std::snprintf(line, sizeof line, "%s [%.*s%*s] %s %u/%u, %s", label_.c_str(), filled,
                "##############################", width - filled, "", unit_.c_str(), done, total,
                rateText(done, total, elapsed).c_str());
  std::lock_guard<std::mutex> lock(screenMutex());
  if (terminal_) {
    liveLine() = line;
    std::fprintf(stderr, "\r\033[K%s", line);
    drawn_ = true;
  } else if (std::chrono::duration<double>(now - lastLine_).count() >= 5.0 || done == 0 ||
             done == total) {
    std::fprintf(stderr, "%s\n", line);
    lastLine_ = now;
  }
  std::fflush(stderr);
}

void ProgressBar::finish() {
  std::lock_guard<std::mutex> lock(screenMutex());
  if (drawn_ && terminal_) std::fputs("\n", stderr);
  liveLine().clear();
  drawn_ = false;
}

}  // namespace quillo::cli
