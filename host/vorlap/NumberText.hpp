// The shortest decimal text that reads back to the same double (plain unless the exponent
// form is shorter; an exponent has a sign and at least two digits): 2.5, 100, 1e+06, 1e-04.
#pragma once

#include <charconv>
#include <string>

namespace Vorlap {

inline std::string shortestText(double v) {
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

}  // namespace Vorlap
