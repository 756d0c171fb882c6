// Console messages: text and numbers are appended with <<, and the message is emitted once,
// when the Console object is destroyed. Messages go to stderr unless a sink or a capture
// of the current thread takes them.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace Vorlap {

class Console {
 public:
  Console() = default;
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  Console& operator<<(const std::string& text);
  Console& operator<<(const char* text);
  Console& operator<<(char c);
  Console& operator<<(bool b);
  Console& operator<<(double v);  // shortest text that reads back to the same value
  Console& operator<<(float v) { return *this << static_cast<double>(v); }
  template <class I, class = std::enable_if_t<std::is_integral_v<I>>>
  Console& operator<<(I v) {
    text_ += std::to_string(v);
    return *this;
  }

  using Sink = std::function<void(const std::string& message)>;
  // Replaces where messages of threads without a capture go; an empty sink means stderr.
  static void setSink(Sink sink);

 private:
  std::string text_;
};

// Collects the console messages of the thread that created it, for as long as it lives.
class ConsoleCapture {
 public:
  ConsoleCapture();
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  const std::vector<std::string>& messages() const { return messages_; }
  std::string joined() const;  // every message followed by a line feed
  void clear() { messages_.clear(); }

 private:
  friend class Console;
  std::vector<std::string> messages_;
  ConsoleCapture* outer_;
};

}  // namespace Vorlap
