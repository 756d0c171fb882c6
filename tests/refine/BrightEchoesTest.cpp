// Bright echoes on hand-made scans: a line-wise scanner 500 m above flat ground, one ground
// echo per shot with its true zone and an amplitude that varies from shot to shot by half;
// a bird placed on the ground by a wrong zone, a hundred times brighter, and the bright
// echoes a surface really returns: a roof brighter than the ground around it, a channel with
// a higher gain beside the low-gain one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "refine/RefineWindow.hpp"
#include "support/LineScan.hpp"
#include "support/RefineEchoes.hpp"

namespace FullWaveform {
namespace {

using quillo::test::LineScan;
constexpr double kLight = LineScan::kLight;
constexpr int kLines = LineScan::kLines, kPerLine = LineScan::kPerLine;
constexpr float kGround = 50.0f;  // the ground's amplitude in the low-gain channel, about

// The ground's echoes in the low-gain channel 1, their amplitude varying by half from shot
// to shot; added echoes in that channel too.
struct Scan : LineScan {
  Scan() {
    for (std::size_t k = 0; k < echoes.size(); ++k) {
      echoes[k].channel = 1;
      echoes[k].amplitude = kGround * float(1.0 + 0.25 * std::sin(1.7 * double(k)));
    }
  }
  std::size_t add(std::uint32_t shot, double range, float amplitude) {
    return LineScan::add(shot, range, 1, amplitude);
  }
};

RefineSettings withoutBrightEchoes() {
  RefineSettings s;
  s.brightRatio = 0.0;
  return s;
}

TEST(BrightEchoes, ABrightBirdOnTheGroundIsNoiseAndKeepsItsZone) {
  // Given to a shot a few zones earlier, a bird lands half a metre above the ground: it fits
  // every neighbouring line, and its own line's echoes lie around it.
  for (const int s : {300, 750, 1200}) {
    Scan scan;
    const std::uint32_t shot = Scan::shotAt(6, s);
    const std::size_t bird = scan.add(shot, scan.groundRange[shot] - 0.5, 100.0f * kGround);
    const RefineResult off = refineEchoZones(scan.shots, scan.echoes, withoutBrightEchoes());
    ASSERT_EQ(off.markedNoise, 0u) << "the bird must fit the surface for the case to matter";
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(r.flag[bird], kMarkedNoise) << s;
    EXPECT_EQ(r.zone[bird], scan.echoes[bird].zone);
    EXPECT_EQ(r.markedNoise, 1u);
    EXPECT_EQ(r.moved, 0u);
    // Five times the ground is not enough by the default ratio; an unknown amplitude tells
    // nothing.
    scan.echoes[bird].amplitude = 5.0f * kGround;
    EXPECT_EQ(refineEchoZones(scan.shots, scan.echoes).markedNoise, 0u);
    scan.echoes[bird].amplitude = 0.0f;
    EXPECT_EQ(refineEchoZones(scan.shots, scan.echoes).markedNoise, 0u);
  }
}

// The scan fed to a window two lines a fragment, in blocks of two lines; each echo's result.
RefineResult windowed(const Scan& scan) {
  RefineResult result;
  result.flag.assign(scan.echoes.size(), kUntouched);
  std::vector<std::vector<std::size_t>> members(kLines / 2);
  for (std::size_t i = 0; i < scan.echoes.size(); ++i)
    members[std::min<std::size_t>(members.size() - 1,
                                  (scan.echoes[i].emitter + scan.echoes[i].zone) / (2 * kPerLine))]
        .push_back(i);
  RefineWindow window(kLight, false, {}, WindowSettings{12, 2, 6});
  const auto apply = [&](const RefinedBlock& b) {
    for (const auto& f : b.fragments)
      for (std::size_t j = 0; j < f.echo.size(); ++j)
        if (f.echo[j] >= 0) result.flag[members[f.key][j]] = b.result.flag[std::size_t(f.echo[j])];
  };
  for (std::size_t f = 0; f < members.size(); ++f) {
    const std::size_t lo = f * 2 * kPerLine;
    window.add(f, quillo::test::shotSlice(scan.shots, lo, lo + 2 * kPerLine),
               quillo::test::windowEchoes(scan.shots, scan.echoes, members[f]));
    window.refineReady(false, apply);
  }
  window.refineReady(true, apply);
  return result;
}

TEST(BrightEchoes, AWindowCarriesEachEchosChannelAndAmplitude) {
  Scan scan;
  const std::uint32_t shot = Scan::shotAt(5, 900);
  const std::size_t bird = scan.add(shot, scan.groundRange[shot] - 0.5, 100.0f * kGround);
  const RefineResult whole = refineEchoZones(scan.shots, scan.echoes);
  ASSERT_EQ(whole.flag[bird], kMarkedNoise);
  EXPECT_EQ(windowed(scan).flag, whole.flag);
}

TEST(BrightEchoes, BrightSurfacesAndAHighGainChannelStay) {
  // A roof 20 times as bright as the ground around it, in every line.
  Scan roof;
  for (int l = 0; l < kLines; ++l)
    for (int s = 700; s < 760; ++s) roof.echoes[Scan::shotAt(l, s)].amplitude *= 20.0f;
  EXPECT_EQ(refineEchoZones(roof.shots, roof.echoes).markedNoise, 0u);

  // Every other shot recorded in the high-gain channel 0, 16 times the amplitude: compared
  // with the low-gain echoes it would be bright everywhere, and would shield the bird.
  Scan gains;
  for (std::size_t i = 0; i < gains.echoes.size(); i += 2)
    gains.echoes[i].channel = 0, gains.echoes[i].amplitude *= 16.0f;
  const std::uint32_t shot = Scan::shotAt(6, 601);
  const std::size_t bird = gains.add(shot, gains.groundRange[shot] - 0.5, 100.0f * kGround);
  const RefineResult r = refineEchoZones(gains.shots, gains.echoes);
  EXPECT_EQ(r.markedNoise, 1u);
  EXPECT_EQ(r.flag[bird], kMarkedNoise);
  // Two birds at one place fit each other, but among a line's ground echoes each still
  // stands out.
  const std::size_t second = gains.add(shot + 3, gains.groundRange[shot + 3] - 0.4, 80 * kGround);
  const RefineResult two = refineEchoZones(gains.shots, gains.echoes);
  EXPECT_EQ(two.flag[bird], kMarkedNoise);
  EXPECT_EQ(two.flag[second], kMarkedNoise);
}

// Every echo also recorded in the high-gain channel 0 at 8 times the amplitude, but over a
// lake (shots 700 to 800 of every line) the water is too faint for the low-gain channel 1.
Scan twoChannels() {
  Scan scan;
  const std::size_t ground = scan.echoes.size();
  for (std::size_t i = 0; i < ground; ++i) {
    RefineEcho high = scan.echoes[i];
    high.channel = 0, high.amplitude *= 8.0f;
    scan.echoes.push_back(high);
    if (i % kPerLine >= 700 && i % kPerLine < 800) scan.echoes[i].amplitude = 0.0f;
  }
  return scan;
}

TEST(BrightEchoes, ABirdAloneInItsChannelIsToldByTheOtherAtTheGainsRatio) {
  // A bird on the lake, in the low-gain channel only (the high-gain one saturated): nothing
  // of its channel around it, but the water of the other, at the ratio the echoes recorded
  // in both channels give.
  Scan scan = twoChannels();
  const std::uint32_t shot = Scan::shotAt(6, 750);
  const std::size_t bird = scan.add(shot, scan.groundRange[shot] - 0.5, 100.0f * kGround);
  RefineSettings ownChannel;
  ownChannel.acrossChannels = false;
  ASSERT_EQ(refineEchoZones(scan.shots, scan.echoes, ownChannel).flag[bird], kUntouched);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(r.flag[bird], kMarkedNoise);
  EXPECT_EQ(r.markedNoise, 1u);

  // A glint three times the water's, recorded in the low-gain channel, stays; so does the
  // bird where no echo is recorded in both channels (the ratio is unknown).
  Scan glint = twoChannels();
  glint.add(shot, glint.groundRange[shot], 3.0f * kGround);
  EXPECT_EQ(refineEchoZones(glint.shots, glint.echoes).markedNoise, 0u);
  Scan lake;
  for (std::uint32_t k = 0; k < kLines * kPerLine; ++k)
    if (k % kPerLine >= 700 && k % kPerLine < 800) lake.echoes[k].channel = 0;
  const std::size_t lone = lake.add(shot, lake.groundRange[shot] - 0.5, 100.0f * kGround);
  EXPECT_EQ(refineEchoZones(lake.shots, lake.echoes).flag[lone], kUntouched);
}

}  // namespace
}  // namespace FullWaveform
