// What the compass service demo tells its user: a line per simulated second, a
// summary, every sample's outputs as CSV, and a plot of the errors over time.
#ifndef KMXC_TOOLS_REPORT_H
#define KMXC_TOOLS_REPORT_H

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "calibration/calibration.h"
#include "vphone/scene/frames.h"

namespace compass {

using vphone::scene::TrueAngles;

// One measurement cycle as the service saw it.
struct SampleOutput {
    int64_t time_us = 0;
    const char *phase = "";
    int ms_rc = 0, gs_rc = 0;        // measurement results
    int calib_rc = 0;                // KmxAxesMsCalibUpdate
    int calib_status = 0;            // KmxAxesMsCalibGetStatus after the update
    int integer_heading = 0;         // integer path, smoothed whole degrees
    bool heading_valid = false;      // the kit reported an integer heading
    bool orientation_valid = false;  // the kit reported azimuth, pitch and roll
    std::array<int, 3> euler{};      // double path: azimuth, pitch, roll (whole degrees)
    std::array<int, 3> offset{};     // the library's magnetic offset, counts
    bool has_truth = false;          // the true attitude: scenarios, field logs with a reference
    TrueAngles truth{};
    bool offset_known = false;   // true_offset holds the truth: scenarios only
    vphone::Vec3 true_offset{};  // counts
    double mounted_s = -1;       // car scenarios: when the phone went into the mount
    // The kit's judgement and the field diagnostics it works from (replays too).
    int accuracy = 0;                  // 0 unreliable .. 3 high
    int anomaly = 0;                   // KMXC_SERVICE_ANOMALY_* causes in this sample
    unsigned flags = 0;                // KMXC_SERVICE_* event flags
    double strength_uT = 0;            // |field - offset|
    double dip_cos = 0;                // cos of the angle between field and gravity
    int ratio_min = 0, ratio_mid = 0;  // the calibration's batch ratios (x1024)
    int residual = 2147483647;         // and fit residual; 2147483647 while a batch fills
    int estimator = 0;                 // KMXC_SERVICE_ESTIMATOR_* of the offset in use
    int coverage_cells = 0;            // cells of the kit's store, at its last fit
};

// The name of a KMXC_SERVICE_ESTIMATOR_* code: none, stored, library, store_sphere,
// ellipsoid, planar ("unknown" for any other).
const char *estimator_name(int estimator);

// A calibration return code that published a new offset: 63 or one with axis bits.
inline bool is_new_offset(int calib_rc) { return kmxc_calib_new_offset(calib_rc); }
inline bool is_three_d(int calib_rc) { return calib_rc == KMXC_CALIB_THREE_D; }

struct ErrorStats {
    int count = 0;
    double sum_sq = 0, max_abs = 0;
    void add(double e);
    double rms() const;
};

struct Summary {
    int samples = 0;
    double virtual_s = 0;
    bool started_calibrated = false;  // a valid stored offset was loaded
    int first_3d_sample = -1;         // 1-based sample number of the first 63, -1 none
    double first_3d_s = 0;
    int planar_events = 0, three_d_events = 0;
    std::vector<int> codes_seen;        // distinct calibration codes that published an offset
    double final_offset_error_uT = -1;  // -1 unknown (replay)
    ErrorStats integer_heading_error, double_azimuth_error;
    // The same, counting only samples of a phone held steady: the true attitude has
    // stayed within 8 degrees for the last 2 s (the heading smoother has settled).
    ErrorStats steady_integer_error, steady_double_error;
    // Virtual seconds spent at each accuracy (0 unreliable .. 3 high).
    std::array<double, 4> accuracy_s{};
    // Samples at medium or high accuracy with a valid azimuth, and those of them whose
    // azimuth (double path) is more than kWrongDeg off the truth.
    int trusted_samples = 0, trusted_wrong = 0;
    int anomalies = 0;        // anomaly episodes (a flagged sample after an unflagged one)
    int batches_refused = 0;  // full batches the calibration refused
    unsigned saves = 0, save_failures = 0;
    int rough_changes = 0;
    double first_trusted_s = -1;  // the first sample at medium or high accuracy; -1 none
    double mounted_s = -1;        // car scenarios: when the phone went into the mount; else -1
    // Car scenarios: the first offset published from the mount on by a 3-D fit or the
    // kit's planar estimator (a re-estimate of the offset the mount's field moved); -1 none.
    double first_reestimate_s = -1;
    // Heading errors over the whole run by the accuracy the kit reported with them
    // (0 unreliable .. 3 high), and at medium or high together: how far each level
    // can be trusted.
    std::array<ErrorStats, 4> integer_error_at, double_error_at;
    ErrorStats integer_error_trusted, double_error_trusted;
    int kit_estimates = 0;  // offsets the kit's own estimators published
};

// An azimuth this far off the truth at medium or high accuracy counts as wrong.
constexpr double kWrongDeg = 15.0;

class Report {
public:
    explicit Report(std::ostream &out, bool quiet) : out_(out), quiet_(quiet) {}

    void set_started_calibrated(bool yes) { summary_.started_calibrated = yes; }
    void add(const SampleOutput &s);  // prints the line of each new second
    const Summary &summary() const { return summary_; }

    void print_summary(const std::string &persisted) const;
    bool write_outputs(const std::string &path, std::string *error) const;
    bool write_plot(const std::string &path, const std::string &title, std::string *error) const;
    bool write_summary_json(const std::string &path, std::string *error) const;
    void set_saves(unsigned saves, unsigned failures, int rough_changes);

private:
    void tally_sample(const SampleOutput &s);
    void tally_offset(const SampleOutput &s);
    void tally_errors(const SampleOutput &s);
    void tally_errors_by_accuracy(const SampleOutput &s, double integer_error, double double_error);
    void print_accuracy_summary() const;
    std::string accuracy_json() const;

    std::ostream &out_;
    bool quiet_;
    Summary summary_;
    std::vector<SampleOutput> samples_;
    int64_t next_line_us_ = 0;
    int64_t steady_since_us_ = 0;  // start of the current stretch held steady
    TrueAngles steady_from_{};     // attitude at its start
    bool last_anomaly_ = false;
};

std::string format_second_line(const SampleOutput &s);
// One number through a printf format (e.g. "%.2f").
std::string fmt(const char *format, double v);
double offset_error_uT(const SampleOutput &s);  // -1 when unknown

}  // namespace compass

#endif
