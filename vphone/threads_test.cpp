// The virtual phone is single-threaded: a second thread that reaches it while a call is
// in it stops the program with a message. Other threads' calls on their own files, and
// threads that take turns, are no concern of it.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <thread>

#include "drivers/kmxc_protocol.h"
#include "vphone/phone_fixture.h"

namespace {

class ThreadsTest : public vphone::PhoneTest {};

// A chip whose every read (made inside the phone's read call) first uses the phone
// itself, as a model that writes a file may (the same thread coming back in), then runs
// `during` on another thread and waits for it.
struct ChipThatWaits : vphone::BusDevice {
    std::function<void()> during;
    int write(const uint8_t *, size_t length) override { return static_cast<int>(length); }
    int read(uint8_t *data, size_t length) override {
        if (::access("/misc/sensor", F_OK) != 0) return -EIO;
        std::thread(during).join();
        std::fill_n(data, length, uint8_t{0});
        return static_cast<int>(length);
    }
};

// One read from the chip at the magnetometer's address: 2 on success.
ssize_t read_chip(ChipThatWaits *chip) {
    vphone::attach(kmxc::kBusAddress, chip);
    const int fd = ::open("/dev/compass", O_RDWR);
    ::ioctl(fd, vphone::kSelectSlave, kmxc::kBusAddress);
    uint8_t bytes[2];
    const ssize_t n = ::read(fd, bytes, sizeof bytes);
    ::close(fd);
    return n;
}

TEST_F(ThreadsTest, ASecondThreadInThePhoneDuringACallStopsTheProgramWithAMessage) {
    const struct {
        const char *name;
        std::function<void()> second;
    } cases[] = {
        {"a sleep", [] { ::usleep(1); }},
        {"the clock",
         [] {
             timespec t{};
             ::clock_gettime(CLOCK_MONOTONIC, &t);
         }},
        {"a phone file", [] { ::access("/misc/sensor", F_OK); }},
        {"the compass", [] { ::close(::open("/dev/compass", O_RDWR)); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                ChipThatWaits chip;
                chip.during = c.second;
                read_chip(&chip);
            },
            "vphone: called from two threads at once; the virtual phone is single-threaded");
    }
}

TEST_F(ThreadsTest, OtherThreadsOwnFilesAndThreadsTakingTurnsAreNoConcernOfThePhone) {
    const std::string own = vphone::root() + "/own-file";  // a host path, not the phone's
    ChipThatWaits chip;
    chip.during = [&] {
        int fds[2];
        char byte = 'x';
        ASSERT_EQ(::pipe(fds), 0);
        EXPECT_EQ(::write(fds[1], &byte, 1), 1);
        EXPECT_EQ(::read(fds[0], &byte, 1), 1);
        EXPECT_EQ(::close(fds[0]) + ::close(fds[1]), 0);
        std::FILE *file = std::fopen(own.c_str(), "w");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(std::fclose(file), 0);
        timespec t{};
        EXPECT_EQ(::clock_gettime(CLOCK_REALTIME, &t), 0);
    };
    EXPECT_EQ(read_chip(&chip), 2);
    // One thread after another on the phone's clock and files.
    vphone::write_file("/misc/sensor/a", "a");
    std::thread([] {
        ::usleep(5);
        std::fclose(std::fopen("/misc/sensor/a", "r"));
    }).join();
    ::usleep(5);
    EXPECT_EQ(vphone::now_us(), 10u);
    EXPECT_EQ(vphone::calls(vphone::Call::Fopen), 1);
    EXPECT_EQ(vphone::read_file("/misc/sensor/a"), "a");
}

}  // namespace
