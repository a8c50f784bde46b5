// msfloat_equiv [CASES [SEED]]: compares every MSFLOAT operation of the library with
// the first implementation on CASES operand sets each (default 100,000,000) and prints
// a table, then Sqrt for every mantissa and exponent. Exit status 0 only when nothing
// differs.
#include <stdio.h>
#include <stdlib.h>

#include "numerics/msfloat_equiv.h"

int main(int argc, char **argv) {
    const unsigned long long cases = argc > 1 ? strtoull(argv[1], nullptr, 10) : 100000000ull;
    const unsigned long long seed = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1ull;
    if (cases == 0) {
        fprintf(stderr, "usage: msfloat_equiv [CASES [SEED]]  (CASES a positive whole number)\n");
        return 2;
    }
    msfloat_equiv::Tally tallies[msfloat_equiv::kOps];
    const uint64_t mismatches = msfloat_equiv::Run(cases, seed, tallies, stderr);
    printf("%-20s %14s %10s\n", "operation", "cases", "mismatches");
    for (const auto &t : tallies)
        printf("%-20s %14llu %10llu\n", t.op, (unsigned long long)t.cases, (unsigned long long)t.mismatches);
    const uint64_t roots = msfloat_equiv::SqrtSweep(0, 255, stderr);
    printf("%-20s %14llu %10llu  (every mantissa and exponent)\n", "Sqrt", 2ull * 65536ull * 256ull,
           (unsigned long long)roots);
    return mismatches == 0 && roots == 0 ? 0 : 1;
}
