// Scratch files written and read in pieces: the folder's files (vectored calls, more pieces
// than one call takes, empty pieces) and a file that has only the plain calls give the same
// bytes, and a read past what was written says so.
#include <gtest/gtest.h>

#include <numeric>
#include <span>

#include "support/TempDir.hpp"
#include "tessal/Scratch.hpp"

namespace {

using Pieces = std::vector<std::vector<std::uint8_t>>;

// Scratch space in memory, through append and read only: the pieces go the default way.
class PlainScratchFile final : public Tessal::ScratchFile {
 public:
  std::int64_t append(const std::vector<std::uint8_t>& bytes) override {
    const auto at = std::int64_t(bytes_.size());
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return at;
  }
  bool read(std::int64_t offset, std::size_t count, std::vector<std::uint8_t>& out,
            std::string& error) const override {
    if (std::size_t(offset) + count > bytes_.size()) return error = "the file ends early", false;
    out.assign(bytes_.begin() + offset, bytes_.begin() + offset + std::int64_t(count));
    return true;
  }

 private:
  std::vector<std::uint8_t> bytes_;
};

// Pieces of varied sizes (some empty), numbered bytes so that a shifted read shows.
Pieces makePieces(std::size_t count, std::uint8_t seed) {
  Pieces pieces(count);
  for (std::size_t k = 0; k < count; ++k) {
    pieces[k].resize(k % 7 == 3 ? 0 : 1 + (k * 37) % 300);
    std::iota(pieces[k].begin(), pieces[k].end(), std::uint8_t(seed + k));
  }
  return pieces;
}

std::vector<std::span<const std::uint8_t>> toWrite(const Pieces& pieces) {
  return {pieces.begin(), pieces.end()};
}

// Room shaped like `like`, and the places to read into.
Pieces roomLike(const Pieces& like, std::vector<std::span<std::uint8_t>>& places) {
  Pieces room;
  for (const auto& p : like) room.emplace_back(p.size(), 0xEE);
  places.assign(room.begin(), room.end());
  return room;
}

void expectRoundTrip(Tessal::ScratchFile& file) {
  // 2,500 pieces: more than one vectored call takes.
  const Pieces first = makePieces(2500, 1), second = makePieces(40, 99);
  const std::int64_t at1 = file.appendPieces(toWrite(first));
  const std::int64_t at2 = file.appendPieces(toWrite(second));
  ASSERT_EQ(at1, 0);
  std::size_t firstBytes = 0;
  for (const auto& p : first) firstBytes += p.size();
  ASSERT_EQ(at2, std::int64_t(firstBytes));
  std::string error;
  for (const auto& [pieces, at] : {std::pair{&second, at2}, std::pair{&first, at1}}) {
    std::vector<std::span<std::uint8_t>> places;
    Pieces room = roomLike(*pieces, places);
    ASSERT_TRUE(file.readPieces(at, places, error)) << error;
    EXPECT_EQ(room, *pieces);
  }
  // Past the end: the error says so, whichever way the file reads.
  std::vector<std::span<std::uint8_t>> places;
  Pieces room = roomLike(second, places);
  EXPECT_FALSE(file.readPieces(at2 + 1, places, error));
  EXPECT_EQ(error, "the file ends early");
}

}  // namespace

TEST(ScratchFile, PiecesComeBackAsWrittenInTheFolderAndThroughPlainCalls) {
  quillo::test::TempDir dir;
  const auto saved = Tessal::scratchFolder();
  Tessal::setScratchFolder(dir.path());
  auto folderFile = Tessal::openScratchFile();
  Tessal::setScratchFolder(saved);
  ASSERT_TRUE(folderFile);
  expectRoundTrip(*folderFile);
  PlainScratchFile plain;
  expectRoundTrip(plain);
}
