// Per-fragment loading: makes a fragment current and fetches the arrays of the three grid
// containers. Reads the input grids; writes fragmentName, the containers' fragNr and arrays.
// A fragment that cannot be used is refused; `loadProblem` names the file, the fragment, the
// grid, the field and the problem for hosts that want to tell the user more.
#include "store/FragmentLoading.hpp"

#include "store/FatBoy.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

std::string fragmentNameOf(std::uint32_t fragNr) {
  return schema::fragmentName(fragNr);
}

std::string fragmentPlace(const std::string& fileName, const std::string& fragmentName) {
  return fileName.empty() ? fragmentName : fileName + ", " + fragmentName;
}

namespace {

using Tessal::MemArray;
using namespace Gemwold::PhysicalSpace;

template <class A>
struct ArrayShape;
template <unsigned N, class E>
struct ArrayShape<MemArray<N, E>> {
  static constexpr unsigned rank = N;
  static constexpr Tessal::ElementType type = Tessal::elementTypeOf<E>();
};

std::string typeText(Tessal::ElementType type, std::size_t rank) {
  return std::string(Tessal::elementTypeName(type)) + (rank == 2 ? " rows" : "");
}

// Why the named field gives no array of type A for the container's fragment.
template <class A, class R>
std::string whyMissing(const GridContainer<R>& c, const std::string& fieldName) {
  const std::string field = "field \"" + fieldName + "\" ";
  auto f = (*c.G)(fieldName, "");
  if (!f) return field + "is missing";
  auto id = findFragmentID(c, fieldName);
  if (!id) return field + "has no " + fragmentNameOf(c.fragNr);
  auto creator = f->getCreator(id);
  if (creator) {
    const auto type = creator->elementType();
    const auto rank = creator->extents().size();
    if (type != ArrayShape<A>::type || rank != ArrayShape<A>::rank)
      return field + "holds " + typeText(type, rank) + ", not " +
             typeText(ArrayShape<A>::type, ArrayShape<A>::rank);
  }
  return field + "cannot be read";
}

// Fetches one array into `out`; on failure appends why to `problem` (the first one only).
template <class A, class R>
void fetchInto(const GridContainer<R>& c, const std::string& fieldName, Vorlap::StrongPtr<A>& out,
               std::string& problem) {
  out = fetchFragmentArray<A>(c, fieldName);
  if (!out && problem.empty()) problem = whyMissing<A>(c, fieldName);
}

std::string lengthProblem(const std::string& field, std::size_t n, const std::string& reference,
                          std::size_t expected) {
  if (n == expected) return "";
  return "field \"" + field + "\" holds " + std::to_string(n) + " values, \"" + reference + "\" " +
         std::to_string(expected);
}

// Shots arrays are required too: every query reads them.
std::string loadShots(GridContainer<SHOT_Data>& shots) {
  auto& a = shots.arrays;
  std::string problem;
  fetchInto(shots, schema::kPositions, a.Positions, problem);
  fetchInto(shots, schema::kGPSTime, a.GPSTime, problem);
  fetchInto(shots, schema::kDirectionDelta, a.DirectionDelta, problem);
  if (!problem.empty()) return problem;
  // Arrays of different lengths would let a query read past the shorter one.
  const auto n = a.GPSTime->size();
  problem = lengthProblem(schema::kPositions, a.Positions->size(), schema::kGPSTime, n);
  if (problem.empty())
    problem = lengthProblem(schema::kDirectionDelta, a.DirectionDelta->size(), schema::kGPSTime, n);
  return problem;
}

std::string loadWaveforms(GridContainer<FWF_Data>& fwf) {
  auto& a = fwf.arrays;
  std::string problem;
  fetchInto(fwf, schema::kGPSTime, a.GPSTime, problem);
  fetchInto(fwf, schema::kFWFLength, a.FWFLength, problem);
  fetchInto(fwf, schema::kWaveformSamples, a.Waveforms, problem);
  fetchInto(fwf, schema::kChannel, a.Channel, problem);
  fetchInto(fwf, schema::kSBLTime, a.SBL_Time, problem);
  if (!problem.empty()) return problem;
  const auto rows = a.Waveforms->extent(1);
  if (rows > 0 && a.Waveforms->extent(0) == 0) return "field \"Waveforms\" holds rows of 0 samples";
  for (auto [name, n] : {std::pair<const char*, std::size_t>{schema::kGPSTime, a.GPSTime->size()},
                         {schema::kFWFLength, a.FWFLength->size()},
                         {schema::kChannel, a.Channel->size()},
                         {schema::kSBLTime, a.SBL_Time->size()}}) {
    problem = lengthProblem(name, n, schema::kWaveformSamples, rows);
    if (!problem.empty()) return problem + " rows";
  }
  return "";
}

// `note` tells when a "Reflectance" array of another length was set aside.
std::string loadOnline(GridContainer<OPP_Data>& opp, std::string& note) {
  auto& a = opp.arrays;
  std::string problem;
  fetchInto(opp, schema::kGPSTime, a.GPSTime, problem);
  fetchInto(opp, schema::kRange, a.Range, problem);
  fetchInto(opp, schema::kAmplitude, a.Amplitude, problem);
  fetchInto(opp, schema::kChannel, a.Channel, problem);
  if (!problem.empty()) return problem;
  a.Reflectance = fetchFragmentArray<MemArray<1, float>>(opp, schema::kReflectance);
  const auto n = a.GPSTime->size();
  for (auto [name, size] : {std::pair<const char*, std::size_t>{schema::kRange, a.Range->size()},
                            {schema::kAmplitude, a.Amplitude->size()},
                            {schema::kChannel, a.Channel->size()}}) {
    problem = lengthProblem(name, size, schema::kGPSTime, n);
    if (!problem.empty()) return problem;
  }
  if (a.Reflectance && a.Reflectance->size() != n) {
    note = lengthProblem(schema::kReflectance, a.Reflectance->size(), schema::kGPSTime, n);
    a.Reflectance.reset();
  }
  // Online data without reflectance: zeros stand in.
  if (!a.Reflectance) a.Reflectance = Vorlap::makeStrong<MemArray<1, float>>(n);
  return "";
}

}  // namespace

template <class T>
bool FatBoy<T>::ini(const unsigned& fragNr) {
  shotColumns_.set = false;
  SHOT->fragNr = fragNr;
  const std::string place = fragmentPlace(input->inputFileName, fragmentNameOf(fragNr));
  // The driver reports a refused fragment as broken; why is kept for hosts that ask.
  loadProblem.clear();
  auto refuse = [&](const char* grid, const std::string& problem) {
    loadProblem = "FatBoy::ini " + place + ": grid \"" + grid + "\": " + problem;
    return false;
  };
  auto id = findFragmentID(*SHOT, schema::kPositions);
  // Without the identifier there is no fragment to name, and no query could be answered.
  if (!id)
    return refuse(schema::kShotsGrid,
                  whyMissing<PointArray::element_type>(*SHOT, schema::kPositions));
  fragmentName = id->getName();
  // Each grid's arrays of the last fragment go before this one's are read (every load below
  // sets all of them): kept until replaced, two fragments' waveform samples were held at once.
  SHOT->arrays = {};
  std::string problem = loadShots(*SHOT);
  if (!problem.empty()) return refuse(schema::kShotsGrid, problem);
  if (FWF) {
    FWF->fragNr = fragNr;
    FWF->arrays = {};
    problem = loadWaveforms(*FWF);
    if (!problem.empty()) return refuse(schema::kWaveformsGrid, problem);
  }
  if (OPP) {
    OPP->fragNr = fragNr;
    OPP->arrays = {};
    std::string note;
    problem = loadOnline(*OPP, note);
    if (!problem.empty()) return refuse(schema::kOnlineGrid, problem);
    if (!note.empty())
      loadProblem = "FatBoy::ini " + place + ": grid \"OPP\": " + note + "; zeros stand in";
  }
  return true;
}

template <class T>
void FatBoy<T>::dropWaveArrays() {
  if (FWF) FWF->arrays = {};
  if (OPP) OPP->arrays = {};
}

template bool FatBoy<unsigned short>::ini(const unsigned&);
template void FatBoy<unsigned short>::dropWaveArrays();

}  // namespace FullWaveform
