// The compass device functions of the shipped library, on the virtual phone.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::Kind;

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
    void open_at(int address) {
        ASSERT_EQ(msmachdep_I2COpen(), 0);
        ASSERT_EQ(msmachdep_I2CSetSlaveAddress(address), 0);
    }
    vphone::ScriptedDevice chip;
};

TEST_F(DeviceTest, OpenSelectWriteReadCloseReachTheChipInOrder) {
    open_at(0x2E);
    const uint8_t command[2] = {0x0A, 0x80};
    ASSERT_EQ(msmachdep_I2CWrite(2, command), 0);
    chip.queue_read({1, 2, 3, 4, 5, 6, 7, 8});
    uint8_t data[8] = {};
    ASSERT_EQ(msmachdep_I2CRead(8, data), 0);
    EXPECT_EQ(data[7], 8);
    EXPECT_EQ(msmachdep_I2CClose(), 0);

    const std::vector<Kind> expected = {Kind::Open, Kind::SelectSlave, Kind::Write, Kind::Read, Kind::Close};
    const auto &t = vphone::transcript();
    ASSERT_EQ(t.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(t[i].kind, expected[i]) << i;
    EXPECT_EQ(t[0].argument & 3, 2);  // O_RDWR
    EXPECT_EQ(t[1].request, 0x0706u);
    EXPECT_EQ(t[1].argument, 0x2E);
    EXPECT_EQ(t[2].bytes, (std::vector<uint8_t>{0x0A, 0x80}));
    EXPECT_EQ(t[3].address, 0x2E);
}

TEST_F(DeviceTest, ClosedDeviceRefusesWithoutTouchingIt) {
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2CClose(), -1);
    EXPECT_EQ(msmachdep_I2CSetSlaveAddress(0x2E), -1);
    EXPECT_EQ(msmachdep_SetMagnetGuard(), -1);
    EXPECT_EQ(msmachdep_GetMagnetGuard(), -1);
    EXPECT_EQ(msmachdep_GetSensorControlInfo(), 0);
    EXPECT_EQ(msmachdep_SetChargerState(1), -1);
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(vphone::transcript().empty());
    EXPECT_EQ(vphone::calls(Call::Ioctl) + vphone::calls(Call::Close), 0);
}

TEST_F(DeviceTest, FailedOpenLeavesTheDeviceClosed) {
    vphone::fail_call(Call::Open, 1, ENOENT);
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2COpen(), -1);
    EXPECT_EQ(msmachdep_I2CClose(), -1);  // still closed
    EXPECT_EQ(err.text(), std::string("open: ") + std::strerror(ENOENT) + "\n");
}

struct ControlCase {
    const char *name;
    int (*call)();
    unsigned long request;
    int answer;          // what the driver returns
    int error;           // errno of a failing request, 0 = succeeds
    int expected;
    const char *message; // perror prefix, "" = none
};

int set_charger_7() { return msmachdep_SetChargerState(7); }

TEST_F(DeviceTest, ControlRequestsPassResultsAndFailuresAsTabled) {
    const ControlCase cases[] = {
        {"set magnet guard", msmachdep_SetMagnetGuard, 0x0710, 0, 0, 0, ""},
        {"set magnet guard fails", msmachdep_SetMagnetGuard, 0x0710, 0, EIO, -2, "msmachdep_SetMagnetGuard"},
        {"get magnet guard 0", msmachdep_GetMagnetGuard, 0x0709, 0, 0, 0, ""},
        {"get magnet guard 1", msmachdep_GetMagnetGuard, 0x0709, 1, 0, 1, ""},
        {"get magnet guard any", msmachdep_GetMagnetGuard, 0x0709, 12345, 0, 12345, ""},
        {"get magnet guard fails", msmachdep_GetMagnetGuard, 0x0709, 1, EIO, -2, "msmachdep_GetMagnetGuard"},
        {"sensor info", msmachdep_GetSensorControlInfo, 0x0707, 77, 0, 77, ""},
        {"sensor info fails", msmachdep_GetSensorControlInfo, 0x0707, 77, EINVAL, 0, "msmachdep_GetSensorControlInfo"},
        {"charger state", set_charger_7, 0x0708, 5, 0, 0, ""},
        {"charger state fails", set_charger_7, 0x0708, 0, EPERM, -1, "msmachdep_SetChargerState"},
    };
    for (const ControlCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        ASSERT_EQ(msmachdep_I2COpen(), 0);
        vphone::set_control_answer(c.request, c.answer);
        vphone::set_control_error(c.request, c.error);
        vphone::StderrCapture err;
        EXPECT_EQ(c.call(), c.expected);
        std::string message = *c.message ? std::string(c.message) + ": " + std::strerror(c.error) + "\n" : "";
        EXPECT_EQ(err.text(), message);
        auto controls = vphone::transcript_of(Kind::Control);
        ASSERT_EQ(controls.size(), 1u);
        EXPECT_EQ(controls[0].request, c.request);
        EXPECT_EQ(controls[0].argument, c.request == 0x0708 ? 7 : 0);
        msmachdep_I2CClose();
    }
}

TEST_F(DeviceTest, SelectingAnAddressTheDriverRefusesPrintsIoctl) {
    ASSERT_EQ(msmachdep_I2COpen(), 0);
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2CSetSlaveAddress(0x80), -1);  // not a 7-bit address
    EXPECT_EQ(err.text(), std::string("ioctl: ") + std::strerror(EINVAL) + "\n");
}

struct LoopCase {
    const char *name;
    bool write;
    std::vector<size_t> limits;  // per call: bytes the driver moves at most
    int expected;
    size_t calls;                // system calls made
    const char *message;         // perror text, "" = none
};

TEST_F(DeviceTest, TransferLoopsFinishShortTransfersAndGiveUpOnZeroBytes) {
    const std::string eio = std::strerror(EIO);
    const LoopCase cases[] = {
        {"read in one go", false, {}, 0, 1, ""},
        {"read in three pieces", false, {3, 4}, 0, 3, ""},
        {"read, one zero result then progress", false, {0, 10}, 0, 2, ""},
        {"read, two zero results then progress", false, {0, 0}, 0, 3, ""},
        {"read, three zero results", false, {0, 0, 0}, -1, 3, "read: "},
        {"write in one go", true, {}, 0, 1, ""},
        {"write byte by byte", true, {1, 1, 1, 1, 1, 1, 1, 1, 1}, 0, 10, ""},
        {"write, zero results apart reset the count", true, {0, 0, 5, 0, 0}, 0, 6, ""},
        {"write, three zero results", true, {0, 0, 0}, -1, 3, "write: "},
    };
    for (const LoopCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        vphone::ScriptedDevice echo;
        vphone::attach(0x2E, &echo);
        open_at(0x2E);
        Call kind = c.write ? Call::Write : Call::Read;
        for (size_t i = 0; i < c.limits.size(); ++i) vphone::limit_transfer(kind, c.limits[i], static_cast<int>(i) + 1);
        uint8_t data[10] = {};
        for (int i = 0; i < 10; ++i) echo.queue_read({static_cast<uint8_t>(10 * i), 1, 2, 3, 4, 5, 6, 7, 8, 9});
        const uint8_t out[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
        vphone::StderrCapture err;
        int result = c.write ? msmachdep_I2CWrite(10, out) : msmachdep_I2CRead(10, data);
        EXPECT_EQ(result, c.expected);
        EXPECT_EQ(static_cast<size_t>(vphone::calls(kind)), c.calls);
        EXPECT_EQ(err.text(), *c.message ? c.message + eio + "\n" : "");
        if (c.expected == 0) {
            std::vector<uint8_t> moved;
            for (const auto &e : vphone::transcript_of(c.write ? Kind::Write : Kind::Read))
                moved.insert(moved.end(), e.bytes.begin(), e.bytes.end());
            ASSERT_EQ(moved.size(), 10u);  // every byte exactly once, in order
            const std::vector<uint8_t> ends = c.write ? std::vector<uint8_t>(out, out + 10)
                                                      : std::vector<uint8_t>(data, data + 10);
            EXPECT_EQ(moved, ends);
        }
        msmachdep_I2CClose();
    }
}

TEST_F(DeviceTest, FailedTransferStopsAtOnceAndKeepsWhatMoved) {
    open_at(0x2E);
    vphone::limit_transfer(Call::Write, 4);
    vphone::fail_call(Call::Write, 2, EREMOTEIO);
    const uint8_t out[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2CWrite(8, out), -1);
    EXPECT_EQ(err.text(), std::string("write: ") + std::strerror(EREMOTEIO) + "\n");
    EXPECT_EQ(vphone::calls(Call::Write), 2);
    ASSERT_EQ(chip.writes.size(), 1u);
    EXPECT_EQ(chip.writes[0], (std::vector<uint8_t>{1, 2, 3, 4}));
}

TEST_F(DeviceTest, ZeroLengthTransferMakesNoSystemCall) {
    open_at(0x2E);
    EXPECT_EQ(msmachdep_I2CWrite(0, nullptr), 0);
    EXPECT_EQ(msmachdep_I2CRead(0, nullptr), 0);
    EXPECT_EQ(vphone::calls(Call::Write) + vphone::calls(Call::Read), 0);
}

TEST_F(DeviceTest, TransferOnAClosedDeviceFailsAtTheSystemCall) {
    vphone::StderrCapture err;
    uint8_t data[2];
    EXPECT_EQ(msmachdep_I2CRead(2, data), -1);
    EXPECT_EQ(err.text(), std::string("read: ") + std::strerror(EBADF) + "\n");
}

TEST_F(DeviceTest, LongestTransferMoves255Bytes) {
    open_at(0x2E);
    std::vector<uint8_t> out(255);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(msmachdep_I2CWrite(255, out.data()), 0);
    ASSERT_EQ(chip.writes.size(), 1u);
    EXPECT_EQ(chip.writes[0], out);
}

struct SleepCase {
    const char *name;
    uint32_t milliseconds;
    uint64_t microseconds;
};

TEST_F(DeviceTest, SleepWaitsMillisecondsTimesAThousand) {
    const SleepCase cases[] = {
        {"zero", 0, 0},
        {"one measurement", 13, 13000},
        {"largest without wrap", 4294967, 4294967000u},
        {"wraps in 32 bits", 4294968, (4294968ull * 1000u) & 0xFFFFFFFFu},
    };
    for (const SleepCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        EXPECT_EQ(msmachdep_Sleep(c.milliseconds), 0);
        EXPECT_EQ(vphone::now_us(), c.microseconds);
    }
}

}  // namespace

namespace {

TEST_F(DeviceTest, MsLogSaveWritesOneWarningLineAndReturnsTheLogResult) {
    vphone::LogCapture log;
    vphone::StderrCapture err;
    const int result = MsLogSave(-5, 1234567890123L);
    const int direct = __android_log_print(ANDROID_LOG_WARN, "MsLogSave", "MsLogSave() [%d, %ld]\r\n", -5, 1234567890123L);
    EXPECT_EQ(result, direct);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0], (vphone::LogLine{5, "MsLogSave", "MsLogSave() [-5, 1234567890123]\r\n"}));
    EXPECT_EQ(err.text(), "");
}

}  // namespace
