// Fragments handed to a save already encoded (the arrays a worker thread encoded while another
// thread saves): stored in the bytes a save of the plain arrays writes, by a whole save and
// a streaming one alike, and refused with their name when they do not fit their shape.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Arrays.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/EncodedArray.hpp"

using namespace Tessal;
using namespace quillo::test;
using Gemwold::PhysicalSpace::point;

namespace {

using Wave = MemArray<2, std::uint16_t>;

// Arrays of one chunk and of several (a last one cut short), of one byte, of points, of two
// dimensions, one small enough to be stored compact, and an empty one.
std::vector<std::pair<std::string, Vorlap::StrongPtr<MemBase>>> fragmentArrays(int f) {
  const std::size_t n = 400000 + 1000 * std::size_t(f);
  auto times = Vorlap::makeStrong<MemArray<1, double>>(n);
  auto zones = Vorlap::makeStrong<MemArray<1, std::uint8_t>>(n);
  auto positions = Vorlap::makeStrong<MemArray<1, point>>(n);
  for (std::size_t k = 0; k < n; ++k) {
    times->set(k, 1.0e5 + double(k) * 1e-6);
    zones->set(k, std::uint8_t(k % 7));
    positions->set(k, {double(k), -double(k % 1000), 0.25 * double(f)});
  }
  auto wave = Vorlap::makeStrong<Wave>(Wave::Extents{48, 30000});
  for (std::size_t k = 0; k < wave->size(); ++k) wave->set(k, std::uint16_t((k * 37) % 4096));
  return {{"GPSTime", times},
          {"MTA", zones},
          {"Positions", positions},
          {"Waveforms", wave},
          {"Range", makeArray<float>({1.5f, 2.5f, float(f), 3.5f})},
          {"Empty", makeArray<float>({})}};
}

std::vector<std::size_t> fieldExtents(const MemBase& a) {
  std::vector<std::size_t> e;
  for (unsigned d = 0; d < a.rank(); ++d) e.push_back(a.extent(d));
  return e;
}

void addFragment(Representation& rep, int f, bool encoded) {
  for (const auto& [name, array] : fragmentArrays(f)) {
    const std::string fragment = "Fragment_" + std::to_string(f);
    if (!encoded) {
      storeFragment(rep, name, fragment, array);
      continue;
    }
    Vorlap::StrongPtr<Field> field = rep.makeField(rep.makeFieldID(name), {}, {});
    auto creator = Vorlap::makeStrong<EncodedCreator>(
        std::make_shared<const EncodedArray>(encodeArray(*array)));
    EXPECT_EQ(creator->extents(), fieldExtents(*array)) << name;
    EXPECT_EQ(creator->elementType(), array->elementType()) << name;
    field->setCreator(field->makeFragmentID(fragment), creator);
  }
}

struct Survey {
  BundlePtr bundle = BundlePtr::make();
  Vorlap::StrongPtr<Representation> rep;
  explicit Survey() {
    auto grid = (*bundle.create())[0.0]->makeGrid("FWF");
    grid->attributes().setAttribute("Done", Vorlap::makeChunk<int>({1}));
    rep = grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  }
};

// Saves two fragments, streamed (each written as it comes) or at once.
std::string save(const std::string& file, bool encoded, bool streamed) {
  Survey s;
  if (!streamed) {
    for (int f = 0; f < 2; ++f) addFragment(*s.rep, f, encoded);
    return Bundle::save(s.bundle, file);
  }
  StreamingSave save(s.bundle, file);
  for (int f = 0; f < 2; ++f) {
    addFragment(*s.rep, f, encoded);
    if (std::string error = save.write(); !error.empty()) return error;
    auto waves = s.rep->findFieldByName("Waveforms");
    auto written = waves->getCreator(waves->getFragmentIDCollection()->at(f));
    EXPECT_EQ(dynamic_cast<EncodedCreator*>(written.get()), nullptr) << "the chunks are let go";
    EXPECT_EQ(written->extents(), (std::vector<std::size_t>{48, 30000}));
  }
  return save.finish();
}

}  // namespace

TEST(KqEncoded, EncodedFragmentsAreSavedInTheBytesOfPlainOnes) {
  TempDir dir;
  for (bool streamed : {false, true}) {
    const std::string plain = dir.file("plain.kq"), encoded = dir.file("encoded.kq");
    ASSERT_EQ(save(plain, false, streamed), "");
    ASSERT_EQ(save(encoded, true, streamed), "");
    EXPECT_TRUE(fileBytes(plain) == fileBytes(encoded)) << (streamed ? "streamed" : "whole");
  }
}

TEST(KqEncoded, AnEncodedArrayBeyondItsShapeIsRefusedAndLeavesNoFile) {
  TempDir dir;
  auto wrong = std::make_shared<EncodedArray>(encodeArray(*fragmentArrays(0)[0].second));
  wrong->chunks.push_back(wrong->chunks.front());  // one chunk more than the rows hold
  for (bool streamed : {false, true}) {
    Survey s;
    Vorlap::StrongPtr<Field> field = s.rep->makeField(s.rep->makeFieldID("GPSTime"), {}, {});
    field->setCreator(field->makeFragmentID("Fragment_0"),
                      Vorlap::makeStrong<EncodedCreator>(wrong));
    const std::string file = dir.file("wrong.kq");
    std::string error;
    if (streamed) {
      StreamingSave save(s.bundle, file);
      error = save.write();
      EXPECT_NE(save.finish(), "");
    } else {
      error = Bundle::save(s.bundle, file);
    }
    EXPECT_NE(error.find("fragment \"Fragment_0\" of field \"GPSTime\" has chunks that do not fit"),
              std::string::npos)
        << error;
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "no file, no temporary file";
  }
}
