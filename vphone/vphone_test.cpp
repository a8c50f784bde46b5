// The virtual phone itself, driven through the plain C library calls a program makes.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::Kind;

class VphoneTest : public vphone::PhoneTest {};

struct PathCase {
    const char *name;
    const char *path;
    bool phone;
};

TEST_F(VphoneTest, OnlyThePhonesPathsAreMappedIntoTheSandbox) {
    const PathCase cases[] = {
        {"calibration file", "/misc/sensor/kmxc_orvane.cfg", true},
        {"transformation profile", "/etc/kmxc_transformation.cfg", true},
        {"profile number", "/sys/module/zorsensor/parameters/profile", true},
        {"compass device", "/dev/compass", true},
        {"other etc file", "/etc/passwd", false},
        {"compass prefix only", "/dev/compass2", false},
        {"relative path", "misc/sensor/x", false},
        {"other sys file", "/sys/module/other/parameters/profile", false},
    };
    for (const PathCase &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(vphone::is_phone_path(c.path), c.phone);
        std::string host = vphone::host_path(c.path);
        EXPECT_EQ(host == vphone::root() + c.path, c.phone) << host;
        EXPECT_EQ(host == c.path, !c.phone) << host;
    }
}

TEST_F(VphoneTest, PhoneFilesLiveInTheSandboxAndNotOnTheMachine) {
    FILE *f = std::fopen("/misc/sensor/probe.cfg", "w");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fprintf(f, "%d,%d", 1, 2), 3);
    EXPECT_EQ(std::fclose(f), 0);
    EXPECT_EQ(vphone::read_file("/misc/sensor/probe.cfg"), "1,2");
    struct stat st {};
    EXPECT_EQ(::stat((vphone::root() + "/misc/sensor/probe.cfg").c_str(), &st), 0);
    EXPECT_NE(::stat("/misc/sensor/probe.cfg", &st), 0);  // nothing outside the sandbox

    EXPECT_EQ(::chmod("/misc/sensor/probe.cfg", 0640), 0);
    EXPECT_EQ(vphone::mode_of("/misc/sensor/probe.cfg"), 0640u);
    EXPECT_EQ(::chown("/misc/sensor/probe.cfg", 1008, 1000), 0);
    EXPECT_EQ(::rename("/misc/sensor/probe.cfg", "/misc/sensor/moved.cfg"), 0);
    EXPECT_FALSE(vphone::exists("/misc/sensor/probe.cfg"));
    EXPECT_EQ(vphone::owner_of("/misc/sensor/moved.cfg"), (vphone::Owner{1008, 1000}));  // follows the rename
    EXPECT_EQ(::access("/misc/sensor/moved.cfg", W_OK), 0);
    EXPECT_EQ(::access("/misc/sensor/none.cfg", F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(::chown("/misc/sensor/none.cfg", 1, 1), -1);  // chown of a missing file fails
    EXPECT_EQ(vphone::calls(Call::Fopen), 1);
    EXPECT_EQ(vphone::calls(Call::Access), 2);
}

TEST_F(VphoneTest, FreshSandboxPerTestStartsEmpty) {
    // Runs after the test above in the same process: its files must be gone.
    EXPECT_FALSE(vphone::exists("/misc/sensor/moved.cfg"));
    EXPECT_EQ(vphone::calls(Call::Fopen), 0);
    EXPECT_EQ(vphone::now_us(), 0u);
}

TEST_F(VphoneTest, SlaveAddressIsKeptPerDescriptorAndRoutesTransfers) {
    vphone::ScriptedDevice mag, acc;
    vphone::attach(0x2E, &mag);
    vphone::attach(0x38, &acc);
    int a = ::open("/dev/compass", O_RDWR);
    int b = ::open("/dev/compass", O_RDWR);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(vphone::open_compass_descriptors(), 2);
    EXPECT_EQ(::ioctl(a, 0x0706, 0x2E), 0);
    EXPECT_EQ(::ioctl(b, 0x0706, 0x38), 0);
    const uint8_t cmd[] = {0x01, 0x02};
    EXPECT_EQ(::write(a, cmd, 2), 2);
    EXPECT_EQ(::write(b, cmd, 1), 1);
    acc.queue_read({9, 8, 7});
    uint8_t in[3] = {};
    EXPECT_EQ(::read(b, in, 3), 3);
    EXPECT_EQ(in[2], 7);
    ASSERT_EQ(mag.writes.size(), 1u);
    EXPECT_EQ(mag.writes[0], (std::vector<uint8_t>{1, 2}));
    ASSERT_EQ(acc.writes.size(), 1u);
    EXPECT_EQ(acc.writes[0], (std::vector<uint8_t>{1}));
    EXPECT_EQ(::close(a), 0);
    EXPECT_EQ(::close(b), 0);
    EXPECT_EQ(vphone::open_compass_descriptors(), 0);

    auto writes = vphone::transcript_of(Kind::Write);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].address, 0x2E);
    EXPECT_EQ(writes[1].address, 0x38);
    auto reads = vphone::transcript_of(Kind::Read);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].bytes, (std::vector<uint8_t>{9, 8, 7}));
}

struct BusErrorCase {
    const char *name;
    int address;   // selected; -1 = none
    bool attached;
    int expected_errno;
};

TEST_F(VphoneTest, TransfersWithNobodyAtTheAddressFail) {
    const BusErrorCase cases[] = {
        {"no address selected", -1, true, ENXIO},
        {"nothing attached at the address", 0x10, true, ENXIO},
        {"device answering", 0x2E, true, 0},
        {"device detached", 0x2E, false, ENXIO},
    };
    for (const BusErrorCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::ScriptedDevice chip;
        if (c.attached) vphone::attach(0x2E, &chip);
        int fd = ::open("/dev/compass", O_RDWR);
        if (c.address >= 0) {
            ASSERT_EQ(::ioctl(fd, 0x0706, c.address), 0);
        }
        uint8_t byte = 0x55;
        errno = 0;
        EXPECT_EQ(::write(fd, &byte, 1), c.expected_errno == 0 ? 1 : -1);
        EXPECT_EQ(errno, c.expected_errno);
        ::close(fd);
        vphone::detach(0x2E);
    }
}

TEST_F(VphoneTest, ControlRequestsAnswerAsSetAndOthersAreRejected) {
    int fd = ::open("/dev/compass", O_RDWR);
    vphone::set_control_answer(vphone::kGetMagnetGuard, 7);
    EXPECT_EQ(::ioctl(fd, 0x0709, 0), 7);
    EXPECT_EQ(::ioctl(fd, 0x0707, 0), 0);  // default answer
    EXPECT_EQ(::ioctl(fd, 0x0708, -3), 0);
    EXPECT_EQ(vphone::last_charger_state(), -3);
    vphone::set_control_error(vphone::kSetMagnetGuard, EBUSY);
    EXPECT_EQ(::ioctl(fd, 0x0710, 0), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(::ioctl(fd, 0x070A, 0), -1);  // not one of the driver's requests
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(::ioctl(fd, 0x0706, 0x80), -1);  // beyond 7 bits
    EXPECT_EQ(errno, EINVAL);
    ::close(fd);
    auto controls = vphone::transcript_of(Kind::Control);
    ASSERT_EQ(controls.size(), 5u);
    EXPECT_EQ(controls[2].argument, -3);
    EXPECT_EQ(controls[3].error, EBUSY);
}

TEST_F(VphoneTest, UsleepAdvancesTheVirtualClockOnly) {
    for (int i = 0; i < 1000; ++i) ::usleep(13000);
    EXPECT_EQ(vphone::now_us(), 13000000u);
    auto sleeps = vphone::transcript_of(Kind::Sleep);
    ASSERT_EQ(sleeps.size(), 1000u);
    EXPECT_EQ(sleeps[999].time_us, 999u * 13000u);
    EXPECT_EQ(sleeps[999].argument, 13000);
}

struct FaultCase {
    const char *name;
    int nth;
    int count;
    std::vector<bool> fails;  // outcome of five calls
};

TEST_F(VphoneTest, FaultWindowsCountFromWhenTheyAreSet) {
    const FaultCase cases[] = {
        {"next call", 1, 1, {true, false, false, false, false}},
        {"third call", 3, 1, {false, false, true, false, false}},
        {"second and third", 2, 2, {false, true, true, false, false}},
        {"forever from the fourth", 4, vphone::kForever, {false, false, false, true, true}},
    };
    vphone::write_file("/misc/sensor/a", "x");
    for (const FaultCase &c : cases) {
        SCOPED_TRACE(c.name);
        ::access("/misc/sensor/a", F_OK);  // earlier calls must not shift the window
        vphone::reset();
        ::access("/misc/sensor/a", F_OK);
        vphone::fail_call(Call::Access, c.nth, EACCES, c.count);
        for (size_t i = 0; i < c.fails.size(); ++i) {
            errno = 0;
            int r = ::access("/misc/sensor/a", F_OK);
            EXPECT_EQ(r == -1, c.fails[i]) << "call " << i + 1;
            EXPECT_EQ(errno, c.fails[i] ? EACCES : 0) << "call " << i + 1;
        }
        vphone::reset();
    }
}

TEST_F(VphoneTest, EveryFileCallCanBeMadeToFail) {
    vphone::write_file("/misc/sensor/a", "1,2");
    const Call kinds[] = {Call::Fopen, Call::Fgets, Call::Fprintf, Call::Access,
                          Call::Chown, Call::Chmod, Call::Rename};
    for (Call kind : kinds) {
        SCOPED_TRACE(vphone::call_name(kind));
        vphone::fail_call(kind, 1, EIO);
        errno = 0;
        bool failed = false;
        if (kind == Call::Fopen) failed = std::fopen("/misc/sensor/a", "r") == nullptr;
        if (kind == Call::Access) failed = ::access("/misc/sensor/a", W_OK) != 0;
        if (kind == Call::Chown) failed = ::chown("/misc/sensor/a", 1008, 1000) != 0;
        if (kind == Call::Chmod) failed = ::chmod("/misc/sensor/a", 0666) != 0;
        if (kind == Call::Rename) failed = ::rename("/misc/sensor/a", "/misc/sensor/b") != 0;
        if (kind == Call::Fgets || kind == Call::Fprintf) {
            FILE *f = std::fopen("/misc/sensor/a", kind == Call::Fgets ? "r" : "a");
            ASSERT_NE(f, nullptr);
            char line[16];
            failed = kind == Call::Fgets ? std::fgets(line, sizeof line, f) == nullptr
                                         : std::fprintf(f, "%d", 3) < 0;
            std::fclose(f);
        }
        EXPECT_TRUE(failed);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(vphone::read_file("/misc/sensor/a"), "1,2");  // nothing happened
        vphone::reset();
    }
}

TEST_F(VphoneTest, FailedFcloseLosesWhatWasWrittenSinceOpening) {
    const struct {
        const char *mode;
        const char *after;
    } cases[] = {{"w", ""}, {"a", "old"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mode);
        vphone::write_file("/misc/sensor/a", "old");
        FILE *f = std::fopen("/misc/sensor/a", c.mode);
        ASSERT_NE(f, nullptr);
        std::fprintf(f, "new text");
        vphone::fail_call(Call::Fclose, 1, ENOSPC);
        EXPECT_EQ(std::fclose(f), EOF);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(vphone::read_file("/misc/sensor/a"), c.after);
    }
}

TEST_F(VphoneTest, ShortAndZeroByteTransfers) {
    vphone::ScriptedDevice chip;
    vphone::attach(0x2E, &chip);
    int fd = ::open("/dev/compass", O_RDWR);
    ::ioctl(fd, 0x0706, 0x2E);
    const uint8_t out[4] = {1, 2, 3, 4};
    vphone::limit_transfer(Call::Write, 1);
    vphone::limit_transfer(Call::Write, 0, 2);
    EXPECT_EQ(::write(fd, out, 4), 1);
    EXPECT_EQ(::write(fd, out, 4), 0);
    EXPECT_EQ(::write(fd, out, 4), 4);
    ASSERT_EQ(chip.writes.size(), 2u);  // the zero-byte call never reached the chip
    EXPECT_EQ(chip.writes[0], (std::vector<uint8_t>{1}));
    chip.queue_read({5, 6});  // a short answer is a short read
    uint8_t in[4] = {};
    EXPECT_EQ(::read(fd, in, 4), 2);
    EXPECT_EQ(::read(fd, in, 4), -1);  // nothing queued
    EXPECT_EQ(errno, EIO);
    vphone::fail_call(Call::Close, 1, EINTR);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(vphone::open_compass_descriptors(), 0);  // released anyway
}

TEST_F(VphoneTest, OpeningTheDeviceCanFail) {
    vphone::fail_call(Call::Open, 1, ENOENT);
    EXPECT_EQ(::open("/dev/compass", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    int fd = ::open("/dev/compass", O_RDWR);
    EXPECT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(vphone::calls(Call::Open), 2);
}

}  // namespace
