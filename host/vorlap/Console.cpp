#include "vorlap/Console.hpp"

#include "vorlap/NumberText.hpp"

#include <charconv>
#include <cstdio>
#include <mutex>

namespace Vorlap {
namespace {

thread_local ConsoleCapture* currentCapture = nullptr;

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}

Console::Sink& globalSink() {
  static Console::Sink sink;
  return sink;
}

}  // namespace

Console::~Console() {
  if (currentCapture) {
    currentCapture->messages_.push_back(std::move(text_));
    return;
  }
  std::lock_guard<std::mutex> lock(sinkMutex());
  if (globalSink()) {
    globalSink()(text_);
  } else {
    std::fprintf(stderr, "%s\n", text_.c_str());
    std::fflush(stderr);
  }
}

Console& Console::operator<<(const std::string& text) {
  text_ += text;
  return *this;
}
Console& Console::operator<<(const char* text) {
  text_ += text ? text : "";
  return *this;
}
Console& Console::operator<<(char c) {
  text_ += c;
  return *this;
}
Console& Console::operator<<(bool b) {
  text_ += b ? "true" : "false";
  return *this;
}
Console& Console::operator<<(double v) {
  text_ += shortestText(v);
  return *this;
}

void Console::setSink(Sink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  globalSink() = std::move(sink);
}

ConsoleCapture::ConsoleCapture() : outer_(currentCapture) {
  currentCapture = this;
}
ConsoleCapture::~ConsoleCapture() {
  currentCapture = outer_;
}

std::string ConsoleCapture::joined() const {
  std::string all;
  for (const auto& m : messages_) all += m + "\n";
  return all;
}

}  // namespace Vorlap
