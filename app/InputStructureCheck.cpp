// Input check, structure: the grids at time 0, every field the module reads with its element
// type, the fragment names Fragment_0 ... Fragment_N-1 of "Positions" (N counts the runs'
// fragments) in every other field, and equal lengths of the arrays of one fragment.
#include <map>
#include <set>

#include "app/InputCheckSteps.hpp"

namespace quillo::cli {

using namespace schema;

namespace {

const char* gridFix(const char* grid) {
  if (std::string(grid) == kShotsGrid)
    return "write the grid Shots with the fields GPSTime, Positions and Waveforms.DirectionDelta";
  return "";
}

// The fragment number a name stands for, or -1 when it is not Fragment_<n> as the module
// spells it (no sign, padding or leading zeros).
long fragmentNumber(const std::string& name) {
  const std::string prefix = kFragmentPrefix;
  if (name.rfind(prefix, 0) != 0) return -1;
  const std::string digits = name.substr(prefix.size());
  if (digits.empty() || digits.size() > 9 ||
      digits.find_first_not_of("0123456789") != std::string::npos)
    return -1;
  if (digits.size() > 1 && digits[0] == '0') return -1;
  return std::stol(digits);
}

Vorlap::StrongPtr<Tessal::Grid> gridOf(const InputGrids& grids, const std::string& name) {
  if (name == kShotsGrid) return grids.shots;
  if (name == kWaveformsGrid) return grids.waveforms;
  return grids.online;
}

std::string typeText(Tessal::ElementType type, std::size_t rank) {
  return std::string(Tessal::elementTypeName(type)) + (rank == 2 ? " rank 2" : "");
}

void checkFragmentNames(const Tessal::Field& positions, CheckReport& report) {
  const auto ids = positions.getFragmentIDCollection();
  const std::size_t count = ids->size();
  const std::string where = fieldPlace(kShotsGrid, kPositions);
  for (std::size_t i = 0; i < count; ++i) {
    const std::string& name = ids->at(i)->getName();
    const long number = fragmentNumber(name);
    if (number < 0 || std::size_t(number) >= count)
      report.add(Severity::Error, where + ", fragment \"" + name + "\"",
                 "is not among Fragment_0 ... Fragment_" + std::to_string(count - 1) +
                     ": the run never reaches it",
                 "number the fragments from 0 without gaps, as Fragment_0, Fragment_1, ...");
  }
  for (std::uint32_t f = 0; f < count; ++f)
    if (!ids->findFragmentIDByName(fragmentName(f)))
      report.add(
          Severity::Error, where,
          "has no " + fragmentName(f) + " although it has " + std::to_string(count) + " fragments",
          "number the fragments from 0 without gaps");
}

// The fragment's length in records (rows for rank-2 samples); false when it is unusable.
bool fragmentLength(const FieldRule& rule, const Tessal::CreativeArrayBase& creator,
                    const std::string& place, const std::string& name, CheckReport& report,
                    std::size_t& length) {
  const std::vector<std::size_t> extents = creator.extents();
  if (creator.elementType() != rule.type || extents.size() != rule.rank) {
    report.add(Severity::Error, place + ", " + name,
               "holds " + typeText(creator.elementType(), extents.size()) + ", the module reads " +
                   typeText(rule.type, rule.rank) + " (other data count as missing)",
               std::string("store it as ") + Tessal::elementTypeName(rule.type) +
                   " with element_type \"" + Tessal::elementTypeName(rule.type) + "\"");
    return false;
  }
  length = rule.rank == 2 ? extents[1] : extents[0];
  return true;
}

// Each fragment's length per grid: the first field checked sets it, the others must agree.
void checkField(const FieldRule& rule, const Vorlap::StrongPtr<Tessal::Grid>& grid,
                std::uint32_t fragments, std::map<std::string, std::vector<long long>>& lengths,
                CheckReport& report) {
  const std::string place = fieldPlace(rule.grid, rule.field);
  auto field = (*grid)(rule.field, "");
  if (!field) {
    if (rule.required)
      report.add(Severity::Error, place, "is missing",
                 std::string("write it (") + typeText(rule.type, rule.rank) +
                     ") with one fragment per shot fragment");
    else
      report.add(Severity::Default, place, "is missing: reflectance 0 is used");
    return;
  }
  auto& expected = lengths[rule.grid];
  expected.resize(fragments, -1);
  const auto ids = field->getFragmentIDCollection();
  for (std::uint32_t f = 0; f < fragments; ++f) {
    const std::string name = fragmentName(f);
    const auto id = ids->findFragmentIDByName(name);
    const auto creator =
        id ? field->getCreator(id) : Vorlap::StrongPtr<Tessal::CreativeArrayBase>();
    std::size_t length = 0;
    if (!creator) {
      // The run still works: it skips the fragment as broken and writes the others.
      report.add(Severity::Warning, place,
                 "has no " + name + ": the run skips that fragment as broken",
                 "write every field of the grid for every shot fragment (an empty array when "
                 "a fragment has no records)");
    } else if (fragmentLength(rule, *creator, place, name, report, length)) {
      if (expected[f] < 0)
        expected[f] = static_cast<long long>(length);
      else if (expected[f] != static_cast<long long>(length))
        report.add(Severity::Warning, place + ", " + name,
                   "has " + std::to_string(length) + " elements, the grid's other fields " +
                       std::to_string(expected[f]) + ": the run skips that fragment as broken",
                   "give every field of a grid one element per record of the fragment");
    }
  }
}

}  // namespace

std::string fieldPlace(const char* grid, const char* field) {
  return std::string("field \"") + field + "\" of grid \"" + grid + "\"";
}

Vorlap::StrongPtr<Tessal::CreativeArrayBase> fragmentCreator(
    const Vorlap::StrongPtr<Tessal::Grid>& grid, const char* field, std::uint32_t fragment) {
  auto f = grid ? (*grid)(field, "") : Vorlap::StrongPtr<Tessal::Field>();
  if (!f) return {};
  auto id = f->getFragmentIDCollection()->findFragmentIDByName(fragmentName(fragment));
  return id ? f->getCreator(id) : Vorlap::StrongPtr<Tessal::CreativeArrayBase>();
}

InputGrids findGrids(const Tessal::BundlePtr& bundle, const CheckScope& scope,
                     CheckReport& report) {
  const auto& slices = (*bundle.get()).slices();
  const auto at = slices.find(kSliceTime);
  if (at == slices.end()) {
    report.add(Severity::Error, "/slices",
               "has no slice with time 0: the module reads only that one",
               "write the grids under /slices/0 with the attribute time = 0");
    return {};
  }
  InputGrids grids{(*at->second)(kShotsGrid), (*at->second)(kWaveformsGrid),
                   (*at->second)(kOnlineGrid)};
  if (!scope.waveforms) grids.waveforms.reset();
  if (!scope.online) grids.online.reset();
  if (!grids.shots)
    report.add(Severity::Error, "grid \"Shots\"", "is missing", gridFix(kShotsGrid));
  if (!grids.waveforms && !grids.online)
    report.add(Severity::Error, "grids \"Waveforms\" and \"OPP\"",
               "are both missing (or ignored): there is nothing to resolve",
               "write the waveforms (grid Waveforms), the scanner's echoes (grid OPP) or both");
  return grids;
}

bool checkStructure(const InputGrids& grids, CheckReport& report) {
  if (!grids.shots) return false;
  auto positions = (*grids.shots)(kPositions, "");
  const std::size_t before = report.count(Severity::Error);
  if (positions) {
    report.fragments = static_cast<std::uint32_t>(positions->getNumberOfFragments());
    checkFragmentNames(*positions, report);
    if (report.fragments == 0)
      report.add(Severity::Error, fieldPlace(kShotsGrid, kPositions), "has no fragments",
                 "write the shots as Fragment_0, Fragment_1, ...");
  }
  std::map<std::string, std::vector<long long>> lengths;
  for (const FieldRule& rule : kFields)
    if (auto grid = gridOf(grids, rule.grid))
      checkField(rule, grid, report.fragments, lengths, report);
  auto total = [&](const char* grid) {
    std::uint64_t n = 0;
    for (long long v : lengths[grid]) n += v > 0 ? std::uint64_t(v) : 0;
    return n;
  };
  report.shots = total(kShotsGrid), report.waveformRows = total(kWaveformsGrid);
  report.onlineRecords = total(kOnlineGrid);
  return report.count(Severity::Error) == before;
}

}  // namespace quillo::cli
