#include "support/Arrays.hpp"

namespace quillo::test {

void storeFragment(Tessal::Representation& rep, const std::string& fieldName,
                   const std::string& fragmentName,
                   const Vorlap::StrongPtr<Tessal::MemBase>& array) {
  auto id = rep.makeFieldID(fieldName);
  Vorlap::StrongPtr<Tessal::Field> field = rep.makeField(id, {}, {});
  auto frag = field->makeFragmentID(fragmentName);
  field->setPersistentData(array, frag, Vorlap::Cache::MemCache(), "");
}

}  // namespace quillo::test
