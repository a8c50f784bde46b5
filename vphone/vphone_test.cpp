// The virtual phone itself, driven through the plain C library calls a program makes.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "vphone/fault_plan.h"
#include "vphone/phone_fixture.h"
#include "drivers/kmxc_protocol.h"
#include "smb380/smb380_protocol.h"

namespace {

using vphone::Call;
using vphone::Kind;
using Bytes = std::vector<uint8_t>;

class VphoneTest : public vphone::PhoneTest {};

TEST_F(VphoneTest, OnlyThePhonesPathsGoToTheSandbox) {
    const struct {
        const char *path;
        bool phone;
    } cases[] = {{"/misc/sensor/kmxc_orvane.cfg", true},
                 {"/etc/kmxc_transformation.cfg", true},
                 {"/sys/module/zorsensor/parameters/profile", true},
                 {"/dev/compass", true},
                 {"/etc/passwd", false},
                 {"/dev/compass2", false},
                 {"misc/sensor/x", false},
                 {"/sys/module/other/parameters/profile", false}};
    for (const auto &c : cases) {
        EXPECT_EQ(vphone::host_path(c.path), c.phone ? vphone::root() + c.path : c.path) << c.path;
    }
    FILE *f = std::fopen("/misc/sensor/probe", "w");
    ASSERT_NE(f, nullptr);
    std::fprintf(f, "%d,%d", 1, 2);
    std::fclose(f);
    struct stat st {};
    EXPECT_NE(::stat("/misc/sensor/probe", &st), 0);  // nothing outside the sandbox
    EXPECT_EQ(::chown("/misc/sensor/probe", 1008, 1000), 0);
    EXPECT_EQ(::chmod("/misc/sensor/probe", 0640), 0);
    EXPECT_EQ(::rename("/misc/sensor/probe", "/misc/sensor/moved"), 0);
    EXPECT_EQ(vphone::read_file("/misc/sensor/moved"), "1,2");
    EXPECT_EQ(vphone::owner_of("/misc/sensor/moved"), (vphone::Owner{1008, 1000}));  // follows the rename
    EXPECT_EQ(vphone::mode_of("/misc/sensor/moved"), 0640u);
    EXPECT_EQ(::chown("/misc/sensor/none", 1, 1), -1);
    EXPECT_EQ(vphone::calls(Call::Fopen) + vphone::calls(Call::Chown) + vphone::calls(Call::Rename), 4);
}

TEST_F(VphoneTest, EachDescriptorKeepsItsSlaveAddressAndTransfersReachThatChip) {
    vphone::ScriptedDevice mag, acc;
    vphone::attach(kmxc::kBusAddress, &mag);
    vphone::attach(smb380_regs::kBusAddress, &acc);
    const int a = ::open("/dev/compass", O_RDWR), b = ::open("/dev/compass", O_RDWR);
    const uint8_t cmd[2] = {1, 2};
    EXPECT_EQ(::write(a, cmd, 2), -1);  // no address selected yet: nobody answers
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(::ioctl(a, vphone::kSelectSlave, kmxc::kBusAddress), 0);
    EXPECT_EQ(::ioctl(b, vphone::kSelectSlave, smb380_regs::kBusAddress), 0);
    EXPECT_EQ(::write(a, cmd, 2), 2);
    acc.queue_read({9, 8, 7, 6});
    uint8_t in[3] = {};
    ::usleep(13000);
    EXPECT_EQ(::read(b, in, 3), 3);  // a longer answer is cut to the length asked
    EXPECT_EQ(Bytes(in, in + 3), (Bytes{9, 8, 7}));
    EXPECT_EQ(::read(b, in, 3), -1);  // nothing queued
    EXPECT_EQ(mag.writes, (std::vector<Bytes>{{1, 2}}));
    ::close(a);
    ::close(b);
    EXPECT_EQ(vphone::open_compass_descriptors(), 0);
    const auto reads = vphone::transcript_of(Kind::Read);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].address, smb380_regs::kBusAddress);
    EXPECT_EQ(reads[0].bytes, (Bytes{9, 8, 7}));
    EXPECT_EQ(reads[0].time_us, 13000u);
    EXPECT_EQ(reads[1].error, EIO);
}

TEST_F(VphoneTest, FaultWindowsCountFromWhenTheyAreSet) {
    const struct {
        const char *name;
        int nth, count;
        std::vector<bool> fails;
    } cases[] = {{"next call", 1, 1, {true, false, false, false}},
                 {"third call", 3, 1, {false, false, true, false}},
                 {"second and third", 2, 2, {false, true, true, false}},
                 {"forever from the third", 3, vphone::kForever, {false, false, true, true}}};
    vphone::write_file("/misc/sensor/a", "x");
    for (const auto &c : cases) {
        vphone::reset();
        ::access("/misc/sensor/a", F_OK);  // calls before the window is set do not shift it
        vphone::fail_call(Call::Access, c.nth, EACCES, c.count);
        for (size_t i = 0; i < c.fails.size(); ++i)
            EXPECT_EQ(::access("/misc/sensor/a", F_OK), c.fails[i] ? -1 : 0) << c.name << ", call " << i + 1;
    }
}

// A fault plan as an integrator writes it: each entry becomes one fail_call, and text
// that is not a plan is refused with the entry and the reason.
TEST_F(VphoneTest, FaultPlansParseToTheirFaultsOrSayWhyNot) {
    using vphone::PlannedFault;
    const struct {
        const char *text;
        std::vector<PlannedFault> want;
        const char *error;
    } cases[] = {
        {"fopen:3:ENOSPC", {{Call::Fopen, 3, ENOSPC, 1}}, ""},
        {"write:1", {{Call::Write, 1, EIO, 1}}, ""},
        {"usleep:2:4:5,rename:1:EROFS:all", {{Call::Usleep, 2, 4, 5}, {Call::Rename, 1, EROFS, vphone::kForever}}, ""},
        {"", {}, "empty fault plan"},
        {"fopen", {}, "'fopen': the occurrence must be a whole number from 1"},
        {"fopen:0", {}, "'fopen:0': the occurrence must be a whole number from 1"},
        {"flush:1", {}, "'flush:1': unknown call 'flush'"},
        {"read:1:EWHAT", {}, "'read:1:EWHAT': unknown errno 'EWHAT'"},
        {"read:1:EIO:0", {}, "'read:1:EIO:0': the count must be a whole number from 1, or all"},
        {"read:1:EIO:1:9", {}, "'read:1:EIO:1:9': at most CALL:N:ERRNO:COUNT"},
        {"read:1,", {}, "'': unknown call ''"},
    };
    for (const auto &c : cases) {
        std::vector<PlannedFault> got;
        std::string error;
        const bool ok = vphone::parse_fault_plan(c.text, &got, &error);
        EXPECT_EQ(ok, *c.error == '\0') << c.text;
        if (!ok) {
            EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.text << ": " << error;
            continue;
        }
        ASSERT_EQ(got.size(), c.want.size()) << c.text;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].call, c.want[i].call) << c.text;
            EXPECT_EQ(got[i].nth, c.want[i].nth) << c.text;
            EXPECT_EQ(got[i].error, c.want[i].error) << c.text;
            EXPECT_EQ(got[i].count, c.want[i].count) << c.text;
        }
    }
    // Applied, the plan fails exactly the named occurrence.
    std::vector<PlannedFault> plan;
    std::string error;
    ASSERT_TRUE(vphone::parse_fault_plan("access:2:EACCES", &plan, &error));
    vphone::apply_fault_plan(plan);
    EXPECT_EQ(::access("/misc/sensor", F_OK), 0);
    EXPECT_EQ(::access("/misc/sensor", F_OK), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(::access("/misc/sensor", F_OK), 0);
}

}  // namespace
