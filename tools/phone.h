// The virtual phone as the compass service demo sets it up: a sandbox with the
// phone's configuration files, the two chip models on the simulated bus, and the
// feed of each cycle's physics (scenario) or raw chip data (replay) into them.
#ifndef KMXC_TOOLS_PHONE_H
#define KMXC_TOOLS_PHONE_H

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tools/record.h"
#include "tools/scenario.h"

namespace compass {

// The demo's magnetometer: calibration bytes of a plausible chip (sensitivities near
// 100, small cross terms, non-zero temperature coefficients).
constexpr std::array<int, 9> kDemoCalib{0x8A, 0x20, 0xFA, 0x08, 0x1E, 0x44, 0x8A, 0x76, 0x84};

// The phone's transformation profile file and profile number, in the selected
// sandbox. Scenario runs: a line for every mounting profile. Replays: the recorded
// line at the recorded number, identity lines before it.
void write_profile_files(int profile);
void write_replay_profile_files(const RecordHeader &h);

class Phone {
public:
    // Selects dir as the phone's file system (created if missing; emptied first when
    // fresh) and writes the transformation profile file with every mounting profile
    // and the profile number. Returns false with a one-line error.
    bool open_sandbox(const std::string &dir, bool fresh, int profile, std::string *error);
    // For replays: the recorded profile line and number, and the calibration file the
    // record started from. The sandbox is always emptied first.
    bool open_replay_sandbox(const std::string &dir, const RecordHeader &h, std::string *error);

    // Puts the chip models on the bus. Scenario runs: mounting of the profile and
    // the demo's calibration bytes. Replays: the recorded calibration bytes.
    void attach_chips(int profile, const std::array<int, 9> &calib);
    void attach_replay_chips(const RecordHeader &h);

    // Scenario: what the chips sense from now on.
    void sense(const Truth &truth);
    // The offset the calibration should find, in corrected counts: the corrected
    // vector the magnetometer reads minus the ambient field.
    Vec3 true_offset_counts() const;

    // Replay: the raw values the next measurements deliver, and the answers of
    // later rough-offset measurements (in order; when none is left, the header's).
    void deliver(const RecordRow &row);
    void queue_rough(const std::array<int, 3> &rough);

    // Readings of the rough-offset measurements since the last call (for the record).
    std::vector<std::array<int, 3>> take_rough_readings();

    Phone();
    ~Phone();

private:
    struct Chips;
    std::unique_ptr<Chips> chips_;
};

}  // namespace compass

#endif
