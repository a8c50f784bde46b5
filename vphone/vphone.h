// The virtual phone: a test double for the phone's sensor kernel driver and file
// system, so the shipped libkmxc_orvane.so runs unchanged on a development machine.
//
// What it does:
//  - Stands in for the C library calls the compass library and the kit make (open,
//    close, read, write, ioctl, usleep, fopen, fgets, fprintf, fclose, access, chown,
//    chmod, rename, renameat, unlink, fsync, fdatasync, flock, fchmod, fchown and their
//    glibc aliases). Calls that do not concern the phone go on to the real C library
//    untouched; on the phone's files they keep the real file system's semantics
//    (O_EXCL, O_NOFOLLOW, O_NONBLOCK, flock), counted and failable.
//  - Maps the phone's paths (/dev/compass, /misc/..., /etc/kmxc_..., /sys/module/
//    zorsensor/...) into a sandbox directory: "/misc/sensor/x.cfg" is
//    "<root>/misc/sensor/x.cfg". Tests never touch the machine's /etc or /misc.
//  - Serves /dev/compass as a simulated I2C bus: request 0x0706 selects the slave
//    address per open descriptor, write/read go to the BusDevice attached at that
//    address, requests 0x0707..0x0710 answer as set here. Every transfer, request and
//    sleep goes to a transcript.
//  - usleep, nanosleep and clock_nanosleep advance a virtual clock instead of sleeping,
//    and clock_gettime reads it for the monotonic clocks ("Virtual clock", below).
//  - Injects faults: fail the Nth call of a kind with an errno, shorten transfers,
//    fail control requests.
//  - Ownership is simulated: chown on a phone path (fchown on a phone descriptor)
//    records the owner (owner_of) rather than applying it, so results do not depend on
//    who runs the tests.
//  - Models durability and cuts the power (below, "Power").
//
// Use in tests: link the target kmxc_vphone (kmxc_add_phone_test does it) and derive
// fixtures from vphone::PhoneTest (phone_fixture.h). Single-threaded, like the library
// itself: a second thread that reaches the phone while a call is in it stops the
// program with a message (abort) instead of corrupting its state. See README.md for
// running any program on it with LD_PRELOAD.
#ifndef KMXC_VPHONE_H
#define KMXC_VPHONE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/compass_device.h"

namespace vphone {

// ---- Chip models ------------------------------------------------------------------

// A chip on the simulated bus. Called with the bytes of one read()/write() on
// /dev/compass while its address is selected (length already cut by any injected
// short transfer; never 0). Return the number of bytes taken/delivered (0..length;
// less is a short transfer), or a negative errno (e.g. -EIO) to fail the call.
class BusDevice {
public:
    virtual ~BusDevice() = default;
    virtual int write(const uint8_t *data, size_t length) = 0;
    virtual int read(uint8_t *data, size_t length) = 0;
};

// Attaches a device at a 7-bit address (replacing any other); the caller keeps
// ownership. Transfers to an address with nothing attached fail with ENXIO.
void attach(int address, BusDevice *device);
void detach(int address);
// The device attached at an address, or null.
BusDevice *attached(int address);

// Records every write and answers each read from a queue of scripted answers: one
// read() takes one queued answer and delivers min(answer size, length) bytes (a
// shorter answer is a short read; the rest of a longer one is dropped). A read with
// nothing queued fails with EIO.
class ScriptedDevice : public BusDevice {
public:
    void queue_read(std::vector<uint8_t> answer) { answers.push_back(std::move(answer)); }
    int write(const uint8_t *data, size_t length) override;
    int read(uint8_t *data, size_t length) override;

    std::vector<std::vector<uint8_t>> writes;  // bytes of every accepted write
    std::vector<std::vector<uint8_t>> reads;   // bytes delivered by every read
    std::deque<std::vector<uint8_t>> answers;  // still queued
    int write_error = 0;                       // when not 0, every write fails with this errno
};

// ---- Virtual clock -------------------------------------------------------------------
//
// One clock, counted in nanoseconds from the last reset() (from 0 in a preloaded
// program). It moves only when the program sleeps: usleep by 1000 ns per microsecond,
// nanosleep and clock_nanosleep by exactly the nanoseconds asked (to the deadline, for
// an absolute clock_nanosleep; a deadline already past returns at once). clock_gettime
// reads it for CLOCK_MONOTONIC, CLOCK_MONOTONIC_RAW, CLOCK_MONOTONIC_COARSE and
// CLOCK_BOOTTIME (the phone never suspends); clock_nanosleep sleeps on it for
// CLOCK_MONOTONIC and CLOCK_BOOTTIME. CLOCK_REALTIME, time(), gettimeofday(), sleep()
// and the CPU-time clocks stay real. It stops at 2^64-1 ns (584 years) rather than wrap.

uint64_t now_ns();
uint64_t now_us();  // now_ns() / 1000, rounded down
void advance_us(uint64_t microseconds);

// ---- Transcript -------------------------------------------------------------------------

enum class Kind { Open, Close, SelectSlave, Write, Read, Control, Sleep };

struct Event {
    Kind kind = Kind::Open;
    int address = -1;              // selected slave address (transfers, SelectSlave: the new one)
    std::vector<uint8_t> bytes{};  // bytes actually moved (Write, Read)
    uint64_t time_us = 0;          // virtual time when the call was made
    unsigned long request = 0;     // ioctl request (SelectSlave, Control); Sleep: the Call that slept
    long argument = 0;             // ioctl argument; Sleep: microseconds; Read/Write: length asked
    long result = 0;               // what the call returned
    int error = 0;                 // errno when result is -1
    uint64_t sleep_ns = 0;         // Sleep: how far the clock moved (usleep: 1000 per microsecond)
};

// At most kTranscriptCap events are kept between two clear_transcript() (a replay's wait
// over a long gap sleeps billions of times); later ones are only counted.
constexpr size_t kTranscriptCap = 65536;
const std::vector<Event> &transcript();
std::vector<Event> transcript_of(Kind kind);
void clear_transcript();
size_t transcript_dropped();  // events not kept since the last clear_transcript()

// ---- Control requests ------------------------------------------------------------------

// The compass driver's request numbers (platform/compass_device.h).
constexpr unsigned long kSelectSlave = compass_device::kSelectSlave;
constexpr unsigned long kGetSensorControlInfo = compass_device::kGetSensorControlInfo;
constexpr unsigned long kSetChargerState = compass_device::kSetChargerState;
constexpr unsigned long kGetMagnetGuard = compass_device::kGetMagnetGuard;
constexpr unsigned long kSetMagnetGuard = compass_device::kSetMagnetGuard;

// What a control request (0x0707..0x0710) returns; 0 after reset. Other requests on
// /dev/compass fail with ENOTTY.
void set_control_answer(unsigned long request, int value);
// Every later call of this request fails with errno error (0 clears).
void set_control_error(unsigned long request, int error);

// ---- Fault injection -------------------------------------------------------------------

// Calls counted and failable. Only calls that concern the phone count: phone paths,
// the compass descriptor, descriptors open() returned on phone paths, files fopen()ed
// on them; usleep and nanosleep always, clock_gettime and clock_nanosleep on the
// virtual clock's clocks. Open, Close, Read and Write count both the compass
// descriptor's calls and the phone files'. Rename counts rename and renameat. A failing
// sleep does not move the clock (EINTR: nothing of it was slept).
enum class Call {
    Open,
    Close,
    Read,
    Write,
    Ioctl,
    Usleep,
    Fopen,
    Fgets,
    Fprintf,
    Fclose,
    Access,
    Chown,
    Chmod,
    Rename,
    Unlink,
    Fsync,
    Fdatasync,
    Flock,
    Fchmod,
    Fchown,
    ClockGettime,
    Nanosleep,
    ClockNanosleep
};
constexpr int kForever = -1;

// The nth next call of this kind (1 = the very next one) and the count-1 after it
// fail with errno error (count kForever: every call from the nth on). A failing
// fclose still closes the file but, like a failed write-back, loses what was written
// since fopen (the file is cut back to its length at opening); a failing close still
// releases the descriptor.
void fail_call(Call call, int nth, int error, int count = 1);
// The nth next Read or Write on /dev/compass (and count-1 after it) moves at most
// max_bytes (0: the call returns 0 without reaching the device).
void limit_transfer(Call call, size_t max_bytes, int nth = 1, int count = 1);
// Calls of this kind since the last reset().
int calls(Call call);
const char *call_name(Call call);

// Every counted call on a phone file since the last reset(), in order (at most
// kTranscriptCap): its kind and the phone path it concerns (a descriptor's: the path it
// was opened with). VPHONE_FILE_LOG=FILE also writes them to FILE as they happen, one
// "N CALL PATH" line each (N counts from 1).
struct FileCall {
    Call call;
    std::string path;
};
const std::vector<FileCall> &file_call_log();
long file_calls();  // counted calls on phone files since the last reset()
// Every later call of this kind on this phone path (a descriptor's: the path it was
// opened with) fails with error, until reset().
void fail_path(std::string_view phone_path, Call call, int error);
// Called at every counted call on a phone file, before it is made (a test's way to
// pause a writer half-way); an empty function removes it. reset() removes it.
void on_file_call(std::function<void(const FileCall &)> hook);

// ---- Power ------------------------------------------------------------------------------
//
// The phone's flash keeps only what was made durable, as a journaling flash file
// system does:
//  - a file's content is durable as of the last fsync or fdatasync of a descriptor on
//    it (a file never synced is durable as empty);
//  - a directory entry change (a file created, renamed, replaced, unlinked) is durable
//    once the directory is fsynced (through a descriptor open() returned on it);
//  - whatever was on the phone at power-on (reset(), make_sandbox(), set_root(), a
//    preloaded program's first call) and whatever the file helpers below write is
//    durable.
// A power cut puts every phone file and directory entry back to its durable state:
// files created since are gone, replaced or removed files come back with their durable
// content, and a file whose entry is durable but whose content never was comes back
// empty. A real file system also commits entry changes on its own (a journal commit a
// few seconds later), so a cut may find them on the flash although their files' data
// is not: CutKeeps::kEntries cuts so, every entry change made so far kept, every
// content still as of its fsync (a file renamed into place before its fsync comes back
// empty). The truth lies between the two; a save must survive both.
// Limits: only regular files in directories the phone changed through counted calls
// are modelled (directories themselves, symbolic links, FIFOs are left as they are);
// owner and mode are not rolled back; fdatasync counts as fsync; a write is never torn
// (the content reverts whole); between the two kinds of cut, the entry changes a
// journal commits in order (a prefix of them) are not tried one by one.
//
// Scheduled cuts (cut_power_at..., fault plans "powercut:N[:CALL]" and
// "powercut-entries:N[:CALL]") happen as the call is made: the call does not take place. In a program (exit_process)
// the process then ends at once with kPowerCutExitStatus, as on a real cut; in a test the phone stays off instead:
// every later call on a phone file fails with EIO until reset() powers it on again (the bus and the clock go on).
constexpr int kPowerCutExitStatus = 86;
enum class CutKeeps {
    kSynced,  // directory entries as of their directory's last fsync
    kEntries  // every directory entry change made so far
};
void power_cut(CutKeeps keeps = CutKeeps::kSynced);  // now; the process goes on, the phone stays on
// At the nth next call on a phone file / the nth next call of call.
void cut_power_at_file_call(long nth, bool exit_process = false, CutKeeps keeps = CutKeeps::kSynced);
void cut_power_at(Call call, long nth, bool exit_process = false, CutKeeps keeps = CutKeeps::kSynced);
bool powered_off();  // a scheduled cut has happened (test mode)

// ---- Sandbox ---------------------------------------------------------------------------

// Creates a fresh sandbox directory (under $TMPDIR or /tmp) with the phone's
// directories misc/sensor, etc, sys/module/zorsensor/parameters and dev, selects it
// and returns its path.
std::string make_sandbox();
// Selects an existing directory as the sandbox.
void set_root(const std::string &directory);
// Deletes the selected sandbox (if make_sandbox made it) and selects none.
void remove_sandbox();
std::string root();
// The sandbox path of a phone path ("/misc/sensor/a" -> "<root>/misc/sensor/a"); a
// path outside the phone's is returned unchanged.
std::string host_path(std::string_view phone_path);
bool is_phone_path(std::string_view path);

// File helpers on phone paths (they bypass fault injection and counting; what they
// write or remove is durable at once).
void write_file(std::string_view phone_path, std::string_view content);
std::optional<std::string> read_file(std::string_view phone_path);
bool exists(std::string_view phone_path);
void remove_file(std::string_view phone_path);
unsigned mode_of(std::string_view phone_path);  // permission bits, e.g. 0666
struct Owner {
    unsigned uid;
    unsigned gid;
    bool operator==(const Owner &) const = default;
};
Owner owner_of(std::string_view phone_path);  // as set by chown, else the real owner

// ---- Processes ---------------------------------------------------------------------------

// fork() for tests that need a second process on the same phone (a second service, a
// lock held elsewhere): 0 in the child, the child's pid in the parent, -1 on failure.
// glibc's fork crashes its child under the armel emulator (qemu-arm 7.2, ARMv5: the
// thread pointer), so this is the bare system call, without glibc's fork handlers: the
// child of a single-threaded test may use everything, and must end with _exit.
int fork_process();

// ---- Whole state --------------------------------------------------------------------

// Clock to 0, transcript, faults, transfer limits, control answers and errors, call
// counts, the file-call log, recorded owners and attached devices cleared; scheduled
// power cuts dropped and the phone powered on (what the files hold now is durable).
// Open compass descriptors stay open (the library under test may still hold one) and
// keep their slave address; open phone file descriptors stay tracked.
void reset();
// Compass descriptors currently open.
int open_compass_descriptors();

}  // namespace vphone

#endif  // KMXC_VPHONE_H
