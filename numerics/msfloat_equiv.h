// Compares every MSFLOAT operation of the library with the first implementation
// (msfloat_reference) on random operands, exponent edges and special values mixed in:
// the results, fields and return codes must agree bit for bit. Used by the unit test
// (a small sample, every run) and by the msfloat_equiv tool (as many as asked).
#ifndef KMXC_NUMERICS_MSFLOAT_EQUIV_H
#define KMXC_NUMERICS_MSFLOAT_EQUIV_H

#include <stdint.h>
#include <stdio.h>

namespace msfloat_equiv {

struct Tally {
    const char *op;
    uint64_t cases;
    uint64_t mismatches;
};
constexpr int kOps = 17;

// Runs `cases` operand sets through each operation from `seed`; fills one tally per
// operation and prints the first few mismatches to `log` (may be null). Returns the
// total of mismatches.
uint64_t Run(uint64_t cases, uint64_t seed, Tally tallies[kOps], FILE *log);

// The root depends on the mantissa and the exponent only: compares Sqrt for every
// mantissa, each with the exponents from `exponentFrom` to `exponentTo` (0..255), and
// both signs of non-zero. Returns the mismatches; the first few are printed to `log`.
uint64_t SqrtSweep(int exponentFrom, int exponentTo, FILE *log);

}  // namespace msfloat_equiv

#endif  // KMXC_NUMERICS_MSFLOAT_EQUIV_H
