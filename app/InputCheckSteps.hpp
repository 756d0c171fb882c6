// The steps of the input check, shared by its files: structure (InputStructureCheck.cpp),
// array values (InputValueCheck.cpp) and scanner attributes (ScannerCheck.cpp).
#pragma once

#include <string>
#include <vector>

#include "app/InputCheck.hpp"
#include "app/InputSchema.hpp"
#include "app/MapPositions.hpp"

namespace quillo::cli {

struct InputGrids {
  Vorlap::StrongPtr<Tessal::Grid> shots, waveforms, online;
};

// What the values tell the scanner check.
struct ShotFigures {
  std::vector<double> shotSteps;       // time between consecutive shots, s
  double lowest = 0.0, highest = 0.0;  // beam origin heights in the map frame, m
  bool any = false;
};

// "field \"GPSTime\" of grid \"Shots\"" and the like, for `where`.
std::string fieldPlace(const char* grid, const char* field);
// The fragment's creator; empty when the field or fragment is missing.
Vorlap::StrongPtr<Tessal::CreativeArrayBase> fragmentCreator(
    const Vorlap::StrongPtr<Tessal::Grid>& grid, const char* field, std::uint32_t fragment);
// The grid of each kind within `scope`; findings for grids that are missing.
InputGrids findGrids(const Tessal::BundlePtr& bundle, const CheckScope& scope, CheckReport& report);
// Fields, element types, fragment names and lengths; true when values can be read safely.
bool checkStructure(const InputGrids& grids, CheckReport& report);
void checkValues(const InputGrids& grids, const Transform& toMap, const CheckScope& scope,
                 CheckReport& report, ShotFigures& figures);
void checkScanner(const InputGrids& grids, const ShotFigures& figures, CheckReport& report);

}  // namespace quillo::cli
