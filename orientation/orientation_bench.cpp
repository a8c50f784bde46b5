// Cost of one heading per path: the integer attitude and smoothed heading, and
// the double-precision conversion, rotation matrix and Euler angles.
#include <benchmark/benchmark.h>

#include "orientation/orientation.h"

namespace {

const KmxAxesData kField{-100, 120, -300}, kGravity{300, -200, -4050};

void IntegerHeading(benchmark::State &state) {
    KmxAxesLibInit();
    KmxAxesAttitude attitude;
    uint16_t heading = 0;
    for (auto _ : state) {
        KmxAxesLibGetAttitude(&kField, &kGravity, &attitude);
        KmxAxesLibCalcDirection(&attitude, &heading, 3000);
        benchmark::DoNotOptimize(heading);
    }
}
BENCHMARK(IntegerHeading);

void DoubleEuler(benchmark::State &state) {
    KmxAxesLibInit();
    double gravity[3], field[3], matrix[9], angles[3];
    for (auto _ : state) {
        KmxAxesLibGetGravityEarth(&kGravity, gravity);
        KmxAxesLibGetMagneticT(&kField, field);
        KmxAxesLibGetRotationMatrix(gravity, field, matrix);
        KmxAxesLibGetEuler(matrix, angles);
        benchmark::DoNotOptimize(angles);
    }
}
BENCHMARK(DoubleEuler);

}  // namespace
