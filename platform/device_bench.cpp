// One magnetometer-style cycle on the virtual phone (select, command, 13 ms sleep,
// 8-byte read): how fast the virtual clock lets tests run many of them.
//
// Linked with the virtual phone, the benchmark's own clock (CLOCK_MONOTONIC) is the
// virtual one, which each cycle's sleep moves by 13 ms; a cycle is timed on
// CLOCK_REALTIME instead, which stays real.
#include <benchmark/benchmark.h>

#include <chrono>

#include "platform/platform.h"
#include "vphone/vphone.h"
#include "drivers/kmxc_protocol.h"

namespace {

struct Answering : vphone::BusDevice {
    int write(const uint8_t *, size_t length) override { return static_cast<int>(length); }
    int read(uint8_t *data, size_t length) override {
        for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(i);
        return static_cast<int>(length);
    }
};

void BM_MeasurementCycle(benchmark::State &state) {
    vphone::make_sandbox();
    Answering chip;
    vphone::attach(kmxc::kBusAddress, &chip);
    msmachdep_I2COpen();
    const uint8_t command = kmxc::kCmdMeasure;
    uint8_t block[8];
    for (auto _ : state) {
        const auto start = std::chrono::system_clock::now();
        msmachdep_I2CSetSlaveAddress(kmxc::kBusAddress);
        msmachdep_I2CWrite(1, &command);
        msmachdep_Sleep(13);
        msmachdep_I2CRead(8, block);
        benchmark::DoNotOptimize(block);
        vphone::clear_transcript();  // keep memory flat over millions of cycles
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::system_clock::now() - start).count());
    }
    msmachdep_I2CClose();
    vphone::reset();
    vphone::remove_sandbox();
}
BENCHMARK(BM_MeasurementCycle)->UseManualTime();

}  // namespace
