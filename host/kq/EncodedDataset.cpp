// Arrays as stored datasets: a fragment's array cut into chunks of whole rows, each shuffled and
// deflated without any HDF5 call (so on any thread), and the dataset made from such chunks,
// created with the filters they went through so that every HDF5 reader undoes them.
#include "kq/EncodedDataset.hpp"

#include <algorithm>
#include <type_traits>

#include "kq/ChunkCodec.hpp"
#include "kq/KqAttributes.hpp"
#include "tessal/Bundle.hpp"

namespace Tessal {

namespace kq {

// Arrays up to this size are stored compact, in the dataset's object header: no chunk, no
// filters, written with the header. Creating a chunked dataset and storing its chunk costs
// more than deflate saves on a few kilobytes.
constexpr std::size_t kCompactBytes = 8 * 1024;

// Dataset shape: (n) or (n, 3) for 1-D arrays; (rows, samples) for 2-D arrays.
std::vector<hsize_t> storedShape(const MemBase& data) {
  const bool triple = componentCount(data.elementType()) == 3;
  std::vector<hsize_t> dims;
  if (data.rank() == 2)
    dims = {data.extent(1), data.extent(0)};
  else
    dims = {data.extent(0)};
  if (triple) dims.push_back(3);
  return dims;
}

}  // namespace kq

static_assert(std::is_same_v<hsize_t, unsigned long long>, "dims pass to HDF5 as they are");

// Chunks of whole rows of about a million numbers.
EncodedArray encodeArray(const MemBase& data) {
  EncodedArray e;
  e.type = data.elementType();
  e.rank = data.rank();
  e.dims = kq::storedShape(data);
  std::size_t total = 1;
  for (auto d : e.dims) total *= d;
  if (total == 0) return e;
  const std::size_t component = elementBytes(e.type) / componentCount(e.type);
  // Not zero-filled first: copyOut writes every byte.
  Values<unsigned char> raw(total * component);
  data.copyOut(raw.data());
  if (raw.size() <= kq::kCompactBytes) {
    e.compact = true;
    e.chunks.emplace_back(raw.begin(), raw.end());
    return e;
  }
  const std::size_t perRow = total / e.dims[0];
  e.chunk = e.dims;
  e.chunk[0] = std::min<hsize_t>(e.dims[0], std::max<hsize_t>(1, (1u << 20) / perRow));
  const std::size_t rowBytes = perRow * component, chunkBytes = e.chunk[0] * rowBytes;
  std::vector<unsigned char> edge;
  for (std::size_t row = 0; row < e.dims[0]; row += e.chunk[0]) {
    const unsigned char* start = raw.data() + row * rowBytes;
    if (row + e.chunk[0] > e.dims[0]) {
      // The last chunk is stored whole; its rows past the end hold the fill value, zero.
      edge.assign(chunkBytes, 0);
      std::copy(start, static_cast<const unsigned char*>(raw.data() + raw.size()), edge.begin());
      start = edge.data();
    }
    kq::encodeChunk(start, chunkBytes, component, e.chunks.emplace_back());
  }
  return e;
}

namespace kq {

// Creates the dataset with the filters its chunks went through, so readers undo them, and
// stores the chunks as they are.
bool writeEncodedDataset(hid_t parent, const std::string& name, const EncodedArray& e) {
  Hid space(H5Screate_simple(int(e.dims.size()), e.dims.data(), nullptr), H5Sclose);
  Hid props(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
  H5Pset_obj_track_times(props.get(), 0);  // same content, same bytes
  if (e.compact) {
    // Raw arrays handed over for the other layout may exceed what a header holds.
    H5Pset_layout(props.get(),
                  e.chunks.front().size() <= kCompactBytes ? H5D_COMPACT : H5D_CONTIGUOUS);
  } else if (!e.chunks.empty()) {
    H5Pset_chunk(props.get(), int(e.chunk.size()), e.chunk.data());
    H5Pset_shuffle(props.get());
    H5Pset_deflate(props.get(), kDeflateLevel);
  }
  const hid_t type = nativeTypeOf(e.type);
  Hid set(
      H5Dcreate2(parent, name.c_str(), type, space.get(), H5P_DEFAULT, props.get(), H5P_DEFAULT),
      H5Dclose);
  if (!set.ok()) return false;
  Vorlap::Attributes meta;
  meta.setAttribute("element_type", Vorlap::makeChunk<std::string>({elementTypeName(e.type)}));
  meta.setAttribute("rank", Vorlap::makeChunk<int>({int(e.rank)}));
  std::string ignored;
  if (!writeAttributes(set.get(), meta, ignored)) return false;
  if (e.compact)
    return H5Dwrite(set.get(), type, H5S_ALL, H5S_ALL, H5P_DEFAULT, e.chunks.front().data()) >= 0;
  std::vector<hsize_t> offset(e.dims.size(), 0);
  for (const auto& bytes : e.chunks) {
    if (H5Dwrite_chunk(set.get(), H5P_DEFAULT, 0, offset.data(), bytes.size(), bytes.data()) < 0)
      return false;
    offset[0] += e.chunk[0];
  }
  return true;
}

}  // namespace kq

EncodedArray rawArray(const MemBase& data) {
  EncodedArray e;
  e.type = data.elementType();
  e.rank = data.rank();
  e.dims = kq::storedShape(data);
  if (data.nElements() == 0) return e;
  e.compact = true;
  e.chunks.emplace_back(data.nElements() * elementBytes(e.type));
  data.copyOut(e.chunks.front().data());
  return e;
}

}  // namespace Tessal
