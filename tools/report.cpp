// The demo's report: per-second lines, summary, per-sample CSV and summary JSON.
#include "tools/report.h"

#include "service/kmxc_service.h"
#include "vphone/scene/rig.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <ostream>
#include <sstream>

namespace compass {
namespace {

using vphone::scene::heading_difference;

// A phone held steady (walking included) stays within kSteadyDeg; after kSteadyForUs
// so held, the heading smoother has settled.
constexpr double kSteadyDeg = 8.0;
constexpr int64_t kSteadyForUs = 2000000;
// The heading a held attitude keeps: the y axis', or the z axis' once the y axis stands
// beyond 60 degrees (a fixed rule, whichever axis the kit's heading follows).
constexpr double kSteadySteepSine = 0.86602540378443865;  // sin 60 degrees

double held_heading(const TrueAngles &t) {
    return std::fabs(std::sin(t.pitch * M_PI / 180.0)) > kSteadySteepSine ? t.z_heading : t.y_heading;
}

}  // namespace

const char *estimator_name(int estimator) {
    switch (estimator) {
    case KMXC_SERVICE_ESTIMATOR_NONE: return "none";
    case KMXC_SERVICE_ESTIMATOR_STORED: return "stored";
    case KMXC_SERVICE_ESTIMATOR_LIBRARY: return "library";
    case KMXC_SERVICE_ESTIMATOR_STORE_SPHERE: return "store_sphere";
    case KMXC_SERVICE_ESTIMATOR_ELLIPSOID: return "ellipsoid";
    case KMXC_SERVICE_ESTIMATOR_PLANAR: return "planar";
    default: return "unknown";
    }
}

std::string fmt(const char *f, double v) {
    char b[64];
    std::snprintf(b, sizeof b, f, v);
    return b;
}

void ErrorStats::add(double e) {
    ++count;
    sum_sq += e * e;
    max_abs = std::max(max_abs, std::fabs(e));
}

double ErrorStats::rms() const { return count ? std::sqrt(sum_sq / count) : 0.0; }

double offset_error_uT(const SampleOutput &s) {
    return s.offset_known ? vphone::scene::offset_error_uT(s.offset, s.true_offset) : -1;
}

std::string format_second_line(const SampleOutput &s) {
    char b[256];
    const double t = static_cast<double>(s.time_us) / 1e6;
    if (s.has_truth) {
        std::snprintf(b, sizeof b,
                      "t %5.1f s  heading true %3.0f int %3d | azimuth true %3.0f dbl %3d | pitch %4ld/%4d"
                      " | roll %4ld/%4d | calib rc %2d status %d | %s | acc %d  %s",
                      t, s.truth.integer_heading, s.integer_heading, s.truth.double_azimuth, s.euler[0],
                      std::lround(s.truth.pitch), s.euler[1], std::lround(s.truth.roll), s.euler[2], s.calib_rc,
                      s.calib_status,
                      (s.offset_known ? "offset err " + fmt("%5.1f", offset_error_uT(s)) + " uT"
                                      : "offset " + std::to_string(s.offset[0]) + ',' + std::to_string(s.offset[1]) +
                                            ',' + std::to_string(s.offset[2]))
                          .c_str(),
                      s.accuracy, s.phase);
    } else {
        std::snprintf(b, sizeof b,
                      "t %5.1f s  heading int %3d | azimuth dbl %3d | pitch %4d | roll %4d | calib rc %2d status %d"
                      " | offset %d,%d,%d | field %5.1f uT dip cos %5.2f | acc %d%s",
                      t, s.integer_heading, s.euler[0], s.euler[1], s.euler[2], s.calib_rc, s.calib_status, s.offset[0],
                      s.offset[1], s.offset[2], s.strength_uT, s.dip_cos, s.accuracy, s.anomaly ? " anomaly" : "");
    }
    return b;
}

// Why the calibration refused the full batch this fed sample completed, or "" when
// it did not complete or refuse one. (A batch refused at the eigenvalue floor leaves
// no trace in the detail record and is not counted.)
std::string refusal(const SampleOutput &s) {
    if (!(s.flags & KMXC_SERVICE_FED) || s.calib_rc < 0 || is_new_offset(s.calib_rc)) return "";
    if (s.ratio_min == 0 && s.ratio_mid == 0 && s.residual == 2147483647) return "";
    char b[128];
    if (s.residual == 2147483647)
        std::snprintf(b, sizeof b, "spread along a line (ratios min %d mid %d /1024)", s.ratio_min, s.ratio_mid);
    else
        std::snprintf(b, sizeof b, "fit residual %d too large (ratios min %d mid %d /1024)", s.residual, s.ratio_min,
                      s.ratio_mid);
    return b;
}

void Report::set_saves(unsigned saves, unsigned failures, int rough_changes) {
    summary_.saves = saves;
    summary_.save_failures = failures;
    summary_.rough_changes = rough_changes;
}

void Report::add(const SampleOutput &s) {
    tally_sample(s);
    tally_offset(s);
    if (s.has_truth) tally_errors(s);
    if (!quiet_ && (s.flags & KMXC_SERVICE_KIT_ESTIMATE)) {
        char b[160];
        std::snprintf(b, sizeof b, "  t %5.1f s  kit estimate (%s, %d cells): offset %d,%d,%d", s.time_us / 1e6,
                      estimator_name(s.estimator), s.coverage_cells, s.offset[0], s.offset[1], s.offset[2]);
        out_ << b << '\n';
    }
    if (!quiet_ && is_new_offset(s.calib_rc)) {
        char b[160];
        std::snprintf(b, sizeof b, "  t %5.1f s  %s calibration (rc %d): offset %d,%d,%d", s.time_us / 1e6,
                      is_three_d(s.calib_rc) ? "3-D" : "planar", s.calib_rc, s.offset[0], s.offset[1], s.offset[2]);
        out_ << b << '\n';
    }
    if (!quiet_ && s.time_us >= next_line_us_) {
        out_ << format_second_line(s) << '\n';
        next_line_us_ = (s.time_us / 1000000 + 1) * 1000000;
    }
}

// The seconds at each accuracy, anomaly episodes and refused batches.
void Report::tally_sample(const SampleOutput &s) {
    Summary &m = summary_;
    if (!samples_.empty() && s.accuracy >= 0 && s.accuracy <= 3)
        m.accuracy_s[static_cast<size_t>(s.accuracy)] += static_cast<double>(s.time_us - samples_.back().time_us) / 1e6;
    samples_.push_back(s);
    m.samples = static_cast<int>(samples_.size());
    m.virtual_s = static_cast<double>(s.time_us) / 1e6;
    if (m.first_trusted_s < 0 && s.accuracy >= KMXC_SERVICE_MEDIUM) m.first_trusted_s = m.virtual_s;
    if (m.first_reestimate_s < 0 && s.mounted_s >= 0 && m.virtual_s >= s.mounted_s &&
        (s.flags & KMXC_SERVICE_NEW_OFFSET) && (s.flags & (KMXC_SERVICE_KIT_ESTIMATE | KMXC_SERVICE_FIT_3D)) &&
        (s.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR || (s.flags & KMXC_SERVICE_FIT_3D)))
        m.first_reestimate_s = m.virtual_s;
    if (s.anomaly && !last_anomaly_) ++m.anomalies;
    last_anomaly_ = s.anomaly != 0;
    const std::string refused = refusal(s);
    if (!refused.empty()) {
        ++m.batches_refused;
        if (!quiet_) out_ << "  t " << fmt("%5.1f", s.time_us / 1e6) << " s  batch refused: " << refused << '\n';
    }
}

// Published offsets: their codes, and the first three-dimensional one (the library's or
// the kit's own estimators').
void Report::tally_offset(const SampleOutput &s) {
    Summary &m = summary_;
    if (s.flags & KMXC_SERVICE_KIT_ESTIMATE) {
        ++m.kit_estimates;
        if (m.first_3d_sample < 0 && (s.flags & KMXC_SERVICE_FIT_3D)) {
            m.first_3d_sample = m.samples;
            m.first_3d_s = m.virtual_s;
        }
    }
    if (!is_new_offset(s.calib_rc)) return;
    if (std::find(m.codes_seen.begin(), m.codes_seen.end(), s.calib_rc) == m.codes_seen.end())
        m.codes_seen.push_back(s.calib_rc);
    if (!is_three_d(s.calib_rc)) {
        ++m.planar_events;
        return;
    }
    ++m.three_d_events;
    if (m.first_3d_sample < 0) {
        m.first_3d_sample = m.samples;
        m.first_3d_s = m.virtual_s;
    }
}

// Errors against the truth. Heading errors count once the offset is trustworthy: after
// the first 3-D calibration, or from the start when a stored offset was loaded.
void Report::tally_errors(const SampleOutput &s) {
    Summary &m = summary_;
    m.final_offset_error_uT = offset_error_uT(s);
    m.mounted_s = s.mounted_s;
    const TrueAngles &t = s.truth;
    if (samples_.size() == 1 ||
        std::fabs(heading_difference(held_heading(t), held_heading(steady_from_))) > kSteadyDeg ||
        std::fabs(t.pitch - steady_from_.pitch) > kSteadyDeg || std::fabs(t.roll - steady_from_.roll) > kSteadyDeg) {
        steady_since_us_ = s.time_us;
        steady_from_ = t;
    }
    const double ei = heading_difference(s.integer_heading, t.integer_heading);
    const double ed = heading_difference(s.euler[0], t.double_azimuth);
    if (m.started_calibrated || m.first_3d_sample >= 0) {
        if (s.heading_valid) m.integer_heading_error.add(ei);
        if (s.orientation_valid) m.double_azimuth_error.add(ed);
        if (s.time_us - steady_since_us_ >= kSteadyForUs) {
            if (s.heading_valid) m.steady_integer_error.add(ei);
            if (s.orientation_valid) m.steady_double_error.add(ed);
        }
    }
    if (s.orientation_valid && s.accuracy >= KMXC_SERVICE_MEDIUM) {
        ++m.trusted_samples;
        if (std::fabs(ed) > kWrongDeg) ++m.trusted_wrong;
    }
    tally_errors_by_accuracy(s, ei, ed);
}

void Report::tally_errors_by_accuracy(const SampleOutput &s, double ei, double ed) {
    if (s.accuracy < 0 || s.accuracy > 3) return;
    Summary &m = summary_;
    const auto level = static_cast<size_t>(s.accuracy);
    const bool trusted = s.accuracy >= KMXC_SERVICE_MEDIUM;
    if (s.heading_valid) {
        m.integer_error_at[level].add(ei);
        if (trusted) m.integer_error_trusted.add(ei);
    }
    if (s.orientation_valid) {
        m.double_error_at[level].add(ed);
        if (trusted) m.double_error_trusted.add(ed);
    }
}

void Report::print_summary(const std::string &persisted) const {
    const Summary &m = summary_;
    std::ostream &o = out_;
    o << "\nSummary\n";
    o << "  samples                   " << m.samples << " in " << fmt("%.1f", m.virtual_s) << " s of virtual time\n";
    o << "  start                     "
      << (m.started_calibrated ? "calibrated, from the stored offset" : "uncalibrated (no valid stored offset)")
      << '\n';
    o << "  first 3-D calibration     ";
    if (m.first_3d_sample > 0)
        o << "sample " << m.first_3d_sample << ", " << fmt("%.1f", m.first_3d_s) << " s\n";
    else
        o << "none\n";
    o << "  new offsets published     " << m.three_d_events << " three-dimensional, " << m.planar_events
      << " planar; codes";
    if (m.codes_seen.empty()) o << " none";
    for (int c : m.codes_seen) o << ' ' << c;
    o << '\n';
    if (m.final_offset_error_uT >= 0)
        o << "  final offset error        " << fmt("%.2f", m.final_offset_error_uT) << " uT\n";
    if (m.integer_heading_error.count > 0) {
        o << "  heading error (" << (m.started_calibrated ? "whole run" : "after the first 3-D calibration") << ", "
          << m.integer_heading_error.count << " samples)\n";
        o << "    integer path            RMS " << fmt("%.2f", m.integer_heading_error.rms()) << " deg, max "
          << fmt("%.0f", m.integer_heading_error.max_abs) << " deg\n";
        o << "    double path             RMS " << fmt("%.2f", m.double_azimuth_error.rms()) << " deg, max "
          << fmt("%.0f", m.double_azimuth_error.max_abs) << " deg\n";
        if (m.steady_integer_error.count > 0) {
            o << "  ... of these held steady (" << m.steady_integer_error.count << " samples)\n";
            o << "    integer path            RMS " << fmt("%.2f", m.steady_integer_error.rms()) << " deg, max "
              << fmt("%.0f", m.steady_integer_error.max_abs) << " deg\n";
            o << "    double path             RMS " << fmt("%.2f", m.steady_double_error.rms()) << " deg, max "
              << fmt("%.0f", m.steady_double_error.max_abs) << " deg\n";
        }
    }
    o << "  seconds at accuracy       unreliable " << fmt("%.1f", m.accuracy_s[0]) << ", low "
      << fmt("%.1f", m.accuracy_s[1]) << ", medium " << fmt("%.1f", m.accuracy_s[2]) << ", high "
      << fmt("%.1f", m.accuracy_s[3]) << '\n';
    if (m.trusted_samples > 0 && samples_.front().has_truth)
        o << "  medium/high azimuth wrong " << m.trusted_wrong << " of " << m.trusted_samples << " samples ("
          << fmt("%.1f", 100.0 * m.trusted_wrong / m.trusted_samples) << " %) more than " << fmt("%.0f", kWrongDeg)
          << " deg off\n";
    o << "  anomalies flagged         " << m.anomalies << "; batches refused " << m.batches_refused << '\n';
    o << "  saves                     " << m.saves << " done, " << m.save_failures << " failed; "
      << fmt("%.0f", m.virtual_s > 0 ? m.saves * 3600.0 / m.virtual_s : 0.0) << " per hour\n";
    o << "  final accuracy            " << (samples_.empty() ? 0 : samples_.back().accuracy) << '\n';
    o << "  persisted                 " << persisted << '\n';
    print_accuracy_summary();
}

namespace {

const char *const kAccuracyNames[4] = {"unreliable", "low", "medium", "high"};

// RMS of e with three decimals, or null when it counted nothing.
std::string rms_json(const ErrorStats &e) { return e.count > 0 ? fmt("%.3f", e.rms()) : "null"; }

}  // namespace

// Lines the summary gained after its first form, at its end: when the accuracy was
// first trustworthy, when the phone was mounted, the heading errors at each accuracy,
// and what the kit does not report yet.
void Report::print_accuracy_summary() const {
    const Summary &m = summary_;
    std::ostream &o = out_;
    o << "  first medium/high         "
      << (m.first_trusted_s >= 0 ? fmt("%.1f", m.first_trusted_s) + " s" : std::string("never")) << '\n';
    if (m.mounted_s >= 0) {
        o << "  mounted                   " << fmt("%.1f", m.mounted_s) << " s\n";
        o << "  first re-estimate         "
          << (m.first_reestimate_s >= 0 ? fmt("%.1f", m.first_reestimate_s) + " s, " +
                                              fmt("%.1f", m.first_reestimate_s - m.mounted_s) + " s after mounting"
                                        : std::string("never"))
          << '\n';
    }
    if (!samples_.empty() && samples_.front().has_truth) {
        o << "  heading error by the accuracy reported with it (whole run; integer / double path)\n";
        auto line = [&o](const std::string &name, const ErrorStats &i, const ErrorStats &d) {
            if (i.count == 0 && d.count == 0) return;
            o << "    " << name << std::string(24 - name.size(), ' ') << "RMS " << fmt("%.2f", i.rms()) << " / "
              << fmt("%.2f", d.rms()) << " deg, " << i.count << " samples\n";
        };
        for (size_t a = 0; a < 4; ++a) line(kAccuracyNames[a], m.integer_error_at[a], m.double_error_at[a]);
        line("medium/high", m.integer_error_trusted, m.double_error_trusted);
    }
    const SampleOutput *last = samples_.empty() ? nullptr : &samples_.back();
    o << "  kit estimator             " << estimator_name(last ? last->estimator : 0) << " at the end; "
      << m.kit_estimates << " offset(s) from the kit's own estimators\n";
    o << "  sample store coverage     " << (last ? last->coverage_cells : 0) << " of 24 cells at the last fit\n";
}

// The JSON keys the summary gained after its first form (see print_accuracy_summary).
std::string Report::accuracy_json() const {
    const Summary &m = summary_;
    std::ostringstream j;
    auto level = [&j](const char *name, const ErrorStats &i, const ErrorStats &d) {
        j << '"' << name << "\": {\"integer\": " << rms_json(i) << ", \"double\": " << rms_json(d)
          << ", \"samples\": " << i.count << "}";
    };
    j << ",\n  \"first_trusted_s\": " << (m.first_trusted_s >= 0 ? fmt("%.3f", m.first_trusted_s) : "null")
      << ",\n  \"mounted_s\": " << (m.mounted_s >= 0 ? fmt("%.3f", m.mounted_s) : "null")
      << ",\n  \"first_reestimate_s\": " << (m.first_reestimate_s >= 0 ? fmt("%.3f", m.first_reestimate_s) : "null")
      << ",\n  \"heading_rms_by_accuracy_deg\": {";
    for (size_t a = 0; a < 4; ++a) {
        level(kAccuracyNames[a], m.integer_error_at[a], m.double_error_at[a]);
        j << ", ";
    }
    level("medium_high", m.integer_error_trusted, m.double_error_trusted);
    // The estimator in use at the end and its store's coverage (cells of 24).
    const SampleOutput *last = samples_.empty() ? nullptr : &samples_.back();
    j << "},\n  \"estimator\": \"" << estimator_name(last ? last->estimator : 0)
      << "\",\n  \"coverage_cells\": " << (last ? last->coverage_cells : 0);
    return j.str();
}

bool Report::write_outputs(const std::string &path, std::string *error) const {
    std::ofstream f(path);
    if (!f) {
        *error = "cannot write outputs file '" + path + "'";
        return false;
    }
    // The library's outputs first; the truth after them (empty on replays, and the
    // offset's error on field logs, whose offset is not known). The
    // columns attitude_rc and rotation_rc keep their names: 0 when the kit reported an
    // integer heading (azimuth, pitch and roll), else -1. heading_axis: the axis (y, z) of heading_int and its truth.
    f << "time_us,ms_rc,gs_rc,calib_rc,calib_status,attitude_rc,heading_int,heading_axis,rotation_rc,"
         "azimuth,pitch,roll,offset_x,offset_y,offset_z,accuracy,anomaly,field_uT,dip_cos,fed,"
         "ratio_min,ratio_mid,residual,true_heading_int,true_azimuth,true_pitch,true_roll,offset_error_uT,phase,"
         "estimator\n";
    for (const SampleOutput &s : samples_)
        f << s.time_us << ',' << s.ms_rc << ',' << s.gs_rc << ',' << s.calib_rc << ',' << s.calib_status << ','
          << (s.heading_valid ? 0 : -1) << ',' << s.integer_heading << ','
          << ((s.flags & KMXC_SERVICE_HEADING_Z_AXIS) ? 'z' : 'y') << ',' << (s.orientation_valid ? 0 : -1) << ','
          << s.euler[0] << ',' << s.euler[1] << ',' << s.euler[2] << ',' << s.offset[0] << ',' << s.offset[1] << ','
          << s.offset[2] << ',' << s.accuracy << ',' << s.anomaly << ',' << fmt("%.2f", s.strength_uT) << ','
          << fmt("%.3f", s.dip_cos) << ',' << ((s.flags & KMXC_SERVICE_FED) ? 1 : 0) << ',' << s.ratio_min << ','
          << s.ratio_mid << ',' << s.residual << ','
          << (s.has_truth ? fmt("%.3f", s.truth.integer_heading) + ',' + fmt("%.3f", s.truth.double_azimuth) + ',' +
                                fmt("%.3f", s.truth.pitch) + ',' + fmt("%.3f", s.truth.roll) + ',' +
                                (s.offset_known ? fmt("%.3f", offset_error_uT(s)) : "") + ',' + s.phase
                          : std::string(",,,,,"))
          << ',' << estimator_name(s.estimator) << '\n';
    f.flush();
    if (!f) {
        *error = "writing outputs file '" + path + "' failed";
        return false;
    }
    return true;
}

bool Report::write_summary_json(const std::string &path, std::string *error) const {
    const Summary &m = summary_;
    auto num = [](double v, const char *f) { return std::isfinite(v) ? fmt(f, v) : std::string("null"); };
    std::ostringstream j;
    j << "{\n  \"samples\": " << m.samples << ",\n  \"virtual_s\": " << num(m.virtual_s, "%.3f")
      << ",\n  \"started_calibrated\": " << (m.started_calibrated ? "true" : "false")
      << ",\n  \"first_3d_s\": " << (m.first_3d_sample > 0 ? num(m.first_3d_s, "%.3f") : "null")
      << ",\n  \"final_offset_error_uT\": "
      << (m.final_offset_error_uT >= 0 ? num(m.final_offset_error_uT, "%.3f") : "null")
      << ",\n  \"heading_rms_deg\": {\"integer\": " << num(m.integer_heading_error.rms(), "%.3f")
      << ", \"double\": " << num(m.double_azimuth_error.rms(), "%.3f")
      << ", \"samples\": " << m.integer_heading_error.count << "}"
      << ",\n  \"heading_rms_held_steady_deg\": {\"integer\": " << num(m.steady_integer_error.rms(), "%.3f")
      << ", \"double\": " << num(m.steady_double_error.rms(), "%.3f")
      << ", \"samples\": " << m.steady_integer_error.count << "}"
      << ",\n  \"seconds_at_accuracy\": {\"unreliable\": " << num(m.accuracy_s[0], "%.3f")
      << ", \"low\": " << num(m.accuracy_s[1], "%.3f") << ", \"medium\": " << num(m.accuracy_s[2], "%.3f")
      << ", \"high\": " << num(m.accuracy_s[3], "%.3f") << "}"
      << ",\n  \"medium_high_samples\": " << m.trusted_samples << ",\n  \"medium_high_wrong\": " << m.trusted_wrong
      << ",\n  \"anomalies_flagged\": " << m.anomalies << ",\n  \"batches_refused\": " << m.batches_refused
      << ",\n  \"offsets_saved\": " << m.saves << ",\n  \"save_failures\": " << m.save_failures
      << ",\n  \"rough_offset_changes\": " << m.rough_changes
      << ",\n  \"final_accuracy\": " << (samples_.empty() ? 0 : samples_.back().accuracy) << accuracy_json() << "\n}\n";
    std::ofstream f(path);
    f << j.str();
    f.flush();
    if (!f) {
        *error = "writing summary file '" + path + "' failed";
        return false;
    }
    return true;
}

}  // namespace compass
