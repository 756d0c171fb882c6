// The scenes zone resolution is judged on: headings, scan patterns, scanners with and without
// shots between scan lines, flying heights whose ranges sit on zone boundaries, a gridded
// terrain with steep relief, and dust. Small for tests, full size for the benchmark figures.
#pragma once

#include <string>
#include <vector>

#include "sim/Survey.hpp"

namespace quillo::sim {

struct Scene {
  std::string name;
  SurveyConfig config;
};

enum class SceneSize { Small, Full };

std::vector<Scene> zoneScenes(SceneSize size);

// A terrain of ridges and gullies with faces steeper than 45 degrees, as if read from a LAS
// file, over about `extent` metres square.
std::shared_ptr<const HeightGrid> steepTerrain(double extent);

}  // namespace quillo::sim
