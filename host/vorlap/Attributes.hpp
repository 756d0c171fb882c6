// A named set of chunks, carried by grids and fields, with its own modification time.
// Copies share the chunks (attributes are replaced whole, never edited in place).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "vorlap/Ageable.hpp"
#include "vorlap/Chunk.hpp"

namespace Vorlap {

class Attributes : public Ageable {
 public:
  // The chunk of that name, or an empty handle.
  StrongPtr<ChunkBase> getAttribute(const std::string& name) const;

  // The chunk cast to Chunk<T>; empty when missing or of another element type.
  template <class T>
  StrongPtr<Chunk<T>> getAttributeAs(const std::string& name) const {
    return dynamicPtrCast<Chunk<T>>(getAttribute(name));
  }

  void setAttribute(const std::string& name, const StrongPtr<ChunkBase>& chunk);
  bool removeAttribute(const std::string& name);
  std::vector<std::string> names() const;
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }

 private:
  std::map<std::string, StrongPtr<ChunkBase>> entries_;
};

}  // namespace Vorlap
