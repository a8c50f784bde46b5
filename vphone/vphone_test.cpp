// The virtual phone itself, driven through the plain C library calls a program makes.
#include <fcntl.h>
#include <sys/file.h>
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
using Results = std::vector<int>;  // of calls in order, an initializer list being evaluated left to right

class VphoneTest : public vphone::PhoneTest {};

// The errno of a C library call that failed (returned -1); 0 for one that did not.
int error_of(long result) { return result == -1 ? errno : 0; }

TEST_F(VphoneTest, OnlyThePhonesPathsGoToTheSandbox) {
    for (std::string phone : {"/misc/sensor/kmxc_orvane.cfg", "/etc/kmxc_transformation.cfg",
                              "/sys/module/zorsensor/parameters/profile", "/dev/compass"})
        EXPECT_EQ(vphone::host_path(phone), vphone::root() + phone);
    for (std::string host : {"/etc/passwd", "/dev/compass2", "misc/sensor/x", "/sys/module/other/parameters/profile"})
        EXPECT_EQ(vphone::host_path(host), host);
    FILE *f = std::fopen("/misc/sensor/probe", "w");
    ASSERT_NE(f, nullptr);
    std::fprintf(f, "%d,%d", 1, 2);
    std::fclose(f);
    struct stat st {};
    EXPECT_NE(::stat("/misc/sensor/probe", &st), 0);  // nothing outside the sandbox
    EXPECT_EQ(vphone::read_file("/misc/sensor/probe"), "1,2");
    // (chown, chmod and rename as the library saves: the calibration file's tests.)
    EXPECT_EQ(::chown("/misc/sensor/none", 1, 1), -1);
    EXPECT_EQ(vphone::calls(Call::Fopen) + vphone::calls(Call::Chown), 2);
}

TEST_F(VphoneTest, EachDescriptorKeepsItsSlaveAddressAndTransfersReachThatChip) {
    vphone::ScriptedDevice mag, acc;
    vphone::attach(kmxc::kBusAddress, &mag);
    vphone::attach(smb380_regs::kBusAddress, &acc);
    const int a = ::open("/dev/compass", O_RDWR), b = ::open("/dev/compass", O_RDWR);
    const uint8_t cmd[2] = {1, 2};
    EXPECT_EQ(error_of(::write(a, cmd, 2)), ENXIO);  // no address selected yet: nobody answers
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
    EXPECT_EQ(::close(a) + ::close(b), 0);
    EXPECT_EQ(vphone::open_compass_descriptors(), 0);
    const auto reads = vphone::transcript_of(Kind::Read);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].address, smb380_regs::kBusAddress);
    EXPECT_EQ(reads[0].bytes, (Bytes{9, 8, 7}));
    EXPECT_EQ(reads[0].time_us, 13000u);
    EXPECT_EQ(reads[1].error, EIO);
}

// A fault plan as an integrator writes it: each entry becomes one fault, and text that
// is not a plan is refused with the entry and the reason. Applied, a fault's window
// counts from when the plan is applied.
TEST_F(VphoneTest, FaultPlansParseToTheirFaultsOrSayWhyNotAndCountFromWhenApplied) {
    using vphone::PlannedFault;
    const struct {
        const char *text;
        std::vector<PlannedFault> want;
        const char *error;
        std::vector<bool> fails{};  // applied: which of the next four access calls fail
    } cases[] = {
        {"access:1:EACCES", {{Call::Access, 1, EACCES, 1}}, "", {true, false, false, false}},
        {"access:3:EACCES", {{Call::Access, 3, EACCES, 1}}, "", {false, false, true, false}},
        {"access:2:EACCES:2", {{Call::Access, 2, EACCES, 2}}, "", {false, true, true, false}},
        {"access:3:EACCES:all", {{Call::Access, 3, EACCES, vphone::kForever}}, "", {false, false, true, true}},
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
        {"powercut:7", {{Call::Open, 7, 0, 1, true, true}}, ""},
        {"rename:1,powercut:3:usleep", {{Call::Rename, 1, EIO, 1}, {Call::Usleep, 3, 0, 1, true, false}}, ""},
        {"powercut-entries:4:fsync", {{Call::Fsync, 4, 0, 1, true, false, vphone::CutKeeps::kEntries}}, ""},
        {"powercut", {}, "'powercut': a power cut is powercut:N[:CALL]"},
        {"powercut:0", {}, "'powercut:0': a power cut is powercut:N[:CALL]"},
        {"powercut:1:sync", {}, "'powercut:1:sync': unknown call 'sync'"},
        {"powercut:1,powercut:2", {}, "'powercut:2': one power cut per plan"},
    };
    vphone::write_file("/misc/sensor/a", "x");
    for (const auto &c : cases) {
        std::vector<PlannedFault> got;
        std::string error;
        EXPECT_EQ(vphone::parse_fault_plan(c.text, &got, &error), *c.error == '\0') << c.text;
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.text << ": " << error;
        if (error.empty()) { EXPECT_EQ(got, c.want) << c.text; }
        if (c.fails.empty()) continue;
        vphone::reset();
        ::access("/misc/sensor/a", F_OK);  // calls before the plan is applied do not shift its window
        vphone::apply_fault_plan(got);
        for (size_t i = 0; i < c.fails.size(); ++i)
            EXPECT_EQ(::access("/misc/sensor/a", F_OK), c.fails[i] ? -1 : 0) << c.text << ", call " << i + 1;
    }
}

// ---- Phone files through descriptors ---------------------------------------------------

// The kit's way of writing a file: every call is counted, can be made to fail, and keeps
// the real file system's semantics (the sandbox is a real directory).
TEST_F(VphoneTest, DescriptorCallsOnPhoneFilesAreCountedFailableAndReal) {
    const char *path = "/misc/sensor/new";
    const int dir = ::open("/misc/sensor", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir, 0);
    int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(error_of(::open(path, O_WRONLY | O_CREAT | O_EXCL, 0600)), EEXIST);  // exclusive
    EXPECT_EQ(::write(fd, "abc", 3), 3);
    EXPECT_EQ((Results{::fchown(fd, 1008, 1000), ::fchmod(fd, 0666), ::fsync(fd), ::fdatasync(fd)}), Results(4, 0));
    EXPECT_EQ(::flock(dir, LOCK_EX | LOCK_NB), 0);
    const int other = ::open("/misc/sensor", O_RDONLY | O_DIRECTORY);  // another open file description
    EXPECT_EQ(error_of(::flock(other, LOCK_EX | LOCK_NB)), EWOULDBLOCK);
    EXPECT_EQ(::close(fd), 0);
    EXPECT_EQ(::renameat(dir, "new", dir, "moved"), 0);
    EXPECT_EQ(vphone::read_file("/misc/sensor/moved"), "abc");
    EXPECT_EQ(vphone::owner_of("/misc/sensor/moved"), (vphone::Owner{1008, 1000}));  // fchown follows the rename
    EXPECT_EQ(vphone::mode_of("/misc/sensor/moved"), 0666u);
    EXPECT_EQ((Results{::unlink("/misc/sensor/moved"), ::close(other), ::close(dir)}), Results(3, 0));
    EXPECT_FALSE(vphone::exists("/misc/sensor/moved"));
    // Every call is counted (each as its own kind, as the failing calls below show), the
    // refused exclusive open among them, and logged with its file's path.
    EXPECT_EQ(vphone::calls(Call::Open), 4);
    EXPECT_EQ(vphone::file_calls(), 16);
    ASSERT_EQ(vphone::file_call_log().size(), 16u);
    EXPECT_EQ(vphone::file_call_log()[0].path, "/misc/sensor");
    EXPECT_EQ(vphone::file_call_log()[1].path, path);
    EXPECT_EQ(vphone::file_call_log()[5].call, Call::Fchmod);
    EXPECT_EQ(vphone::file_call_log()[5].path, path);  // a descriptor's call names its path

    // Each kind fails when planned, and the failing call does nothing.
    vphone::write_file(path, "old");
    const unsigned mode = vphone::mode_of(path);
    const vphone::Owner owner = vphone::owner_of(path);
    const struct {
        Call call;
        int (*make)(int fd);
    } fails[] = {
        {Call::Write, [](int fd) { return static_cast<int>(::write(fd, "x", 1)); }},
        {Call::Read, [](int fd) { return static_cast<int>(::read(fd, nullptr, 0)); }},
        {Call::Fsync, [](int fd) { return ::fsync(fd); }},
        {Call::Fdatasync, [](int fd) { return ::fdatasync(fd); }},
        {Call::Flock, [](int fd) { return ::flock(fd, LOCK_EX | LOCK_NB); }},
        {Call::Fchmod, [](int fd) { return ::fchmod(fd, 0600); }},
        {Call::Fchown, [](int fd) { return ::fchown(fd, 1, 1); }},
        {Call::Close, [](int fd) { return ::close(fd); }},
        {Call::Rename, [](int) { return ::rename("/misc/sensor/new", "/misc/sensor/moved"); }},
        {Call::Unlink, [](int) { return ::unlink("/misc/sensor/new"); }},
    };
    for (const auto &f : fails) {
        SCOPED_TRACE(vphone::call_name(f.call));
        fd = ::open(path, O_RDWR);
        ASSERT_GE(fd, 0);
        vphone::fail_call(f.call, 1, EROFS);
        EXPECT_EQ(error_of(f.make(fd)), EROFS);
        if (f.call != Call::Close) ::close(fd);
        EXPECT_EQ(vphone::read_file(path), "old");
        EXPECT_EQ(vphone::mode_of(path), mode);
        EXPECT_EQ(vphone::owner_of(path), owner);
    }
}

TEST_F(VphoneTest, TheTranscriptIsBoundedAndCountsWhatItDrops) {
    const size_t sleeps = vphone::kTranscriptCap + 1000;
    for (size_t i = 0; i < sleeps; ++i) ::usleep(999999);
    EXPECT_EQ(vphone::transcript().size(), vphone::kTranscriptCap);
    EXPECT_EQ(vphone::transcript_dropped(), 1000u);
    EXPECT_EQ(vphone::now_us(), uint64_t{sleeps} * 999999u);  // every sleep still passes its time
    vphone::clear_transcript();
    ::usleep(5);
    EXPECT_EQ(vphone::transcript().size(), 1u);
    EXPECT_EQ(vphone::transcript_dropped(), 0u);
}

// A fault aimed at one file, and a look at every file call as it is made.
TEST_F(VphoneTest, PathFaultsHitOnlyTheirFileAndTheHookSeesEveryFileCall) {
    vphone::write_file("/misc/sensor/a", "a");
    vphone::write_file("/misc/sensor/b", "b");
    vphone::fail_path("/misc/sensor/a", Call::Open, EACCES);
    std::vector<std::string> seen;
    vphone::on_file_call(
        [&](const vphone::FileCall &c) { seen.push_back(std::string(vphone::call_name(c.call)) + " " + c.path); });
    EXPECT_EQ(error_of(::open("/misc/sensor/a", O_RDONLY)), EACCES);
    EXPECT_EQ(::open("/misc/sensor/a", O_RDONLY), -1);  // every time
    const int fd = ::open("/misc/sensor/b", O_RDONLY);
    EXPECT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(::access("/misc/sensor/a", F_OK), 0);  // other calls on it go through
    EXPECT_EQ(seen, (std::vector<std::string>{"open /misc/sensor/a", "open /misc/sensor/a", "open /misc/sensor/b",
                                              "close /misc/sensor/b", "access /misc/sensor/a"}));
    vphone::reset();
    EXPECT_GE(::open("/misc/sensor/a", O_RDONLY), 0);
    EXPECT_EQ(seen.size(), 5u);
}

}  // namespace
