#include "app/Json.hpp"

#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "app/CliError.hpp"

namespace quillo::cli {

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!first_.empty()) {
    if (!first_.back()) out_ += ",";
    first_.back() = false;
  }
}

JsonWriter& JsonWriter::beginObject() {
  separate();
  out_ += "{";
  first_.push_back(true);
  return *this;
}
JsonWriter& JsonWriter::endObject() {
  out_ += "}";
  first_.pop_back();
  return *this;
}
JsonWriter& JsonWriter::beginArray() {
  separate();
  out_ += "[";
  first_.push_back(true);
  return *this;
}
JsonWriter& JsonWriter::endArray() {
  out_ += "]";
  first_.pop_back();
  return *this;
}
JsonWriter& JsonWriter::key(const std::string& k) {
  value(k);
  out_ += ":";
  afterKey_ = true;
  return *this;
}
JsonWriter& JsonWriter::value(const std::string& s) {
  separate();
  out_ += '"';
  for (unsigned char c : s) {
    if (c == '"' || c == '\\')
      out_ += '\\', out_ += char(c);
    else if (c == '\n')
      out_ += "\\n";
    else if (c == '\t')
      out_ += "\\t";
    else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out_ += buf;
    } else
      out_ += char(c);
  }
  out_ += '"';
  return *this;
}
JsonWriter& JsonWriter::value(double d) {
  separate();
  if (!std::isfinite(d)) {
    out_ += "null";
    return *this;
  }
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, d);
  out_.append(buf, r.ptr);
  return *this;
}
JsonWriter& JsonWriter::value(long long i) {
  separate();
  out_ += std::to_string(i);
  return *this;
}
JsonWriter& JsonWriter::value(unsigned long long u) {
  separate();
  out_ += std::to_string(u);
  return *this;
}
JsonWriter& JsonWriter::value(bool b) {
  separate();
  out_ += b ? "true" : "false";
  return *this;
}

void writeFileAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp-" + std::to_string(getpid());
  FILE* f = std::fopen(temporary.c_str(), "wb");
  if (!f) throw CliError(kOutput, "cannot write " + path);
  const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  const bool closed = std::fclose(f) == 0;
  std::error_code ec;
  if (!written || !closed) {
    std::filesystem::remove(temporary, ec);
    throw CliError(kOutput, "cannot write " + path + " (disk full?)");
  }
  std::filesystem::rename(temporary, path, ec);
  if (ec) {
    std::filesystem::remove(temporary, ec);
    throw CliError(kOutput, "cannot write " + path + ": " + ec.message());
  }
}

}  // namespace quillo::cli
