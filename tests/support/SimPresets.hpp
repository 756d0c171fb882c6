// The simulator's presets for tests: a named preset's survey settings, failing the test
// when the name is unknown.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sim/Survey.hpp"

namespace quillo::test {

inline quillo::sim::SurveyConfig presetSurvey(const std::string& name = "tiny") {
  quillo::sim::SurveyConfig config;
  EXPECT_TRUE(quillo::sim::presetConfig(name, config)) << name;
  return config;
}

}  // namespace quillo::test
