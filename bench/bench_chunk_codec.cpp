// What packing a file's chunks costs, field by field: reads every chunked dataset of a .kq
// file (an output of `quillo run`, say), unpacks its stored chunks and packs them again with
// this build's chunk codec, and prints per dataset the raw and packed megabytes and the
// processor time of the packing (best of the rounds). With --planes it prints, per byte plane
// after the shuffle, what libdeflate's level 1 makes of the plane alone and its time, for
// finding where the compressor's time goes.
// Usage: bench_chunk_codec FILE.kq [--rounds N] [--planes]
#include <hdf5.h>
#include <libdeflate.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kq/ChunkCodec.hpp"
#include "kq/RunDeflate.hpp"

namespace {

struct Dataset {
  std::string path;
  std::size_t component = 1;                       // bytes per value
  std::vector<std::vector<unsigned char>> chunks;  // raw values, one per stored chunk
  std::size_t storedBytes = 0;
};

double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

bool shuffled(hid_t set) {
  const hid_t plist = H5Dget_create_plist(set);
  bool found = false;
  for (int i = 0, n = H5Pget_nfilters(plist); i < n; ++i) {
    unsigned flags = 0;
    std::size_t count = 0;
    if (H5Pget_filter2(plist, unsigned(i), &flags, &count, nullptr, 0, nullptr, nullptr) ==
        H5Z_FILTER_SHUFFLE)
      found = true;
  }
  H5Pclose(plist);
  return found;
}

// The dataset's stored chunks, unpacked; empty when it is not chunked.
Dataset readChunks(hid_t file, const std::string& path) {
  Dataset d;
  d.path = path;
  const hid_t set = H5Dopen2(file, path.c_str(), H5P_DEFAULT);
  const hid_t plist = H5Dget_create_plist(set);
  const hid_t type = H5Dget_type(set);
  d.component = H5Tget_size(type);
  if (H5Tget_class(type) == H5T_STRING || H5Pget_layout(plist) != H5D_CHUNKED) {
    H5Tclose(type), H5Pclose(plist), H5Dclose(set);
    return d;
  }
  const hid_t space = H5Dget_space(set);
  const int rank = H5Sget_simple_extent_ndims(space);
  std::vector<hsize_t> dims(rank), chunk(rank);
  H5Sget_simple_extent_dims(space, dims.data(), nullptr);
  H5Pget_chunk(plist, rank, chunk.data());
  std::size_t chunkBytes = d.component;
  for (hsize_t c : chunk) chunkBytes *= c;
  const bool planes = shuffled(set);
  std::vector<hsize_t> offset(rank, 0);
  std::vector<unsigned char> stored;
  for (hsize_t row = 0; row < dims[0]; row += chunk[0]) {
    offset[0] = row;
    hsize_t size = 0;
    if (H5Dget_chunk_storage_size(set, offset.data(), &size) < 0 || size == 0) continue;
    stored.resize(size);
    std::uint32_t filters = 0;
    H5Dread_chunk(set, H5P_DEFAULT, offset.data(), &filters, stored.data());
    auto& raw = d.chunks.emplace_back(chunkBytes);
    if (!Tessal::kq::decodeChunk(stored.data(), size, d.component, planes, raw.data(),
                                 chunkBytes)) {
      std::fprintf(stderr, "%s: a chunk does not unpack\n", path.c_str());
      std::exit(1);
    }
    d.storedBytes += size;
  }
  H5Sclose(space), H5Tclose(type), H5Pclose(plist), H5Dclose(set);
  return d;
}

herr_t collect(hid_t, const char* name, const H5O_info_t* info, void* paths) {
  if (info->type == H5O_TYPE_DATASET)
    static_cast<std::vector<std::string>*>(paths)->push_back(std::string("/") + name);
  return 0;
}

void shufflePlanes(const unsigned char* in, std::size_t bytes, std::size_t size,
                   unsigned char* out) {
  const std::size_t n = bytes / size;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t b = 0; b < size; ++b) out[b * n + i] = in[i * size + b];
}

// Per byte plane: libdeflate level 1 of the plane alone, its size and time over all chunks.
void printPlanes(const Dataset& d) {
  libdeflate_compressor* c = libdeflate_alloc_compressor(1);
  std::vector<double> seconds(d.component, 0.0);
  std::vector<std::size_t> packed(d.component, 0);
  std::vector<double> runSeconds(d.component, 0.0);
  std::vector<std::uint64_t> runBits(d.component, 0);
  Tessal::kq::RunTokens tokens;
  std::vector<unsigned char> planes, out;
  for (const auto& raw : d.chunks) {
    planes.resize(raw.size());
    shufflePlanes(raw.data(), raw.size(), d.component, planes.data());
    const std::size_t n = raw.size() / d.component;
    out.resize(libdeflate_deflate_compress_bound(c, n));
    for (std::size_t p = 0; p < d.component; ++p) {
      const double start = cpuSeconds();
      packed[p] += libdeflate_deflate_compress(c, planes.data() + p * n, n, out.data(), out.size());
      seconds[p] += cpuSeconds() - start;
      const double runStart = cpuSeconds();
      tokens.scan(planes.data() + p * n, n);
      const auto block = Tessal::kq::planRunBlock(tokens);
      std::vector<unsigned char> coded;
      Tessal::kq::BitSink sink(coded);
      Tessal::kq::appendRunBlock(planes.data() + p * n, tokens, block, true, sink);
      sink.alignToByte();
      sink.finish();
      runSeconds[p] += cpuSeconds() - runStart;
      runBits[p] += block.bits;
    }
  }
  const double raw = double(d.chunks.size() * (d.chunks.empty() ? 0 : d.chunks[0].size()));
  for (std::size_t p = 0; p < d.component; ++p)
    std::printf("    plane %zu: %6.2f MB -> %6.2f MB, %7.1f ms; runs %6.2f MB, %7.1f ms\n", p,
                raw / d.component / 1e6, double(packed[p]) / 1e6, seconds[p] * 1e3,
                double(runBits[p]) / 8e6, runSeconds[p] * 1e3);
  libdeflate_free_compressor(c);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: bench_chunk_codec FILE.kq [--rounds N] [--planes]\n");
    return 2;
  }
  int rounds = 3;
  bool planes = false;
  for (int i = 2; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--rounds") && i + 1 < argc)
      rounds = std::atoi(argv[++i]);
    else if (!std::strcmp(argv[i], "--planes"))
      planes = true;
  }
  const hid_t file = H5Fopen(argv[1], H5F_ACC_RDONLY, H5P_DEFAULT);
  if (file < 0) return 1;
  std::vector<std::string> paths;
  H5Ovisit2(file, H5_INDEX_NAME, H5_ITER_NATIVE, collect, &paths, H5O_INFO_BASIC);
  double totalRaw = 0, totalStored = 0, totalPacked = 0, totalSeconds = 0;
  std::vector<unsigned char> out;
  for (const auto& path : paths) {
    const Dataset d = readChunks(file, path);
    if (d.chunks.empty()) continue;
    double best = 1e30;
    std::size_t packed = 0;
    for (int r = 0; r < rounds; ++r) {
      packed = 0;
      const double start = cpuSeconds();
      for (const auto& raw : d.chunks) {
        Tessal::kq::encodeChunk(raw.data(), raw.size(), d.component, out);
        packed += out.size();
      }
      best = std::min(best, cpuSeconds() - start);
    }
    // The packed chunks must unpack to the values read.
    std::vector<unsigned char> back;
    for (const auto& raw : d.chunks) {
      Tessal::kq::encodeChunk(raw.data(), raw.size(), d.component, out);
      back.resize(raw.size());
      if (!Tessal::kq::decodeChunk(out.data(), out.size(), d.component, true, back.data(),
                                   back.size()) ||
          back != raw) {
        std::fprintf(stderr, "%s: a chunk packed by this build does not unpack\n", path.c_str());
        return 1;
      }
    }
    const double raw = double(d.chunks.size() * d.chunks[0].size());
    std::printf("%-60s %zu B %8.2f MB raw %8.2f stored %8.2f packed %8.1f ms\n", path.c_str(),
                d.component, raw / 1e6, double(d.storedBytes) / 1e6, double(packed) / 1e6,
                best * 1e3);
    if (planes) printPlanes(d);
    totalRaw += raw, totalStored += double(d.storedBytes), totalPacked += double(packed);
    totalSeconds += best;
  }
  std::printf("total: %.2f MB raw, %.2f MB stored, %.2f MB packed, %.1f ms\n", totalRaw / 1e6,
              totalStored / 1e6, totalPacked / 1e6, totalSeconds * 1e3);
  H5Fclose(file);
  return 0;
}
