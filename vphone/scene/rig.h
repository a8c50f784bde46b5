// The rig a scene plays on: a sandbox with the phone's configuration files, the two
// chip models on the simulated bus, and the feed of each instant's physics (scenario)
// or raw chip data (replay) into them.
#ifndef KMXC_VPHONE_SCENE_RIG_H
#define KMXC_VPHONE_SCENE_RIG_H

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "vphone/scene/record.h"
#include "vphone/scene/scenario.h"

namespace vphone::scene {

// The rig's magnetometer: calibration bytes of a plausible chip (sensitivities near
// 100, small cross terms, non-zero temperature coefficients).
constexpr std::array<int, 9> kRigCalibration{0x8A, 0x20, 0xFA, 0x08, 0x1E, 0x44, 0x8A, 0x76, 0x84};

// The phone's calibration file, where the library keeps its offsets.
constexpr const char *kCalibrationFile = "/misc/sensor/kmxc_orvane.cfg";

// The phone's transformation profile file and profile number, in the selected
// sandbox: a line for every mounting profile.
void write_profile_files(int profile);
// A record's files: the recorded profile line at the recorded number (identity lines
// before it) and, when the record names one, the calibration file it started from.
void write_replay_files(const RecordHeader &h);

// The distance between an offset (corrected counts) and the true one, in uT.
double offset_error_uT(std::span<const int32_t, 3> offset_counts, const Vec3 &true_offset_counts);

class Rig {
public:
    // Selects dir as the phone's file system (created if missing; emptied first when
    // fresh) and writes the transformation profile file with every mounting profile
    // and the profile number. Returns false with a one-line error.
    bool open_sandbox(const std::string &dir, bool fresh, int profile, std::string *error);
    // For replays: the record's files (write_replay_files); without a stored line the
    // calibration file holds the rough offset and no magnetic offset. The sandbox is
    // always emptied first.
    bool open_replay_sandbox(const std::string &dir, const RecordHeader &h, std::string *error);

    // Puts the chip models on the bus. Scenario runs: mounting of the profile and
    // the given calibration bytes. Replays: the recorded calibration bytes, and the
    // recorded rough-offset readings queued as the chip's answers (when none is
    // left: the header's rough offset).
    void attach_chips(int profile, const std::array<int, 9> &calib);
    void attach_replay_chips(const Record &record);

    // Scenario: what the chips sense from now on.
    void sense(const Truth &truth);
    // The offset the calibration should find, in corrected counts: the corrected
    // vector the magnetometer reads minus the ambient field.
    Vec3 true_offset_counts() const;

    // Replay: the raw values the next measurements deliver.
    void deliver(const RecordRow &row);

    // Readings of the rough-offset measurements since the last call (for the record).
    std::vector<std::array<int, 3>> take_rough_readings();

    Rig();
    ~Rig();
    Rig(const Rig &) = delete;
    Rig &operator=(const Rig &) = delete;

private:
    struct Chips;
    std::unique_ptr<Chips> chips_;
};

}  // namespace vphone::scene

#endif
