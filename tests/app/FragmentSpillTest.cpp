// Fragments set aside in the scratch file while they wait for the writer: encoded chunks and
// plain arrays (one and two dimensions, strided) come back with the same values, parts in any
// order; what cannot go (three dimensions, no scratch space) stays in memory; a lost read is an
// error naming the scratch folder.
#include <gtest/gtest.h>

#include <numeric>

#include "app/CliError.hpp"
#include "app/FragmentSpill.hpp"
#include "support/TempDir.hpp"
#include "tessal/MemArray.hpp"

using namespace quillo::cli;

namespace {

template <unsigned N, class T>
Vorlap::StrongPtr<Tessal::MemBase> numbered(const typename Tessal::MemArray<N, T>::Extents& e,
                                            int from) {
  auto a = Vorlap::makeStrong<Tessal::MemArray<N, T>>(e);
  for (std::size_t k = 0; k < a->size(); ++k) a->set(k, T(from + int(k)));
  return a;
}

// Every other element of a block: not contiguous, copied out element by element.
Vorlap::StrongPtr<Tessal::MemBase> strided(int from) {
  auto block = Vorlap::makeStrong<Tessal::DataBlock<double>>();
  block->values.resize(200);
  std::iota(block->values.begin(), block->values.end(), double(from));
  return Vorlap::makeStrong<Tessal::MemArray<1, double>>(Tessal::MemArray<1, double>::Extents{100},
                                                         block, 0, 2);
}

std::shared_ptr<Tessal::EncodedArray> encoded(int from) {
  auto e = std::make_shared<Tessal::EncodedArray>();
  for (std::size_t n : {5000, 0, 17}) {
    e->chunks.emplace_back(n);
    std::iota(e->chunks.back().begin(), e->chunks.back().end(), std::uint8_t(from));
  }
  return e;
}

// A fragment's part: an encoded array, plain ones of rank 1 and 2, a strided one and one of
// rank 3.
OutputPart makePart(int from) {
  OutputPart part;
  auto add = [&](Vorlap::StrongPtr<Tessal::MemBase> data) {
    part.arrays.push_back(
        {"chart", "f" + std::to_string(part.arrays.size()), "frag", data, {}, {}, {}});
  };
  add({});
  part.arrays.back().encoded = encoded(from);
  add(numbered<1, float>({1000}, from));
  add(numbered<2, std::uint16_t>({30, 7}, from));
  add(strided(from));
  add(numbered<3, std::int32_t>({2, 3, 4}, from));
  return part;
}

std::vector<double> valuesOf(const Tessal::MemBase& data) {
  std::vector<double> values;
  for (std::size_t k = 0; k < data.nElements(); ++k) values.push_back(data.component(k, 0));
  return values;
}

void expectSameArrays(const OutputPart& got, const OutputPart& want) {
  ASSERT_EQ(got.arrays.size(), want.arrays.size());
  for (std::size_t i = 0; i < got.arrays.size(); ++i) {
    const FieldArray &g = got.arrays[i], &w = want.arrays[i];
    EXPECT_EQ(g.setAside.offset, -1) << i;
    if (w.encoded) {
      ASSERT_TRUE(g.encoded);
      EXPECT_EQ(g.encoded->chunks, w.encoded->chunks) << i;
      continue;
    }
    ASSERT_TRUE(g.data) << i;
    EXPECT_EQ(g.data->rank(), w.data->rank()) << i;
    EXPECT_EQ(g.data->elementType(), w.data->elementType()) << i;
    EXPECT_EQ(valuesOf(*g.data), valuesOf(*w.data)) << i;
  }
}

// Copies of the part's arrays (the spill empties the originals).
OutputPart copyOf(const OutputPart& part) {
  OutputPart copy = part;
  for (FieldArray& a : copy.arrays)
    if (a.encoded) a.encoded = std::make_shared<Tessal::EncodedArray>(*a.encoded);
  return copy;
}

class ScratchIn {
 public:
  explicit ScratchIn(const std::filesystem::path& folder) : saved_(Tessal::scratchFolder()) {
    Tessal::setScratchFolder(folder);
  }
  ~ScratchIn() { Tessal::setScratchFolder(saved_); }

 private:
  std::filesystem::path saved_;
};

}  // namespace

TEST(FragmentSpill, PartsComeBackWithTheirValuesInAnyOrder) {
  quillo::test::TempDir dir;
  ScratchIn scratch(dir.path());
  FragmentSpill spill;
  std::vector<OutputPart> parts, originals;
  for (int p = 0; p < 3; ++p) {
    parts.push_back(makePart(10 * p));
    originals.push_back(copyOf(parts.back()));
    spill.setAside(parts.back());
    for (std::size_t i = 0; i + 1 < parts.back().arrays.size(); ++i) {
      const FieldArray& a = parts.back().arrays[i];
      EXPECT_GE(a.setAside.offset, 0) << i;
      EXPECT_FALSE(a.data) << i;
      if (a.encoded) {
        EXPECT_TRUE(a.encoded->chunks.empty());
      }
    }
    EXPECT_EQ(parts.back().arrays.back().setAside.offset, -1) << "rank 3 stays in memory";
  }
  for (int p : {1, 2, 0}) {
    spill.bringBack(parts[p]);
    expectSameArrays(parts[p], originals[p]);
  }
}

TEST(FragmentSpill, WithoutScratchSpaceOrWhenReadsFailPartsSaySo) {
  {
    ScratchIn none("");
    FragmentSpill spill;
    OutputPart part = makePart(3);
    const OutputPart original = copyOf(part);
    spill.setAside(part);
    for (const FieldArray& a : part.arrays) EXPECT_EQ(a.setAside.offset, -1);
    spill.bringBack(part);
    expectSameArrays(part, original);
  }
  quillo::test::TempDir dir;
  ScratchIn scratch(dir.path());
  FragmentSpill spill;
  OutputPart part = makePart(5);
  spill.setAside(part);
  part.arrays[2].setAside.offset += 1;  // as if the file had lost its place
  try {
    spill.bringBack(part);
    FAIL() << "no error";
  } catch (const CliError& e) {
    EXPECT_EQ(std::string(e.what()), "a fragment set aside came back out of order");
  }
  OutputPart late = makePart(6);
  spill.setAside(late);
  for (FieldArray& a : late.arrays)  // past the file's end
    if (a.setAside.offset >= 0) a.setAside.offset += 1'000'000;
  try {
    spill.bringBack(late);
    FAIL() << "no error";
  } catch (const CliError& e) {
    EXPECT_NE(std::string(e.what()).find("cannot read back a fragment set aside in the scratch "
                                         "folder: the file ends early"),
              std::string::npos)
        << e.what();
  }
}
