#include "vorlap/Attributes.hpp"

namespace Vorlap {

const char* chunkTypeName(ChunkType t) {
  switch (t) {
    case ChunkType::Int:
      return "int";
    case ChunkType::UInt:
      return "unsigned int";
    case ChunkType::Float:
      return "float";
    case ChunkType::Double:
      return "double";
    case ChunkType::Text:
      return "text";
  }
  return "unknown";
}

StrongPtr<ChunkBase> Attributes::getAttribute(const std::string& name) const {
  auto it = entries_.find(name);
  return it == entries_.end() ? StrongPtr<ChunkBase>() : it->second;
}

void Attributes::setAttribute(const std::string& name, const StrongPtr<ChunkBase>& chunk) {
  if (chunk.isEmpty()) {
    entries_.erase(name);
    return;
  }
  entries_[name] = chunk;
}

bool Attributes::removeAttribute(const std::string& name) {
  return entries_.erase(name) > 0;
}

std::vector<std::string> Attributes::names() const {
  std::vector<std::string> result;
  result.reserve(entries_.size());
  for (const auto& [name, chunk] : entries_) result.push_back(name);
  return result;
}

}  // namespace Vorlap
