// SplitMix64: the seeded generator of the tests and tools, with the same sequence on
// every compiler, standard library and target (the standard distributions differ).
#ifndef KMXC_NUMERICS_SPLITMIX_H
#define KMXC_NUMERICS_SPLITMIX_H

#include <stdint.h>

struct SplitMix64 {
    uint64_t state;
    uint64_t next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
};

#endif  // KMXC_NUMERICS_SPLITMIX_H
