// The compass device functions of the shipped library, on the virtual phone.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::Kind;
using Bytes = std::vector<uint8_t>;

std::string message(const char *name, int error) { return std::string(name) + ": " + std::strerror(error) + "\n"; }

class DeviceTest : public vphone::PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        msmachdep_I2CClose();  // a failed test must not leave the device open for the next
        vphone::attach(0x2E, &chip);
    }
    void TearDown() override {
        msmachdep_I2CClose();
        PhoneTest::TearDown();
    }
    vphone::ScriptedDevice chip;
};

TEST_F(DeviceTest, OpenSelectWriteReadCloseReachTheChipInOrder) {
    ASSERT_EQ(msmachdep_I2COpen(), 0);
    ASSERT_EQ(msmachdep_I2CSetSlaveAddress(0x2E), 0);
    const uint8_t command[2] = {0x0A, 0x80};
    ASSERT_EQ(msmachdep_I2CWrite(2, command), 0);
    chip.queue_read({1, 2, 3, 4, 5, 6, 7, 8});
    uint8_t data[8] = {};
    ASSERT_EQ(msmachdep_I2CRead(8, data), 0);
    EXPECT_EQ(Bytes(data, data + 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(msmachdep_I2CClose(), 0);
    const auto &t = vphone::transcript();
    const std::vector<Kind> kinds = {Kind::Open, Kind::SelectSlave, Kind::Write, Kind::Read, Kind::Close};
    ASSERT_EQ(t.size(), kinds.size());
    for (size_t i = 0; i < kinds.size(); ++i) EXPECT_EQ(t[i].kind, kinds[i]) << i;
    EXPECT_EQ(t[0].argument & 3, 2);  // O_RDWR
    EXPECT_EQ(t[1].argument, 0x2E);
    EXPECT_EQ(t[2].bytes, (Bytes{0x0A, 0x80}));
}

TEST_F(DeviceTest, ClosedDeviceAnswersWithoutSystemCallsOrMessages) {
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2CClose(), -1);
    EXPECT_EQ(msmachdep_I2CSetSlaveAddress(0x2E), -1);
    EXPECT_EQ(msmachdep_SetMagnetGuard(), -1);
    EXPECT_EQ(msmachdep_GetMagnetGuard(), -1);
    EXPECT_EQ(msmachdep_GetSensorControlInfo(), 0);
    EXPECT_EQ(msmachdep_SetChargerState(1), -1);
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(vphone::transcript().empty());
    // Transfers do not test the descriptor: the system call fails.
    vphone::StderrCapture err2;
    uint8_t data[2];
    EXPECT_EQ(msmachdep_I2CRead(2, data), -1);
    EXPECT_EQ(err2.text(), message("read", EBADF));
}

TEST_F(DeviceTest, FailedOpenAndRefusedAddressArePrinted) {
    vphone::fail_call(Call::Open, 1, ENOENT);
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2COpen(), -1);
    EXPECT_EQ(msmachdep_I2CClose(), -1);  // still closed
    ASSERT_EQ(msmachdep_I2COpen(), 0);
    EXPECT_EQ(msmachdep_I2CSetSlaveAddress(0x80), -1);  // the driver takes 7-bit addresses only
    EXPECT_EQ(err.text(), message("open", ENOENT) + message("ioctl", EINVAL));
}

// Takes any write; reads deliver the given bytes one after the other.
struct Stream : vphone::BusDevice {
    explicit Stream(const Bytes &bytes) : data(bytes) {}
    int write(const uint8_t *, size_t length) override { return static_cast<int>(length); }
    int read(uint8_t *to, size_t length) override {
        const size_t n = std::min(length, data.size() - at);
        std::copy_n(data.begin() + static_cast<long>(at), n, to);
        at += n;
        return static_cast<int>(n);
    }
    Bytes data;
    size_t at = 0;
};

int set_charger_7() { return msmachdep_SetChargerState(7); }

TEST_F(DeviceTest, ControlRequestsPassResultsAndFailuresAsTabled) {
    const struct {
        const char *name;
        int (*call)();
        unsigned long request;
        int answer, error, expected;
    } cases[] = {
        {"msmachdep_SetMagnetGuard", msmachdep_SetMagnetGuard, 0x0710, 0, 0, 0},
        {"msmachdep_SetMagnetGuard", msmachdep_SetMagnetGuard, 0x0710, 0, EIO, -2},
        {"msmachdep_GetMagnetGuard", msmachdep_GetMagnetGuard, 0x0709, 0, 0, 0},
        {"msmachdep_GetMagnetGuard", msmachdep_GetMagnetGuard, 0x0709, 12345, 0, 12345},
        {"msmachdep_GetMagnetGuard", msmachdep_GetMagnetGuard, 0x0709, 1, EIO, -2},
        {"msmachdep_GetSensorControlInfo", msmachdep_GetSensorControlInfo, 0x0707, 77, 0, 77},
        {"msmachdep_GetSensorControlInfo", msmachdep_GetSensorControlInfo, 0x0707, 77, EINVAL, 0},
        {"msmachdep_SetChargerState", set_charger_7, 0x0708, 5, 0, 0},
        {"msmachdep_SetChargerState", set_charger_7, 0x0708, 0, EPERM, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + (c.error != 0 ? " failing" : ""));
        vphone::reset();
        ASSERT_EQ(msmachdep_I2COpen(), 0);
        vphone::set_control_answer(c.request, c.answer);
        vphone::set_control_error(c.request, c.error);
        vphone::StderrCapture err;
        EXPECT_EQ(c.call(), c.expected);
        EXPECT_EQ(err.text(), c.error != 0 ? message(c.name, c.error) : "");
        const auto controls = vphone::transcript_of(Kind::Control);
        ASSERT_EQ(controls.size(), 1u);
        EXPECT_EQ(controls[0].request, c.request);
        EXPECT_EQ(controls[0].argument, c.request == 0x0708 ? 7 : 0);
        msmachdep_I2CClose();
    }
}

TEST_F(DeviceTest, TransferLoopsFinishShortTransfersAndGiveUpOnRepeatedZeroBytes) {
    const struct {
        const char *name;
        bool write;
        std::vector<size_t> limits;  // per system call: bytes the driver moves at most
        int expected, calls;
        int error;                   // errno printed, 0 = no message
    } cases[] = {
        {"read in one go", false, {}, 0, 1, 0},
        {"read in three pieces", false, {3, 4}, 0, 3, 0},
        {"read after two zero results", false, {0, 0}, 0, 3, 0},
        {"read, three zero results", false, {0, 0, 0}, -1, 3, EIO},
        {"write byte by byte", true, {1, 1, 1, 1, 1, 1, 1, 1, 1}, 0, 10, 0},
        {"write, progress resets the zero count", true, {0, 0, 5, 0, 0}, 0, 6, 0},
        {"write, three zero results", true, {0, 0, 0}, -1, 3, EIO},
        {"write fails after a piece", true, {4}, -1, 2, EREMOTEIO},
    };
    const Bytes out = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        Stream stream(out);
        vphone::attach(0x2E, &stream);
        ASSERT_EQ(msmachdep_I2COpen(), 0);
        ASSERT_EQ(msmachdep_I2CSetSlaveAddress(0x2E), 0);
        const Call kind = c.write ? Call::Write : Call::Read;
        for (size_t i = 0; i < c.limits.size(); ++i) vphone::limit_transfer(kind, c.limits[i], static_cast<int>(i) + 1);
        if (c.error == EREMOTEIO) vphone::fail_call(kind, 2, EREMOTEIO);
        uint8_t data[10] = {};
        vphone::StderrCapture err;
        EXPECT_EQ(c.write ? msmachdep_I2CWrite(10, out.data()) : msmachdep_I2CRead(10, data), c.expected);
        EXPECT_EQ(vphone::calls(kind), c.calls);
        EXPECT_EQ(err.text(), c.error != 0 ? message(c.write ? "write" : "read", c.error) : "");
        Bytes moved;  // every byte exactly once, in order; what moved before a failure stays moved
        for (const auto &e : vphone::transcript_of(c.write ? Kind::Write : Kind::Read))
            moved.insert(moved.end(), e.bytes.begin(), e.bytes.end());
        EXPECT_EQ(moved, Bytes(out.begin(), out.begin() + static_cast<long>(c.expected == 0 ? 10 : moved.size())));
        if (!c.write && c.expected == 0) {
            EXPECT_EQ(Bytes(data, data + 10), out);
        }
        msmachdep_I2CClose();
    }
}

TEST_F(DeviceTest, ZeroLengthTransferMakesNoSystemCall) {
    ASSERT_EQ(msmachdep_I2COpen(), 0);
    EXPECT_EQ(msmachdep_I2CWrite(0, nullptr), 0);
    EXPECT_EQ(msmachdep_I2CRead(0, nullptr), 0);
    EXPECT_EQ(vphone::calls(Call::Write) + vphone::calls(Call::Read), 0);
}

TEST_F(DeviceTest, SleepWaitsMillisecondsTimesAThousandIn32Bits) {
    const struct {
        uint32_t milliseconds;
        uint64_t microseconds;
    } cases[] = {{0, 0}, {13, 13000}, {4294967, 4294967000u}, {4294968, (4294968ull * 1000u) & 0xFFFFFFFFu}};
    for (const auto &c : cases) {
        vphone::reset();
        EXPECT_EQ(msmachdep_Sleep(c.milliseconds), 0);
        EXPECT_EQ(vphone::now_us(), c.microseconds) << c.milliseconds;
    }
}

TEST_F(DeviceTest, MsLogSaveWritesOneWarningLineAndReturnsTheLogResult) {
    vphone::LogCapture log;
    vphone::StderrCapture err;
    const int result = MsLogSave(-5, 1234567890123L);
    EXPECT_EQ(result, __android_log_print(ANDROID_LOG_WARN, "MsLogSave", "MsLogSave() [%d, %ld]\r\n", -5, 1234567890123L));
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0], (vphone::LogLine{5, "MsLogSave", "MsLogSave() [-5, 1234567890123]\r\n"}));
    EXPECT_EQ(err.text(), "");
}

}  // namespace
