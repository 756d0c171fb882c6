// A small JSON writer for the commands' machine-readable output.
#pragma once

#include <string>
#include <vector>

namespace quillo::cli {

class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(const std::string& k);
  JsonWriter& value(const std::string& s);
  JsonWriter& value(const char* s) { return value(std::string(s)); }
  JsonWriter& value(double d);  // NaN and infinities are written as null
  JsonWriter& value(long long i);
  JsonWriter& value(unsigned long long u);
  JsonWriter& value(int i) { return value(static_cast<long long>(i)); }
  JsonWriter& value(unsigned u) { return value(static_cast<unsigned long long>(u)); }
  JsonWriter& value(unsigned long u) { return value(static_cast<unsigned long long>(u)); }
  JsonWriter& value(bool b);
  const std::string& text() const { return out_; }

 private:
  void separate();
  std::string out_;
  std::vector<bool> first_;  // per open container: nothing written in it yet
  bool afterKey_ = false;
};

// Writes `text` to `path` through a temporary file renamed into place; throws CliError.
void writeFileAtomically(const std::string& path, const std::string& text);

}  // namespace quillo::cli
