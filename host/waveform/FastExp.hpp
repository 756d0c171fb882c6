// exp(x) for x <= 0 as the Gaussian fit needs it (-u^2 / 2), written without branches or
// library calls so that the compiler vectorises loops over a window's samples. libm's exp is
// a call per sample that no loop around it can vectorise.
#pragma once

#include <bit>
#include <cstdint>

namespace FullWaveform {

// Below this exp(x) < 3.4e-308, and expNonPositive gives 0.
inline constexpr double kExpFloor = -708.0;

// Relative error below 1e-15 for kExpFloor <= x <= 0, 0 for x < kExpFloor. The same bits on
// every machine: plain multiplications and additions (no fused ones on the default target).
inline double expNonPositive(double x) {
  constexpr double log2e = 1.4426950408889634;
  // ln 2 in two parts, the first with its low 32 bits zero: k * ln2Hi is exact.
  constexpr double ln2Hi = 6.93147180369123816490e-01, ln2Lo = 1.90821492927058770002e-10;
  // Adding 1.5 * 2^52 rounds to an integer, which then sits in the low bits.
  constexpr double shifter = 0x1.8p52;
  const double t = x * log2e + shifter;
  const double k = t - shifter;                  // round(x / ln 2)
  const double r = (x - k * ln2Hi) - k * ln2Lo;  // |r| <= ln 2 / 2
  // Taylor series of e^r to r^13 (the remainder is below 4e-18 for |r| <= ln 2 / 2) as
  // 1 + (r + r^2 q(r)), q summed in Estrin's scheme: pairs of terms, then pairs of pairs,
  // which keeps the chain of dependent operations short (Horner's is thirteen deep). The
  // leading 1 comes last, so r is not rounded against it.
  const double r2 = r * r, r4 = r2 * r2;
  const double p23 = 0.5 + r * (1.0 / 6.0), p45 = 1.0 / 24.0 + r * (1.0 / 120.0);
  const double p67 = 1.0 / 720.0 + r * (1.0 / 5040.0);
  const double p89 = 1.0 / 40320.0 + r * (1.0 / 362880.0);
  const double p1011 = 1.0 / 3628800.0 + r * (1.0 / 39916800.0);
  const double p1213 = 1.0 / 479001600.0 + r * (1.0 / 6227020800.0);
  const double q = (p23 + r2 * p45) + r4 * ((p67 + r2 * p89) + r4 * (p1011 + r2 * p1213));
  const double p = 1.0 + (r + r2 * q);
  // 2^k from the integer in t's low bits: its exponent field is k + 1023.
  const std::uint64_t kBits =
      std::bit_cast<std::uint64_t>(t) - std::bit_cast<std::uint64_t>(shifter);
  const double scale = std::bit_cast<double>((kBits + 1023) << 52);
  // Below the floor the scale above is meaningless: a bit mask makes the result 0 (a
  // conditional would become a branch, which stops the vectoriser). keep is all ones when
  // x - kExpFloor has no sign bit, else 0.
  const std::uint64_t keep = (std::bit_cast<std::uint64_t>(x - kExpFloor) >> 63) - 1;
  return std::bit_cast<double>(std::bit_cast<std::uint64_t>(p * scale) & keep);
}

}  // namespace FullWaveform
