#include "support/BundleCompare.hpp"

#include <cstring>
#include <vector>

namespace quillo::test {

namespace {

std::vector<unsigned char> bytesOf(const Tessal::MemBase& data) {
  std::vector<unsigned char> bytes(data.nElements() * Tessal::elementBytes(data.elementType()));
  if (!bytes.empty()) data.copyOut(bytes.data());
  return bytes;
}

std::string compareFields(const Tessal::Field& a, const Tessal::Field& b, const std::string& at) {
  auto ia = a.getFragmentIDCollection(), ib = b.getFragmentIDCollection();
  if (ia->size() != ib->size()) return at + ": fragment counts differ";
  for (std::size_t f = 0; f < ia->size(); ++f) {
    const std::string where = at + "/" + ia->at(f)->getName();
    if (ia->at(f)->getName() != ib->at(f)->getName()) return where + ": names differ";
    auto ca = a.getCreator(ia->at(f)), cb = b.getCreator(ib->at(f));
    auto da = ca ? ca->create() : nullptr, db = cb ? cb->create() : nullptr;
    if (!da || !db) return where + ": unreadable";
    if (da->elementType() != db->elementType() || ca->extents() != cb->extents())
      return where + ": types or extents differ";
    if (bytesOf(*da) != bytesOf(*db)) return where + ": values differ";
  }
  return "";
}

}  // namespace

std::string firstDifference(const Tessal::BundlePtr& a, const Tessal::BundlePtr& b) {
  const auto& sa = a.get()->slices();
  const auto& sb = b.get()->slices();
  if (sa.size() != sb.size()) return "slice counts differ";
  for (auto ita = sa.begin(), itb = sb.begin(); ita != sa.end(); ++ita, ++itb) {
    const auto& ga = ita->second->grids();
    const auto& gb = itb->second->grids();
    if (ga.size() != gb.size()) return "grid counts differ";
    for (std::size_t g = 0; g < ga.size(); ++g) {
      const auto& ra = ga[g]->representations();
      const auto& rb = gb[g]->representations();
      if (ra.size() != rb.size()) return ga[g]->getName() + ": chart counts differ";
      for (std::size_t r = 0; r < ra.size(); ++r) {
        const auto& fa = ra[r]->fields();
        const auto& fb = rb[r]->fields();
        if (fa.size() != fb.size()) return ra[r]->getName() + ": field counts differ";
        for (std::size_t k = 0; k < fa.size(); ++k) {
          const std::string at =
              ga[g]->getName() + "/" + ra[r]->getName() + "/" + fa[k].field->getName();
          if (fa[k].field->getName() != fb[k].field->getName()) return at + ": names differ";
          if (auto d = compareFields(*fa[k].field, *fb[k].field, at); !d.empty()) return d;
        }
      }
    }
  }
  return "";
}

std::string firstFileDifference(const std::string& a, const std::string& b) {
  auto load = [](const std::string& file, bool& ok) {
    auto bundle = Tessal::BundlePtr::make();
    Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), bundle);
    return bundle;
  };
  bool okA = false, okB = false;
  auto ba = load(a, okA), bb = load(b, okB);
  if (!okA || !okB) return "cannot load " + (okA ? b : a);
  return firstDifference(ba, bb);
}

}  // namespace quillo::test
