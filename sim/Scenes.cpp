// The scene list: one base survey (the procedural scene: hills, cliff, buildings, lake,
// forest) varied one setting at a time.
#include "sim/Scenes.hpp"

#include <cmath>

namespace quillo::sim {

namespace {

SurveyConfig baseScene(SceneSize size) {
  SurveyConfig c;
  presetConfig(size == SceneSize::Full ? "demo" : "tiny", c);
  if (size == SceneSize::Small)
    c.shots = 30000, c.fragmentShots = 15000, c.scanRate = 400.0;  // 12 scan lines
  return c;
}

template <class Change>
Scene variant(const SurveyConfig& base, std::string name, Change change) {
  Scene s{std::move(name), base};
  change(s.config);
  return s;
}

}  // namespace

std::shared_ptr<const HeightGrid> steepTerrain(double extent) {
  TerrainPoints p;
  constexpr double kSpacing = 2.0;
  const auto n = std::size_t(extent / kSpacing);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) {
      const double x = double(i) * kSpacing - 0.5 * extent, y = double(j) * kSpacing - 0.5 * extent;
      // Ridges 140 m high every 300 m across the track, their faces rising 80 m within 40 m.
      const double ridge = 140.0 * std::pow(std::fabs(std::sin(x / 95.0)), 4.0);
      const double step = 80.0 / (1.0 + std::exp(-(std::fmod(std::fabs(y), 500.0) - 250.0) / 8.0));
      p.x.push_back(x), p.y.push_back(y), p.z.push_back(ridge + step);
      p.classification.push_back(ridge > 100.0 ? 5 : 2);  // forest on the crests
    }
  return std::make_shared<HeightGrid>(p, "steep terrain");
}

std::vector<Scene> zoneScenes(SceneSize size) {
  const SurveyConfig base = baseScene(size);
  std::vector<Scene> scenes{{"hills, cliff, buildings, lake, forest", base}};
  for (double heading : {37.0, 90.0, 180.0, 270.0})
    scenes.push_back(variant(base, "heading " + std::to_string(int(heading)),
                             [heading](SurveyConfig& c) { c.heading = heading; }));
  scenes.push_back(variant(base, "radial", [](SurveyConfig& c) { c.pattern = Pattern::Radial; }));
  scenes.push_back(variant(base, "no shots between lines",
                           [](SurveyConfig& c) { c.shotsBetweenLines = false; }));
  for (double altitude : {450.0, 600.0, 700.0, 750.0})
    scenes.push_back(variant(base, "altitude " + std::to_string(int(altitude)) + " m",
                             [altitude](SurveyConfig& c) { c.altitude = altitude; }));
  const double extent = size == SceneSize::Full ? 2000.0 : 1200.0;
  scenes.push_back(variant(base, "steep terrain grid", [extent](SurveyConfig& c) {
    c.terrain = steepTerrain(extent);
    c.heading = 0.0;
  }));
  scenes.push_back(variant(base, "dust 1 %", [](SurveyConfig& c) { c.dustShare = 0.01; }));
  return scenes;
}

}  // namespace quillo::sim
