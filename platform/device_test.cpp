// The compass device functions of the shipped library, on the virtual phone.
#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"
#include "drivers/kmxc_protocol.h"

namespace {

using vphone::Call;
using vphone::Kind;
using Bytes = std::vector<uint8_t>;

std::string message(const char *name, int error) { return std::string(name) + ": " + std::strerror(error) + "\n"; }

class DeviceTest : public vphone::PhoneTest {
protected:
    void TearDown() override {
        msmachdep_I2CClose();  // a failed test must not leave the device open for the next
        PhoneTest::TearDown();
    }
};

TEST_F(DeviceTest, OpenCloseLengthZeroAndTransfersOnAClosedDevice) {
    vphone::fail_call(Call::Open, 1, ENOENT);
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_I2COpen(), -1);
    EXPECT_EQ(msmachdep_I2CClose(), -1);  // a failed open leaves the device closed
    ASSERT_EQ(msmachdep_I2COpen(), 0);
    EXPECT_EQ(vphone::transcript().back().argument & O_ACCMODE, O_RDWR);
    EXPECT_EQ(msmachdep_I2CWrite(0, nullptr), 0);
    EXPECT_EQ(msmachdep_I2CRead(0, nullptr), 0);
    EXPECT_EQ(vphone::calls(Call::Write) + vphone::calls(Call::Read), 0);  // length 0 makes no system call
    EXPECT_EQ(msmachdep_I2CClose(), 0);
    EXPECT_EQ(vphone::open_compass_descriptors(), 0);
    EXPECT_EQ(msmachdep_I2CClose(), -1);
    uint8_t data[2];
    EXPECT_EQ(msmachdep_I2CRead(2, data), -1);  // transfers do not test the descriptor: the call fails
    EXPECT_EQ(err.text(), message("open", ENOENT) + message("read", EBADF));
}

int select_magnetometer() { return msmachdep_I2CSetSlaveAddress(kmxc::kBusAddress); }
int set_charger_7() { return msmachdep_SetChargerState(7); }

TEST_F(DeviceTest, RequestsUsePlainNumbersAndTellClosedFromFailed) {
    const struct {
        const char *word;  // perror's word for a failed request
        int (*call)();
        unsigned long request;
        long argument;
        int answer, error;   // the driver's result; errno of a failure (0: none)
        int result, closed;  // expected with the device open, and closed
    } cases[] = {
        {"ioctl", select_magnetometer, vphone::kSelectSlave, kmxc::kBusAddress, 0, 0, 0, -1},
        {"ioctl", select_magnetometer, vphone::kSelectSlave, kmxc::kBusAddress, 0, EIO, -1, -1},
        {"msmachdep_SetMagnetGuard", msmachdep_SetMagnetGuard, 0x0710, 0, 3, 0, 0, -1},
        {"msmachdep_SetMagnetGuard", msmachdep_SetMagnetGuard, 0x0710, 0, 0, EIO, -2, -1},
        {"msmachdep_GetMagnetGuard", msmachdep_GetMagnetGuard, 0x0709, 0, 12345, 0, 12345, -1},
        {"msmachdep_GetMagnetGuard", msmachdep_GetMagnetGuard, 0x0709, 0, 1, EIO, -2, -1},
        {"msmachdep_GetSensorControlInfo", msmachdep_GetSensorControlInfo, 0x0707, 0, 77, 0, 77, 0},
        {"msmachdep_GetSensorControlInfo", msmachdep_GetSensorControlInfo, 0x0707, 0, 77, EINVAL, 0, 0},
        {"msmachdep_SetChargerState", set_charger_7, 0x0708, 7, 5, 0, 0, -1},
        {"msmachdep_SetChargerState", set_charger_7, 0x0708, 7, 0, EPERM, -1, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.word) + " request " + std::to_string(c.request) + (c.error != 0 ? " failing" : ""));
        vphone::reset();
        vphone::StderrCapture err;
        EXPECT_EQ(c.call(), c.closed);
        EXPECT_TRUE(vphone::transcript().empty());  // closed: no system call
        ASSERT_EQ(msmachdep_I2COpen(), 0);
        vphone::set_control_answer(c.request, c.answer);
        if (c.error != 0) vphone::fail_call(Call::Ioctl, 1, c.error);
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(err.text(), c.error != 0 ? message(c.word, c.error) : "");
        const auto &t = vphone::transcript();
        ASSERT_EQ(t.size(), 2u);  // the open, then exactly one request
        EXPECT_EQ(t[1].request, c.request);
        EXPECT_EQ(t[1].argument, c.argument);
        msmachdep_I2CClose();
    }
}

TEST_F(DeviceTest, TransfersFinishShortPiecesAndGiveUpOnThreeZeroResults) {
    const struct {
        const char *name;
        bool write;
        std::vector<size_t> limits;  // per system call: bytes the driver moves at most
        int expected, calls;
        int error;  // errno printed, 0 = no message
    } cases[] = {
        {"read in the chip's two pieces", false, {}, 0, 2, 0},
        {"read after two zero results", false, {0, 0}, 0, 4, 0},
        {"write, progress resets the zero count", true, {0, 0, 5, 0, 0}, 0, 6, 0},
        {"write, three zero results", true, {0, 0, 0}, -1, 3, EIO},
        {"write fails after a piece", true, {4}, -1, 2, EREMOTEIO},
    };
    const Bytes out = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        vphone::ScriptedDevice chip;  // takes any write; answers reads itself in two pieces
        vphone::attach(kmxc::kBusAddress, &chip);
        chip.queue_read({0, 1, 2});
        chip.queue_read({3, 4, 5, 6, 7, 8, 9});
        ASSERT_EQ(msmachdep_I2COpen(), 0);
        ASSERT_EQ(msmachdep_I2CSetSlaveAddress(kmxc::kBusAddress), 0);
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
        EXPECT_EQ(Bytes(data, data + 10), c.write ? Bytes(10, 0) : out);
        msmachdep_I2CClose();
    }
}

// (msmachdep_Sleep's milliseconds show in the magnetometer's bus transcripts.)
TEST_F(DeviceTest, MsLogSaveWritesOneWarningLine) {
    // `long` is the platform's: 64 bits here, 32 on armel; its extremes must print whole.
    for (const long detail : {LONG_MAX, LONG_MIN}) {
        vphone::LogCapture log;
        vphone::StderrCapture err;
        MsLogSave(-5, detail);
        const std::string line = "MsLogSave() [-5, " + std::to_string(detail) + "]\r\n";
        EXPECT_EQ(log.lines(), (std::vector<vphone::LogLine>{{5, "MsLogSave", line}}));
        EXPECT_EQ(err.text(), "");
    }
}

}  // namespace
