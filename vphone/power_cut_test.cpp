// The phone's flash through power cuts: only what fsync made durable survives, a
// scheduled cut stops the calls and the files until power-on, a planned cut ends the
// program with its status.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "vphone/fault_plan.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;

class PowerCutTest : public vphone::PhoneTest {};

// Writes "new" to path, through a descriptor with or without fsync, or (stdio) as the
// library does, without.
int create(const char *path, bool sync, bool stdio = false) {
    if (stdio) {
        FILE *file = std::fopen(path, "w");
        return std::fputs("new", file) < 0 ? -1 : std::fclose(file);
    }
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) return fd;
    if (::write(fd, "new", 3) < 0) return -1;
    if (sync && ::fsync(fd) != 0) return -1;
    return ::close(fd);
}

int sync_dir() {
    const int fd = ::open("/misc/sensor", O_RDONLY | O_DIRECTORY);
    const int r = ::fsync(fd);
    ::close(fd);
    return r;
}

// Each sequence of file calls against what a journaling flash file system keeps after a
// power cut: content as of the file's last fsync, entries as of the directory's (or, when
// the journal committed them on its own, as they were at the cut).
TEST_F(PowerCutTest, APowerCutKeepsOnlyWhatWasMadeDurable) {
    const char *f = "/misc/sensor/f", *t = "/misc/sensor/f.tmp";
    using Maybe = std::optional<std::string>;
    const Maybe none;
    const struct {
        const char *name;
        std::function<void()> calls;
        Maybe f, t;                  // after a cut keeping the synced entries; none: no such file
        Maybe f_entries, t_entries;  // after one keeping every entry change
    } cases[] = {
        {"created, not synced", [&] { create(t, false); }, "old", none, "old", ""},
        {"created and synced, directory not", [&] { create(t, true); }, "old", none, "old", "new"},
        {"directory synced, content never", [&] { create(t, false), sync_dir(); }, "old", "", "old", ""},
        {"file and directory synced", [&] { create(t, true), sync_dir(); }, "old", "new", "old", "new"},
        {"rewritten in place, not synced", [&] { create(f, false); }, "old", none, "old", none},
        {"rewritten in place and synced", [&] { create(f, true); }, "new", none, "new", none},
        {"renamed over, directory not synced", [&] { create(t, true), ::rename(t, f); }, "old", none, "new", none},
        {"renamed over, all synced", [&] { create(t, true), ::rename(t, f), sync_dir(); }, "new", none, "new", none},
        {"renamed, content never synced", [&] { create(t, false), ::rename(t, f), sync_dir(); }, "", none, "", none},
        {"renamed, nothing synced", [&] { create(t, false), ::rename(t, f); }, "old", none, "", none},
        {"unlinked, directory not synced", [&] { ::unlink(f); }, "old", none, none, none},
        {"unlinked, directory synced", [&] { ::unlink(f), sync_dir(); }, none, none, none, none},
        {"the library's way: stdio and rename", [&] { create(t, false, true), ::rename(t, f); }, "old", none, "", none},
    };
    for (const auto &c : cases)
        for (const vphone::CutKeeps keeps : {vphone::CutKeeps::kSynced, vphone::CutKeeps::kEntries}) {
            const bool entries = keeps == vphone::CutKeeps::kEntries;
            SCOPED_TRACE(std::string(c.name) + (entries ? ", entries kept" : ", synced entries"));
            vphone::reset();
            vphone::remove_file(t);
            vphone::write_file(f, "old");  // durable
            c.calls();
            vphone::power_cut(keeps);
            EXPECT_EQ(vphone::read_file(f), entries ? c.f_entries : c.f);
            EXPECT_EQ(vphone::read_file(t), entries ? c.t_entries : c.t);
        }
}

TEST_F(PowerCutTest, AScheduledCutStopsTheCallAndTheFilesUntilPowerOn) {
    vphone::write_file("/misc/sensor/f", "old");
    vphone::cut_power_at_file_call(3);  // open, write, then the fsync
    const int fd = ::open("/misc/sensor/f", O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::write(fd, "new", 3), 3);
    EXPECT_FALSE(vphone::powered_off());
    EXPECT_EQ(::fsync(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(vphone::powered_off());
    EXPECT_EQ(vphone::read_file("/misc/sensor/f"), "old");
    EXPECT_EQ(::open("/misc/sensor/f", O_RDONLY), -1);  // the phone stays off
    EXPECT_EQ(::access("/misc/sensor/f", F_OK), -1);
    ::usleep(1000);  // the clock goes on
    EXPECT_EQ(vphone::now_us(), 1000u);
    ::close(fd);
    vphone::reset();
    EXPECT_FALSE(vphone::powered_off());
    EXPECT_EQ(::access("/misc/sensor/f", F_OK), 0);
    // By call kind: the second rename.
    vphone::write_file("/misc/sensor/a", "a");
    vphone::cut_power_at(Call::Rename, 2);
    EXPECT_EQ(::rename("/misc/sensor/a", "/misc/sensor/b"), 0);
    EXPECT_EQ(::rename("/misc/sensor/b", "/misc/sensor/c"), -1);
    EXPECT_EQ(vphone::read_file("/misc/sensor/a"), "a");  // the first rename was never made durable
    EXPECT_FALSE(vphone::exists("/misc/sensor/b"));
}

// A program ends where the power fails, with the documented status.
TEST_F(PowerCutTest, APlannedPowerCutEndsTheProgramWithItsStatus) {
    vphone::write_file("/misc/sensor/f", "old");
    const pid_t child = vphone::fork_process();
    ASSERT_GE(child, 0);
    if (child == 0) {
        vphone::apply_fault_plan({{Call::Open, 2, 0, 1, true, true}});  // powercut:2
        create("/misc/sensor/f", true);                                 // open, then the write: cut
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), vphone::kPowerCutExitStatus);
    EXPECT_EQ(vphone::read_file("/misc/sensor/f"), "old");  // the truncation did not last
}

}  // namespace
