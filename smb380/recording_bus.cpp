#include "smb380/recording_bus.h"

#include <gtest/gtest.h>

namespace smb380_test {

Bus g_bus;
smb380_dev g_dev;

namespace {

int8_t record(Call c) {
    g_bus.calls.push_back(std::move(c));
    return g_bus.next_result < g_bus.results.size() ? g_bus.results[g_bus.next_result++] : 0;
}

int8_t bus_write(uint8_t reg, const uint8_t *data, uint8_t count) {
    for (uint8_t i = 0; i < count; ++i) g_bus.regs[static_cast<uint8_t>(reg + i)] = data[i];
    return record({Kind::Write, reg, count, {data, data + count}, 0});
}

int8_t bus_read(uint8_t reg, uint8_t *data, uint8_t count) {
    if (!g_bus.fill_reads) return record({Kind::Read, reg, count, {}, 0});
    for (uint8_t i = 0; i < count; ++i) data[i] = g_bus.regs[static_cast<uint8_t>((reg & 0x7F) + i)];
    return record({Kind::Read, reg, count, {data, data + count}, 0});
}

int8_t bus_sleep(uint32_t ms) {
    g_bus.calls.push_back({Kind::Sleep, 0, 0, {}, ms});
    return 0;
}

}  // namespace

std::ostream &operator<<(std::ostream &os, const Call &c) {
    if (c.kind == Kind::Sleep) return os << "sleep " << c.ms;
    os << (c.kind == Kind::Read ? "read 0x" : "write 0x") << std::hex << int(c.addr) << " n=" << std::dec
       << int(c.count) << ":" << std::hex;
    for (uint8_t b : c.bytes) os << " " << int(b);
    return os << std::dec;
}

Call R(uint8_t addr, std::vector<uint8_t> bytes) {
    return {Kind::Read, addr, static_cast<uint8_t>(bytes.size()), std::move(bytes), 0};
}
Call W(uint8_t addr, std::vector<uint8_t> bytes) {
    return {Kind::Write, addr, static_cast<uint8_t>(bytes.size()), std::move(bytes), 0};
}
Call S(uint32_t ms) { return {Kind::Sleep, 0, 0, {}, ms}; }

void attach(const std::vector<std::pair<uint8_t, uint8_t>> &preset) {
    g_bus = Bus{};
    g_dev = smb380_dev{0, 0, 0, 0, 0, bus_write, bus_read, bus_sleep};
    for (auto [reg, value] : preset) g_bus.regs[reg] = value;
    p_smb380 = &g_dev;
}

void check(const Sequence &s) {
    SCOPED_TRACE(s.name);
    attach(s.preset);
    g_bus.results = {1, 2, 4, 8, 16, 32, 64};
    EXPECT_EQ(s.act(), s.result);
    EXPECT_EQ(g_bus.calls, s.transcript);
}

}  // namespace smb380_test
