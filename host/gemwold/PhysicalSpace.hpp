// Geometry types: a point and a vector of physical space, three doubles each.
#pragma once

namespace Gemwold {
namespace PhysicalSpace {

struct point {
  double x = 0.0, y = 0.0, z = 0.0;
  bool operator==(const point&) const = default;
};

struct vector {
  double x = 0.0, y = 0.0, z = 0.0;
  bool operator==(const vector&) const = default;
};

}  // namespace PhysicalSpace
}  // namespace Gemwold
