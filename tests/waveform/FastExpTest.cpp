// The fit's exp against libm's over its whole input range.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "waveform/FastExp.hpp"

namespace FullWaveform {
namespace {

double relativeError(double x) {
  const double expected = std::exp(x);
  return std::fabs(expNonPositive(x) - expected) / expected;
}

TEST(FastExpTest, WithinAnUlpOrTwoOfLibmDownToTheFloor) {
  double worst = 0.0, at = 0.0;
  auto check = [&](double x) {
    const double e = relativeError(x);
    if (e > worst) worst = e, at = x;
  };
  const int steps = 2'000'000;  // every range reduction step k, many times over
  for (int i = 0; i <= steps; ++i) check(kExpFloor * double(i) / steps);
  std::mt19937_64 rng(3);
  std::uniform_real_distribution<double> gaussianRange(-50.0, 0.0);  // what the fit asks
  for (int i = 0; i < 1'000'000; ++i) check(gaussianRange(rng));
  for (double x = -1.0; x > -1e-300; x *= 0.5) check(x);  // tiny arguments
  // Either side of each rounding boundary of x / ln 2 (the reduced argument at its widest).
  for (int k = 0; k > -1021; --k)
    for (double half : {-0.5, 0.5}) {
      const double edge = (k + half) * std::log(2.0);
      if (edge <= 0.0 && edge >= kExpFloor) check(std::nextafter(edge, 0.0)), check(edge);
    }
  EXPECT_LT(worst, 5e-16) << "at " << at;
}

TEST(FastExpTest, EdgesOfTheRange) {
  EXPECT_EQ(expNonPositive(0.0), 1.0);
  EXPECT_EQ(expNonPositive(-0.0), 1.0);
  EXPECT_GT(expNonPositive(kExpFloor), 0.0);
  EXPECT_LT(relativeError(kExpFloor), 5e-16);
  // Below the floor libm's result is below 3.4e-308; the fit's is 0, not garbage from the
  // exponent field wrapping around.
  for (double x : {std::nextafter(kExpFloor, -1000.0), -709.0, -745.0, -1e6, -1e300,
                   -std::numeric_limits<double>::infinity()})
    EXPECT_EQ(expNonPositive(x), 0.0) << x;
}

}  // namespace
}  // namespace FullWaveform
