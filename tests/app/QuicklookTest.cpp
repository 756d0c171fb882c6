// `quillo quicklook`: the PNG decodes, has the requested size and shows the zone colours
// where the points are; bad requests leave no picture.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Command.hpp"
#include "support/ResultBundles.hpp"
#include "support/TempDir.hpp"

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

struct Png {
  int w = 0, h = 0;
  std::vector<unsigned char> rgb;
  std::array<int, 3> at(int x, int y) const {
    const unsigned char* p = &rgb[(std::size_t(y) * w + x) * 3];
    return {p[0], p[1], p[2]};
  }
  // Pixels of exactly this colour.
  int count(std::array<int, 3> c) const {
    int n = 0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) n += at(x, y) == c;
    return n;
  }
};

Png decode(const std::string& path) {
  Png png;
  int channels = 0;
  unsigned char* data = stbi_load(path.c_str(), &png.w, &png.h, &channels, 3);
  if (!data) return png;
  png.rgb.assign(data, data + std::size_t(png.w) * png.h * 3);
  stbi_image_free(data);
  return png;
}

// A 100 m square of zone-1 points with a 10 m patch of zone-3 ghosts on top in one corner.
ResultRecipe ghostSquare() {
  ResultRecipe recipe;
  for (int f = 0; f < 2; ++f) {
    recipe.fragments.emplace_back();
    for (int i = 0; i < 50; ++i)
      for (int j = 0; j < 100; ++j)
        recipe.fragments.back().push_back({.x = 5000.0 + i + 50 * f, .y = 7000.0 + j, .z = 10});
  }
  for (int i = 0; i < 10; ++i)
    for (int j = 0; j < 10; ++j)
      recipe.fragments[1].push_back({.x = 5090.0 + i, .y = 7090.0 + j, .z = 80, .mta = 3});
  return recipe;
}

}  // namespace

TEST(Quicklook, ZoneColoursWherePointsAre) {
  TempDir dir;
  const std::string result = dir.file("r.kq"), out = dir.file("q.png");
  ASSERT_EQ(Tessal::Bundle::save(makeResult(ghostSquare()), result), "");
  const auto r = runQuillo("quicklook " + result + " " + out + " --size 300");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const Png png = decode(out);
  ASSERT_EQ(png.w, 300);
  ASSERT_EQ(png.h, 300);
  // Zone 1 covers most of the square; the ghosts (zone 3) cover the north-east corner.
  const std::array<int, 3> zone1{60, 180, 75}, zone3{245, 130, 48};
  EXPECT_GT(png.count(zone1), 5000);
  EXPECT_GT(png.count(zone3), 30);
  EXPECT_LT(png.count(zone3), png.count(zone1) / 10);
  // The square is centred: its middle is zone 1, its north-east corner zone 3.
  EXPECT_EQ(png.at(128, 128), zone1);
  EXPECT_EQ(png.at(250, 7), zone3);
  EXPECT_EQ(png.at(2, 2), (std::array<int, 3>{16, 16, 16}));  // background outside the cloud
}

TEST(Quicklook, OtherColouringsAndRefusals) {
  TempDir dir;
  const std::string result = dir.file("r.kq");
  ASSERT_EQ(Tessal::Bundle::save(makeResult(ghostSquare()), result), "");
  for (const char* color : {"height", "reflectance", "classification"}) {
    const std::string out = dir.file(std::string(color) + ".png");
    const auto r = runQuillo("quicklook " + result + " " + out + " --size 128 --color " + color);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(decode(out).w, 128) << color;
  }
  const std::string out = dir.file("bad.png");
  for (const std::string args : {"--size 10", "--color pink", "--size 100000"}) {
    const auto r = runQuillo("quicklook " + result + " " + out + " " + args);
    EXPECT_NE(r.exitCode, 0) << args;
    EXPECT_FALSE(fs::exists(out)) << args;
  }
  const auto r = runQuillo("quicklook " + result + " " + dir.file("none/q.png"));
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.output.find("cannot write"), std::string::npos) << r.output;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 4);
}
