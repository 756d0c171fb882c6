#include "kq/KqAttributes.hpp"

#include <algorithm>
#include <cstdint>
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

// What the reader takes, said whenever an attribute is refused.
constexpr const char* kAcceptedTypes =
    "accepted: integers of any width whose values fit 32 bits, signed or unsigned; floats of "
    "16 to 64 bits; fixed- or variable-length strings";

using ChunkPtr = Vorlap::StrongPtr<Vorlap::ChunkBase>;

// A chunk, or why there is none.
struct ReadResult {
  ChunkPtr chunk;
  std::string problem;
};

template <class T>
ChunkPtr readNumbers(hid_t attr, std::size_t n, hid_t type) {
  std::vector<T> values(n);
  if (n && H5Aread(attr, type, values.data()) < 0) return {};
  return Vorlap::makeChunk<T>(std::move(values));
}

std::string trimmedFixedText(const char* data, std::size_t size, bool spacePadded) {
  std::string text(data, size);
  if (const auto nul = text.find('\0'); nul != std::string::npos) text.resize(nul);
  if (spacePadded)
    while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

ChunkPtr readFixedTexts(hid_t attr, hid_t stored, std::size_t n) {
  const std::size_t size = H5Tget_size(stored);
  Hid memory(H5Tcopy(stored), H5Tclose);
  std::vector<char> raw(n * size);
  if (n && H5Aread(attr, memory.get(), raw.data()) < 0) return {};
  const bool spacePadded = H5Tget_strpad(stored) == H5T_STR_SPACEPAD;
  std::vector<std::string> values;
  for (std::size_t i = 0; i < n; ++i)
    values.push_back(trimmedFixedText(raw.data() + i * size, size, spacePadded));
  return Vorlap::makeChunk<std::string>(std::move(values));
}

ChunkPtr readTexts(hid_t attr, hid_t space, std::size_t n) {
  if (n == 0) return Vorlap::makeChunk<std::string>({});
  Hid type = variableStringType();
  std::vector<char*> raw(n, nullptr);
  if (H5Aread(attr, type.get(), raw.data()) < 0) return {};
  std::vector<std::string> values;
  for (char* s : raw) values.emplace_back(s ? s : "");
  H5Dvlen_reclaim(type.get(), space, H5P_DEFAULT, raw.data());
  return Vorlap::makeChunk<std::string>(std::move(values));
}

// Integers up to 32 bits keep their signedness; wider ones are narrowed when every value fits
// (h5py writes a Python int as a 64-bit integer).
ReadResult readIntegers(hid_t attr, hid_t stored, std::size_t n) {
  const bool isUnsigned = H5Tget_sign(stored) == H5T_SGN_NONE;
  if (H5Tget_size(stored) <= 4)
    return {isUnsigned ? readNumbers<unsigned>(attr, n, H5T_NATIVE_UINT)
                       : readNumbers<int>(attr, n, H5T_NATIVE_INT),
            {}};
  std::vector<long long> wide(n);
  if (isUnsigned) {
    std::vector<unsigned long long> u(n);
    if (n && H5Aread(attr, H5T_NATIVE_ULLONG, u.data()) < 0) return {};
    for (std::size_t i = 0; i < n; ++i) {
      if (u[i] > 0xffffffffull)
        return {{}, "value " + std::to_string(u[i]) + " does not fit 32 bits"};
      wide[i] = static_cast<long long>(u[i]);
    }
  } else if (n && H5Aread(attr, H5T_NATIVE_LLONG, wide.data()) < 0) {
    return {};
  }
  const auto [lo, hi] = std::minmax_element(wide.begin(), wide.end());
  const bool fitsInt = n == 0 || (*lo >= INT32_MIN && *hi <= INT32_MAX);
  const bool fitsUnsigned = n == 0 || (*lo >= 0 && *hi <= UINT32_MAX);
  if (!fitsInt && !fitsUnsigned)
    return {{}, "value " + std::to_string(*lo < INT32_MIN ? *lo : *hi) + " does not fit 32 bits"};
  std::vector<int> ints;
  std::vector<unsigned> unsigneds;
  for (long long v : wide)
    fitsInt ? ints.push_back(static_cast<int>(v)) : unsigneds.push_back(static_cast<unsigned>(v));
  if (fitsInt) return {Vorlap::makeChunk<int>(std::move(ints)), {}};
  return {Vorlap::makeChunk<unsigned>(std::move(unsigneds)), {}};
}

ReadResult readOne(hid_t attr) {
  Hid type(H5Aget_type(attr), H5Tclose);
  Hid space(H5Aget_space(attr), H5Sclose);
  if (!type.ok() || !space.ok()) return {{}, "cannot be opened"};
  const hssize_t count = H5Sget_simple_extent_npoints(space.get());
  if (count < 0 || count > (1 << 24)) return {{}, "holds an absurd number of values"};
  const auto n = static_cast<std::size_t>(count);
  const H5T_class_t cls = H5Tget_class(type.get());
  const std::size_t size = H5Tget_size(type.get());
  if (cls == H5T_STRING)
    return {H5Tis_variable_str(type.get()) > 0 ? readTexts(attr, space.get(), n)
                                               : readFixedTexts(attr, type.get(), n),
            {}};
  if (cls == H5T_FLOAT && size <= 8)
    return {size <= 4 ? readNumbers<float>(attr, n, H5T_NATIVE_FLOAT)
                      : readNumbers<double>(attr, n, H5T_NATIVE_DOUBLE),
            {}};
  if (cls == H5T_INTEGER) return readIntegers(attr, type.get(), n);
  return {{}, "cannot be read"};
}

struct ReadState {
  Vorlap::Attributes* attributes;
  std::string error;
};

herr_t readVisitor(hid_t owner, const char* name, const H5A_info_t*, void* data) {
  auto& state = *static_cast<ReadState*>(data);
  Hid attr(H5Aopen(owner, name, H5P_DEFAULT), H5Aclose);
  ReadResult r = attr.ok() ? readOne(attr.get()) : ReadResult{{}, "cannot be opened"};
  if (!r.chunk) {
    Hid type(attr.ok() ? H5Aget_type(attr.get()) : -1, H5Tclose);
    state.error = std::string("attribute \"") + name + "\" of type " + describeType(type.get()) +
                  ": " + (r.problem.empty() ? "cannot be read" : r.problem) + " (" +
                  kAcceptedTypes + ")";
    return 1;
  }
  state.attributes->setAttribute(name, r.chunk);
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

Single singleNumber(const Vorlap::Attributes& attributes, const std::string& name, double& out) {
  auto chunk = attributes.getAttribute(name);
  if (!chunk) return Single::Missing;
  if (chunk->size() != 1) return Single::NotOne;
  using Vorlap::Chunk;
  if (auto d = attributes.getAttributeAs<double>(name))
    out = (*d)[0];
  else if (auto f = attributes.getAttributeAs<float>(name))
    out = (*f)[0];
  else if (auto i = attributes.getAttributeAs<int>(name))
    out = (*i)[0];
  else if (auto u = attributes.getAttributeAs<unsigned>(name))
    out = (*u)[0];
  else
    return Single::Mistyped;
  return Single::Ok;
}

Single singleInteger(const Vorlap::Attributes& attributes, const std::string& name,
                     long long& out) {
  double value = 0.0;
  const Single s = singleNumber(attributes, name, value);
  if (s != Single::Ok) return s;
  if (value != static_cast<double>(static_cast<long long>(value))) return Single::Mistyped;
  out = static_cast<long long>(value);
  return Single::Ok;
}

Single singleText(const Vorlap::Attributes& attributes, const std::string& name, std::string& out) {
  auto chunk = attributes.getAttribute(name);
  if (!chunk) return Single::Missing;
  if (chunk->size() != 1) return Single::NotOne;
  auto text = attributes.getAttributeAs<std::string>(name);
  if (!text) return Single::Mistyped;
  out = (*text)[0];
  return Single::Ok;
}

}  // namespace Tessal::kq
