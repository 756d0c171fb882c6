// The simulated survey as a bundle of the data model whose fragments are simulated when
// asked for (one fragment kept at a time), and its saving to a .kq file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "sim/Survey.hpp"
#include "tessal/Bundle.hpp"

namespace quillo::sim {

// The grid of the simulator's truth, next to the module's input grids.
inline constexpr const char* kTruthGrid = "Truth";

// Names of the truth fields (grid "Truth": aligned with the rows of "Waveforms", with the
// records of "OPP", and one list of every echo).
namespace TruthField {
inline constexpr const char* RowEmitter = "WaveformEmittingShot";
inline constexpr const char* RowZone = "WaveformZone";
inline constexpr const char* RowRange = "WaveformRange";
inline constexpr const char* RowTarget = "WaveformTarget";
inline constexpr const char* OnlineEmitter = "OnlineEmittingShot";
inline constexpr const char* OnlineZone = "OnlineZone";
inline constexpr const char* OnlineRange = "OnlineRange";
inline constexpr const char* OnlineTarget = "OnlineTarget";
// One entry per echo recorded in the fragment, recorded or lost in the receiver's blind window.
inline constexpr const char* EchoEmitter = "EchoEmittingShot";
inline constexpr const char* EchoZone = "EchoZone";
inline constexpr const char* EchoRange = "EchoRange";
inline constexpr const char* EchoTarget = "EchoTarget";
inline constexpr const char* EchoRecorded = "EchoRecorded";
}  // namespace TruthField

// The "Shots" attribute that tells the module which data segment the survey is.
inline constexpr const char* kRdbSegmentAttribute = "RDB_Segment";

// Called after each fragment is simulated: fragments done, fragments in all.
using SurveyProgress = std::function<void(std::uint32_t done, std::uint32_t total)>;

Tessal::BundlePtr surveyBundle(const SurveyConfig& config, SurveyProgress progress = {});

// Writes the survey to `fileName`; returns the empty text or the error.
std::string writeSurvey(const SurveyConfig& config, const std::string& fileName,
                        SurveyProgress progress = {},
                        Tessal::KqLayout layout = Tessal::KqLayout::DatasetPerField);

}  // namespace quillo::sim
