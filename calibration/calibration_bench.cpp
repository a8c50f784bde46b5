// Cost of KmxAxesMsCalibUpdate: a sample that only fills the batch, the sixteenth
// sample that fits a sphere, and a planar fit that also runs the trial estimator.
#include <benchmark/benchmark.h>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"

namespace {

using namespace calib_test;

void BM_BufferedSample(benchmark::State &state) {
    KmxAxesMsCalibInit();
    Rng rng{1};
    const Batch batch = sphere_batch({100, -50, 200}, 130, 1, rng);
    for (auto _ : state) {
        g_MsCalibEstimator.count = g_MsCalibEstimator.writeIndex = 3;  // never reaches a full batch
        benchmark::DoNotOptimize(KmxAxesMsCalibUpdate(&batch[3]));
    }
}
BENCHMARK(BM_BufferedSample);

// Replays the sixteenth sample of a batch whose first fifteen are still in the buffer
// (counter resets keep the slots), so each iteration is exactly one full fit.
void fit(benchmark::State &state, const Batch &batch, bool planar_history, int8_t expected) {
    KmxAxesMsCalibInit();
    for (const KmxAxesData &s : batch) KmxAxesMsCalibUpdate(&s);
    for (auto _ : state) {
        KmxAxesMsCalibSetOffset(&KmxAxesData_Constructor);
        g_MsCalibEstimator.count = g_MsCalibEstimator.writeIndex = 15;
        g_MsCalibPlanarValid = planar_history;
        const int8_t code = KmxAxesMsCalibUpdate(&batch.back());
        if (code != expected) state.SkipWithError("unexpected result code");
    }
}

void BM_SphereFit(benchmark::State &state) {
    Rng rng{2};
    fit(state, sphere_batch({100, -50, 200}, 130, 1, rng), false, 63);
}
BENCHMARK(BM_SphereFit);

void BM_PlanarFitWithTrial(benchmark::State &state) {
    Rng rng{3};
    fit(state, circle_batch({100, -50, 200}, {1, 0, 0}, {0, 1, 0}, 130, 1, rng), true, 24);
}
BENCHMARK(BM_PlanarFitWithTrial);

}  // namespace
