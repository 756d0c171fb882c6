#include "kq/KqAttributes.hpp"

#include <vector>

namespace Tessal::kq {

namespace {

Hid spaceOf(std::size_t n) {
  if (n == 0) return Hid(H5Screate(H5S_NULL), H5Sclose);
  const hsize_t dims[1] = {n};
  return Hid(H5Screate_simple(1, dims, nullptr), H5Sclose);
}

template <class T>
bool writeNumbers(hid_t owner, const std::string& name, const Vorlap::Chunk<T>& c, hid_t type) {
  Hid space = spaceOf(c.size());
  Hid attr(H5Acreate2(owner, name.c_str(), type, space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
  if (!attr.ok()) return false;
  return c.size() == 0 || H5Awrite(attr.get(), type, c.values().data()) >= 0;
}

bool writeTexts(hid_t owner, const std::string& name, const Vorlap::Chunk<std::string>& c) {
  Hid type = variableStringType();
  Hid space = spaceOf(c.size());
  Hid attr(H5Acreate2(owner, name.c_str(), type.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT),
           H5Aclose);
  if (!attr.ok()) return false;
  std::vector<const char*> texts;
  for (const auto& s : c.values()) texts.push_back(s.c_str());
  return c.size() == 0 || H5Awrite(attr.get(), type.get(), texts.data()) >= 0;
}

bool writeOne(hid_t owner, const std::string& name, const Vorlap::ChunkBase& chunk) {
  using namespace Vorlap;
  if (auto* c = dynamic_cast<const Chunk<int>*>(&chunk))
    return writeNumbers(owner, name, *c, H5T_NATIVE_INT);
  if (auto* c = dynamic_cast<const Chunk<unsigned>*>(&chunk))
    return writeNumbers(owner, name, *c, H5T_NATIVE_UINT);
  if (auto* c = dynamic_cast<const Chunk<float>*>(&chunk))
    return writeNumbers(owner, name, *c, H5T_NATIVE_FLOAT);
  if (auto* c = dynamic_cast<const Chunk<double>*>(&chunk))
    return writeNumbers(owner, name, *c, H5T_NATIVE_DOUBLE);
  if (auto* c = dynamic_cast<const Chunk<std::string>*>(&chunk)) return writeTexts(owner, name, *c);
  return false;
}

template <class T>
Vorlap::StrongPtr<Vorlap::ChunkBase> readNumbers(hid_t attr, std::size_t n, hid_t type) {
  std::vector<T> values(n);
  if (n && H5Aread(attr, type, values.data()) < 0) return {};
  return Vorlap::makeChunk<T>(std::move(values));
}

Vorlap::StrongPtr<Vorlap::ChunkBase> readTexts(hid_t attr, hid_t space, std::size_t n) {
  if (n == 0) return Vorlap::makeChunk<std::string>({});
  Hid type = variableStringType();
  std::vector<char*> raw(n, nullptr);
  if (H5Aread(attr, type.get(), raw.data()) < 0) return {};
  std::vector<std::string> values;
  for (char* s : raw) values.emplace_back(s ? s : "");
  H5Dvlen_reclaim(type.get(), space, H5P_DEFAULT, raw.data());
  return Vorlap::makeChunk<std::string>(std::move(values));
}

Vorlap::StrongPtr<Vorlap::ChunkBase> readOne(hid_t attr) {
  Hid type(H5Aget_type(attr), H5Tclose);
  Hid space(H5Aget_space(attr), H5Sclose);
  if (!type.ok() || !space.ok()) return {};
  const hssize_t count = H5Sget_simple_extent_npoints(space.get());
  if (count < 0 || count > (1 << 24)) return {};
  const auto n = static_cast<std::size_t>(count);
  const H5T_class_t cls = H5Tget_class(type.get());
  const std::size_t size = H5Tget_size(type.get());
  if (cls == H5T_STRING)
    return H5Tis_variable_str(type.get()) > 0 ? readTexts(attr, space.get(), n) : nullptr;
  if (cls == H5T_FLOAT)
    return size == 4 ? readNumbers<float>(attr, n, H5T_NATIVE_FLOAT)
                     : readNumbers<double>(attr, n, H5T_NATIVE_DOUBLE);
  if (cls == H5T_INTEGER && size <= 4)
    return H5Tget_sign(type.get()) == H5T_SGN_NONE ? readNumbers<unsigned>(attr, n, H5T_NATIVE_UINT)
                                                   : readNumbers<int>(attr, n, H5T_NATIVE_INT);
  return {};
}

struct ReadState {
  Vorlap::Attributes* attributes;
  std::string error;
};

herr_t readVisitor(hid_t owner, const char* name, const H5A_info_t*, void* data) {
  auto& state = *static_cast<ReadState*>(data);
  Hid attr(H5Aopen(owner, name, H5P_DEFAULT), H5Aclose);
  auto chunk = attr.ok() ? readOne(attr.get()) : nullptr;
  if (!chunk) {
    state.error = std::string("attribute \"") + name + "\" has a type that cannot be read";
    return 1;
  }
  state.attributes->setAttribute(name, chunk);
  return 0;
}

}  // namespace

bool writeAttributes(hid_t owner, const Vorlap::Attributes& attributes, std::string& error) {
  for (const auto& name : attributes.names()) {
    if (!writeOne(owner, name, *attributes.getAttribute(name))) {
      error = "cannot write attribute \"" + name + "\"";
      return false;
    }
  }
  return true;
}

bool readAttributes(hid_t owner, Vorlap::Attributes& attributes, std::string& error) {
  ReadState state{&attributes, {}};
  hsize_t index = 0;
  const herr_t r = H5Aiterate2(owner, H5_INDEX_NAME, H5_ITER_INC, &index, readVisitor, &state);
  if (r != 0) {
    error = state.error.empty() ? "cannot read the attributes" : state.error;
    return false;
  }
  return true;
}

}  // namespace Tessal::kq
