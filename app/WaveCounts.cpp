#include "app/WaveCounts.hpp"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>

#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

void addFragmentSizes(const Vorlap::StrongPtr<Tessal::Grid>& grid, WaveCounts& counts) {
  auto times = grid ? (*grid)(schema::kGPSTime, "") : Vorlap::StrongPtr<Tessal::Field>();
  if (!times) return;
  auto ids = times->getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = times->getCreator(ids->at(f));
    if (!creator) continue;
    const auto extents = creator->extents();
    const std::uint64_t n = extents.empty() ? 0 : extents[0];
    counts.perFragment[ids->at(f)->getName()] += n;
    counts.total += n;
  }
}

// The fragment's number when `name` is one the module gives ("Fragment_12", no leading zeros).
std::optional<std::uint32_t> numberOf(const std::string& name) {
  const std::string_view prefix = schema::kFragmentPrefix;
  if (name.size() <= prefix.size() || name.size() > prefix.size() + 10 ||
      name.compare(0, prefix.size(), prefix) != 0)
    return std::nullopt;
  std::uint64_t number = 0;
  for (std::size_t i = prefix.size(); i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return std::nullopt;
    number = number * 10 + std::uint64_t(name[i] - '0');
  }
  if (number > UINT32_MAX || schema::fragmentName(std::uint32_t(number)) != name)
    return std::nullopt;
  return std::uint32_t(number);
}

}  // namespace

void WaveCounts::sumByNumber() {
  numbered_.clear();
  for (const auto& [name, waves] : perFragment)
    if (const auto number = numberOf(name)) numbered_.push_back({*number, waves});
  std::sort(numbered_.begin(), numbered_.end(),
            [](const Numbered& a, const Numbered& b) { return a.number < b.number; });
  std::uint64_t sum = 0;
  for (Numbered& n : numbered_) sum = n.wavesUpTo = sum + n.wavesUpTo;
}

std::uint64_t WaveCounts::before(unsigned fragment) const {
  // The last numbered fragment below `fragment` holds the sum up to it.
  auto it = std::lower_bound(numbered_.begin(), numbered_.end(), fragment,
                             [](const Numbered& n, unsigned f) { return n.number < f; });
  return it == numbered_.begin() ? 0 : std::prev(it)->wavesUpTo;
}

WaveCounts countWaves(const Tessal::BundlePtr& input) {
  WaveCounts counts;
  double t = 0.0;
  auto slice = (*input.get())(t);
  if (!slice) return counts;
  addFragmentSizes((*slice)(schema::kWaveformsGrid), counts);
  addFragmentSizes((*slice)(schema::kOnlineGrid), counts);
  counts.sumByNumber();
  return counts;
}

}  // namespace quillo::cli
