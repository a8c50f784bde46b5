// Cost of the raw-to-corrected conversion (runs once per magnetic sample and four
// times per offset carry-over).
#include <benchmark/benchmark.h>

#include "drivers/drivers.h"

namespace {

void BM_MsensCorrection(benchmark::State &state) {
    KmxcDrvState &st = *KmxcDrvHandle();
    const int16_t c[9] = {100, -32, -8, -32, 38, -32, -32, -32, 66};
    for (int i = 0; i < 9; ++i) st.correction[i] = c[i];
    st.tempCoef[0] = 10;
    st.tempCoef[1] = -10;
    st.tempCoef[2] = 3;
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
