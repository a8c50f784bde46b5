// The virtual clock through the C library calls a sensor HAL makes: clock_gettime on the
// monotonic clocks, nanosleep, and clock_nanosleep relative or to an absolute deadline.
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>

#include "vphone/fault_plan.h"
#include "vphone/phone_fixture.h"

extern "C" int __nanosleep(const struct timespec *request, struct timespec *remaining);
extern "C" int __clock_gettime(clockid_t clock, struct timespec *now);

namespace {

using vphone::Call;
using vphone::Kind;

class ClockTest : public vphone::PhoneTest {};

uint64_t ns_of(const timespec &t) {
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

timespec at(time_t seconds, long nanoseconds) { return timespec{.tv_sec = seconds, .tv_nsec = nanoseconds}; }

// Each sleeping call moves the one clock by exactly what it asks, counted as its own
// kind and recorded as a sleep; an absolute sleep goes to its deadline, and one already
// past returns at once. Every clock that reads the virtual clock then reads the same
// nanosecond, and now_us() is it in whole microseconds. Each case starts at 1.000000700 s.
TEST_F(ClockTest, EachSleepMovesTheOneClockByWhatItAsksAndEveryMonotonicClockReadsIt) {
    const struct {
        const char *name;
        Call call;
        clockid_t clock;  // clock_nanosleep's; nanosleep: nonzero for the __nanosleep alias
        int flags;
        timespec asked;
        uint64_t moved_ns;
    } cases[] = {
        {"usleep", Call::Usleep, 0, 0, at(0, 13000000), 13000000},
        {"nanosleep", Call::Nanosleep, 0, 0, at(2, 999999999), 2999999999},
        {"__nanosleep", Call::Nanosleep, 1, 0, at(0, 1), 1},
        {"monotonic, relative", Call::ClockNanosleep, CLOCK_MONOTONIC, 0, at(0, 20000001), 20000001},
        {"boottime, relative", Call::ClockNanosleep, CLOCK_BOOTTIME, 0, at(1, 5), 1000000005},
        {"monotonic, to a deadline", Call::ClockNanosleep, CLOCK_MONOTONIC, TIMER_ABSTIME, at(3, 250), 1999999550},
        {"boottime, to a deadline", Call::ClockNanosleep, CLOCK_BOOTTIME, TIMER_ABSTIME, at(1, 1000), 300},
        {"a deadline past", Call::ClockNanosleep, CLOCK_MONOTONIC, TIMER_ABSTIME, at(1, 0), 0},
        {"the deadline now", Call::ClockNanosleep, CLOCK_BOOTTIME, TIMER_ABSTIME, at(1, 700), 0},
        {"nothing, relative", Call::ClockNanosleep, CLOCK_MONOTONIC, 0, at(0, 0), 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        vphone::advance_us(1000000);
        const timespec t = at(0, 700);
        ASSERT_EQ(::nanosleep(&t, nullptr), 0);
        vphone::clear_transcript();
        const int before = vphone::calls(c.call);
        if (c.call == Call::Usleep)
            EXPECT_EQ(::usleep(static_cast<useconds_t>(c.asked.tv_nsec / 1000)), 0);
        else if (c.call == Call::Nanosleep)
            EXPECT_EQ(c.clock ? ::__nanosleep(&c.asked, nullptr) : ::nanosleep(&c.asked, nullptr), 0);
        else
            EXPECT_EQ(::clock_nanosleep(c.clock, c.flags, &c.asked, nullptr), 0);
        const uint64_t now = 1000000700u + c.moved_ns;
        EXPECT_EQ(vphone::now_ns(), now);
        EXPECT_EQ(vphone::now_us(), now / 1000);
        EXPECT_EQ(vphone::calls(c.call), before + 1);
        ASSERT_EQ(vphone::transcript().size(), 1u);
        const vphone::Event &e = vphone::transcript()[0];
        EXPECT_EQ(e.kind, Kind::Sleep);
        EXPECT_EQ(e.sleep_ns, c.moved_ns);
        EXPECT_EQ(e.argument, static_cast<long>(c.moved_ns / 1000));
        EXPECT_EQ(e.time_us, 1000000u);
        EXPECT_EQ(e.request, static_cast<unsigned long>(c.call));
        for (clockid_t clock : {CLOCK_MONOTONIC, CLOCK_MONOTONIC_RAW, CLOCK_MONOTONIC_COARSE, CLOCK_BOOTTIME}) {
            timespec read{};
            ASSERT_EQ(::clock_gettime(clock, &read), 0) << clock;
            EXPECT_EQ(ns_of(read), now) << clock;
            EXPECT_LT(read.tv_nsec, 1000000000) << clock;
        }
        timespec alias{};
        ASSERT_EQ(::__clock_gettime(CLOCK_MONOTONIC, &alias), 0);
        EXPECT_EQ(ns_of(alias), now);
        EXPECT_EQ(vphone::calls(Call::ClockGettime), 5);
    }
}

// A fault on a clock call fails it the way that call reports failures and leaves the
// clock where it was: nanosleep -1 with errno, clock_nanosleep the error number itself
// (errno untouched); an interrupted relative sleep has all of its time left.
TEST_F(ClockTest, AFaultFailsTheCallAsItReportsErrorsAndSleepsNothing) {
    const timespec request = at(0, 5000000);
    auto relative = [&](timespec *left) { return ::clock_nanosleep(CLOCK_MONOTONIC, 0, &request, left); };
    auto deadline = [&](timespec *left) { return ::clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &request, left); };
    auto nanosleep = [&](timespec *left) { return ::nanosleep(&request, left); };
    const struct {
        const char *plan;
        std::function<int(timespec *left)> call;
        int result;      // what the call returns
        int error;       // errno after it (0: untouched)
        bool time_left;  // *left is the whole request
    } cases[] = {
        {"usleep:1:EINTR", [](timespec *) { return ::usleep(5000); }, -1, EINTR, false},
        {"nanosleep:1:EINTR", nanosleep, -1, EINTR, true},
        {"nanosleep:1:EFAULT", nanosleep, -1, EFAULT, false},
        {"clock_nanosleep:1:EINTR", relative, EINTR, 0, true},
        {"clock_nanosleep:1:EINTR", deadline, EINTR, 0, false},
        {"clock_gettime:1:EINVAL", [](timespec *now) { return ::clock_gettime(CLOCK_BOOTTIME, now); }, -1, EINVAL,
         false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.plan);
        vphone::reset();
        std::vector<vphone::PlannedFault> plan;
        std::string why;
        ASSERT_TRUE(vphone::parse_fault_plan(c.plan, &plan, &why)) << why;
        vphone::apply_fault_plan(plan);
        timespec left = at(9, 9);
        errno = 0;
        EXPECT_EQ(c.call(&left), c.result);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(ns_of(left), c.time_left ? ns_of(request) : ns_of(at(9, 9)));
        EXPECT_EQ(vphone::now_ns(), 0u);
        EXPECT_TRUE(vphone::transcript_of(Kind::Sleep).empty());
        EXPECT_EQ(c.call(&left), 0) << "the fault was for the first call only";
    }
    // Times the kernel refuses are refused the same way, before they count or sleep.
    vphone::reset();
    const timespec refused[] = {at(0, 1000000000), at(0, -1), at(-1, 0)};
    for (const timespec &t : refused) {
        EXPECT_EQ(::nanosleep(&t, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr), EINVAL);
    }
    EXPECT_EQ(vphone::calls(Call::Nanosleep) + vphone::calls(Call::ClockNanosleep), 0);
    EXPECT_EQ(vphone::now_ns(), 0u);
}

// CLOCK_REALTIME is the machine's: a virtual hour does not move it, and a sleep on it
// takes real time without moving the virtual clock or counting as the phone's.
TEST_F(ClockTest, TheRealtimeClockStaysReal) {
    timespec before{}, after{}, slept{};
    ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &before), 0);
    ::usleep(3600u * 1000000u);
    ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &after), 0);
    EXPECT_LT(ns_of(after) - ns_of(before), 60u * 1000000000u);
    const timespec two_ms = at(0, 2000000);
    ASSERT_EQ(::clock_nanosleep(CLOCK_REALTIME, 0, &two_ms, nullptr), 0);
    ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &slept), 0);
    EXPECT_GE(ns_of(slept) - ns_of(after), 2000000u);
    EXPECT_EQ(vphone::now_us(), 3600u * 1000000u);
    EXPECT_EQ(vphone::calls(Call::ClockGettime) + vphone::calls(Call::ClockNanosleep), 0);
}

}  // namespace
