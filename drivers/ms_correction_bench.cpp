// Cost of the raw-to-corrected conversion (runs once per magnetic sample and four
// times per offset carry-over).
#include <benchmark/benchmark.h>

#include "drivers/drivers.h"
#include "drivers/typical_chip.h"

namespace {

void BM_MsensCorrection(benchmark::State &state) {
    load_typical_chip_coefficients();
    uint16_t raw[3] = {600, 512, 400};
    KmxAxesData out;
    for (auto _ : state) {
        raw[0] = static_cast<uint16_t>((raw[0] + 1) & 0x7FF);
        KmxAxesDrvMsensCorrection(raw, 300, &out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_MsensCorrection);

}  // namespace
