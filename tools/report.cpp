#include "tools/report.h"

#include "drivers/kmxc_protocol.h"
#include "service/kmxc_service.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>

namespace compass {
namespace {

constexpr double kUtPerCount = kmxc::kMicroteslaPerCount;
constexpr double kSteadyDeg = 8.0;  // a phone held steady (walking included) stays within this

std::string fmt(const char *f, double v) {
    char b[64];
    std::snprintf(b, sizeof b, f, v);
    return b;
}

}  // namespace

void ErrorStats::add(double e) {
    ++count;
    sum_sq += e * e;
    max_abs = std::max(max_abs, std::fabs(e));
}

double ErrorStats::rms() const { return count ? std::sqrt(sum_sq / count) : 0.0; }

double offset_error_uT(const SampleOutput &s) {
    if (!s.has_truth) return -1;
    double sq = 0;
    for (int k = 0; k < 3; ++k) sq += (s.offset[k] - s.true_offset[k]) * (s.offset[k] - s.true_offset[k]);
    return std::sqrt(sq) * kUtPerCount;
}

std::string format_second_line(const SampleOutput &s) {
    char b[256];
    const double t = static_cast<double>(s.time_us) / 1e6;
    if (s.has_truth) {
        std::snprintf(b, sizeof b,
                      "t %5.1f s  heading true %3.0f int %3d | azimuth true %3.0f dbl %3d | pitch %4ld/%4d"
                      " | roll %4ld/%4d | calib rc %2d status %d | offset err %5.1f uT | acc %d  %s",
                      t, s.truth.heading_int, s.heading_int, s.truth.azimuth_double, s.euler[0],
                      std::lround(s.truth.pitch), s.euler[1], std::lround(s.truth.roll), s.euler[2], s.calib_rc,
                      s.calib_status, offset_error_uT(s), s.accuracy, s.phase);
    } else {
        std::snprintf(b, sizeof b,
                      "t %5.1f s  heading int %3d | azimuth dbl %3d | pitch %4d | roll %4d | calib rc %2d status %d"
                      " | offset %d,%d,%d | field %5.1f uT dip cos %5.2f | acc %d%s",
                      t, s.heading_int, s.euler[0], s.euler[1], s.euler[2], s.calib_rc, s.calib_status, s.offset[0],
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
    if (!samples_.empty() && s.accuracy >= 0 && s.accuracy <= 3)
        summary_.accuracy_s[static_cast<size_t>(s.accuracy)] +=
            static_cast<double>(s.time_us - samples_.back().time_us) / 1e6;
    samples_.push_back(s);
    if (s.anomaly && !last_anomaly_) ++summary_.anomalies;
    last_anomaly_ = s.anomaly != 0;
    const std::string refused = refusal(s);
    if (!refused.empty()) {
        ++summary_.batches_refused;
        if (!quiet_) out_ << "  t " << fmt("%5.1f", s.time_us / 1e6) << " s  batch refused: " << refused << '\n';
    }
    Summary &m = summary_;
    m.samples = static_cast<int>(samples_.size());
    m.virtual_s = static_cast<double>(s.time_us) / 1e6;
    if (is_new_offset(s.calib_rc)) {
        if (std::find(m.codes_seen.begin(), m.codes_seen.end(), s.calib_rc) == m.codes_seen.end())
            m.codes_seen.push_back(s.calib_rc);
        if (is_three_d(s.calib_rc)) {
            ++m.three_d_events;
            if (m.first_3d_sample < 0) {
                m.first_3d_sample = m.samples;
                m.first_3d_s = m.virtual_s;
            }
        } else {
            ++m.planar_events;
        }
    }
    if (s.has_truth) {
        m.final_offset_error_uT = offset_error_uT(s);
        // Heading errors count once the offset is trustworthy: after the first 3-D
        // calibration, or from the start when a stored offset was loaded.
        const TrueAngles &t = s.truth;
        if (samples_.size() == 1 || std::fabs(heading_difference(t.heading_int, still_ref_.heading_int)) > kSteadyDeg ||
            std::fabs(t.pitch - still_ref_.pitch) > kSteadyDeg || std::fabs(t.roll - still_ref_.roll) > kSteadyDeg) {
            still_since_us_ = s.time_us;
            still_ref_ = t;
        }
        const bool heading_ok = (s.flags & KMXC_SERVICE_HEADING_VALID) != 0;
        const bool azimuth_ok = (s.flags & KMXC_SERVICE_ORIENTATION_VALID) != 0;
        const double ei = heading_difference(s.heading_int, t.heading_int);
        const double ed = heading_difference(s.euler[0], t.azimuth_double);
        if (m.started_calibrated || m.first_3d_sample >= 0) {
            if (heading_ok) m.heading_int.add(ei);
            if (azimuth_ok) m.heading_double.add(ed);
            if (s.time_us - still_since_us_ >= 2000000) {
                if (heading_ok) m.rest_int.add(ei);
                if (azimuth_ok) m.rest_double.add(ed);
            }
        }
        if (azimuth_ok && s.accuracy >= KMXC_SERVICE_MEDIUM) {
            ++m.trusted_samples;
            if (std::fabs(ed) > kWrongDeg) ++m.trusted_wrong;
        }
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
    if (m.heading_int.count > 0) {
        o << "  heading error (" << (m.started_calibrated ? "whole run" : "after the first 3-D calibration") << ", "
          << m.heading_int.count << " samples)\n";
        o << "    integer path            RMS " << fmt("%.2f", m.heading_int.rms()) << " deg, max "
          << fmt("%.0f", m.heading_int.max_abs) << " deg\n";
        o << "    double path             RMS " << fmt("%.2f", m.heading_double.rms()) << " deg, max "
          << fmt("%.0f", m.heading_double.max_abs) << " deg\n";
        if (m.rest_int.count > 0) {
            o << "  ... of these held steady (" << m.rest_int.count << " samples)\n";
            o << "    integer path            RMS " << fmt("%.2f", m.rest_int.rms()) << " deg, max "
              << fmt("%.0f", m.rest_int.max_abs) << " deg\n";
            o << "    double path             RMS " << fmt("%.2f", m.rest_double.rms()) << " deg, max "
              << fmt("%.0f", m.rest_double.max_abs) << " deg\n";
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
}

bool Report::write_outputs(const std::string &path, std::string *error) const {
    std::ofstream f(path);
    if (!f) {
        *error = "cannot write outputs file '" + path + "'";
        return false;
    }
    // The library's outputs first; the truth after them (empty on replays).
    f << "time_us,ms_rc,gs_rc,calib_rc,calib_status,attitude_rc,heading_int,rotation_rc,azimuth,pitch,roll,"
         "offset_x,offset_y,offset_z,accuracy,anomaly,field_uT,dip_cos,fed,ratio_min,ratio_mid,residual,"
         "true_heading_int,true_azimuth,true_pitch,true_roll,offset_error_uT,phase\n";
    for (const SampleOutput &s : samples_)
        f << s.time_us << ',' << s.ms_rc << ',' << s.gs_rc << ',' << s.calib_rc << ',' << s.calib_status << ','
          << s.attitude_rc << ',' << s.heading_int << ',' << s.rotation_rc << ',' << s.euler[0] << ',' << s.euler[1]
          << ',' << s.euler[2] << ',' << s.offset[0] << ',' << s.offset[1] << ',' << s.offset[2] << ',' << s.accuracy
          << ',' << s.anomaly << ',' << fmt("%.2f", s.strength_uT) << ',' << fmt("%.3f", s.dip_cos) << ','
          << ((s.flags & KMXC_SERVICE_FED) ? 1 : 0) << ',' << s.ratio_min << ',' << s.ratio_mid << ',' << s.residual
          << ','
          << (s.has_truth ? fmt("%.3f", s.truth.heading_int) + ',' + fmt("%.3f", s.truth.azimuth_double) + ',' +
                                fmt("%.3f", s.truth.pitch) + ',' + fmt("%.3f", s.truth.roll) + ',' +
                                fmt("%.3f", offset_error_uT(s)) + ',' + s.phase
                          : std::string(",,,,,"))
          << '\n';
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
      << ",\n  \"heading_rms_deg\": {\"integer\": " << num(m.heading_int.rms(), "%.3f")
      << ", \"double\": " << num(m.heading_double.rms(), "%.3f") << ", \"samples\": " << m.heading_int.count << "}"
      << ",\n  \"heading_rms_held_steady_deg\": {\"integer\": " << num(m.rest_int.rms(), "%.3f")
      << ", \"double\": " << num(m.rest_double.rms(), "%.3f") << ", \"samples\": " << m.rest_int.count << "}"
      << ",\n  \"seconds_at_accuracy\": {\"unreliable\": " << num(m.accuracy_s[0], "%.3f")
      << ", \"low\": " << num(m.accuracy_s[1], "%.3f") << ", \"medium\": " << num(m.accuracy_s[2], "%.3f")
      << ", \"high\": " << num(m.accuracy_s[3], "%.3f") << "}"
      << ",\n  \"medium_high_samples\": " << m.trusted_samples << ",\n  \"medium_high_wrong\": " << m.trusted_wrong
      << ",\n  \"anomalies_flagged\": " << m.anomalies << ",\n  \"batches_refused\": " << m.batches_refused
      << ",\n  \"offsets_saved\": " << m.saves << ",\n  \"save_failures\": " << m.save_failures
      << ",\n  \"rough_offset_changes\": " << m.rough_changes
      << ",\n  \"final_accuracy\": " << (samples_.empty() ? 0 : samples_.back().accuracy) << "\n}\n";
    std::ofstream f(path);
    f << j.str();
    f.flush();
    if (!f) {
        *error = "writing summary file '" + path + "' failed";
        return false;
    }
    return true;
}

// Text that reaches gnuplot's script as a string: letters, digits and a few marks
// only, in single quotes, so no name (a replay file's, say) can end the string or
// reach gnuplot's command substitution.
static std::string gnuplot_text(const std::string &text) {
    std::string out;
    for (unsigned char c : text)
        out += (std::isalnum(c) || std::strchr(" -_.,:/()+=#", c) != nullptr) && c != 0 ? static_cast<char>(c) : '?';
    return "'" + out + "'";
}

namespace fs = std::filesystem;

bool Report::write_plot(const std::string &path, const std::string &title, std::string *error) const {
    // gnuplot draws into a fresh directory of our own under a fixed name; the picture
    // is then copied to `path`, which never appears in the script.
    std::error_code ec;
    std::string scratch = (fs::temp_directory_path(ec) / "kmxc-plot-XXXXXX").string();
    if (ec || mkdtemp(scratch.data()) == nullptr) {
        *error = "plot: cannot make a scratch directory";
        return false;
    }
    const std::string drawn = scratch + "/plot.png";
    const bool truth = !samples_.empty() && samples_.front().has_truth;
    std::ostringstream g;
    // Two panels: errors (or headings, on replays) above, the kit's accuracy below;
    // calibrations, rough-offset changes and anomalies marked in both; the legend
    // below the plots, off the data; heading errors autoscaled, never clipped.
    g << "set terminal pngcairo size 1100,760 font 'sans,10'\n"
      << "set output " << gnuplot_text(drawn) << "\n"
      << "set multiplot title " << gnuplot_text(title) << " noenhanced\n"  // a name's _ is no subscript
      << "set lmargin 10\nset rmargin 10\nset grid\n"
      << "set key outside bottom center horizontal box\n";
    const double end_s = samples_.empty() ? 0.0 : static_cast<double>(samples_.back().time_us) / 1e6;
    g << "set xrange [0:" << end_s << "]\n";
    for (size_t i = 0; i < samples_.size(); ++i) {
        const SampleOutput &s = samples_[i];
        const double t = static_cast<double>(s.time_us) / 1e6;
        const char *colour = nullptr;
        if (is_new_offset(s.calib_rc))
            colour = is_three_d(s.calib_rc) ? "#c00000" : "#2060c0";
        else if (s.flags & KMXC_SERVICE_ROUGH_CHANGED)
            colour = "#8000a0";
        else if (s.anomaly && (i == 0 || !samples_[i - 1].anomaly))
            colour = "#e0a000";
        if (colour)
            g << "set arrow from " << t << ", graph 0 to " << t << ", graph 1 nohead dt 2 lc rgb '" << colour << "'\n";
    }
    // Phase names at the top of the upper panel, where each phase begins.
    if (truth) {
        std::string phase;
        for (const SampleOutput &s : samples_)
            if (phase != s.phase) {
                phase = s.phase;
                g << "set label '" << phase << "' at " << static_cast<double>(s.time_us) / 1e6
                  << ", graph 0.99 rotate by 90 right front offset 0.8,0 font 'sans,8' tc rgb '#606060'\n";
            }
    }
    g << "$data << EOD\n";
    for (const SampleOutput &s : samples_) {
        const double t = static_cast<double>(s.time_us) / 1e6;
        const std::string hi = (s.flags & KMXC_SERVICE_HEADING_VALID) ? std::string() : "NaN";
        if (truth)
            g << t << ' ' << (hi.empty() ? fmt("%.2f", heading_difference(s.heading_int, s.truth.heading_int)) : hi)
              << ' ' << heading_difference(s.euler[0], s.truth.azimuth_double) << ' ' << offset_error_uT(s) << ' '
              << s.accuracy << '\n';
        else
            g << t << ' ' << (hi.empty() ? std::to_string(s.heading_int) : hi) << ' ' << s.euler[0] << ' '
              << s.strength_uT << ' ' << s.accuracy << '\n';
    }
    g << "EOD\n";
    const std::string marks =
        "NaN with lines dt 2 lc rgb '#c00000' title '3-D calibration', "
        "NaN with lines dt 2 lc rgb '#2060c0' title 'planar calibration', "
        "NaN with lines dt 2 lc rgb '#8000a0' title 'rough offset changed', "
        "NaN with lines dt 2 lc rgb '#e0a000' title 'anomaly flagged'";
    g << "set size 1,0.68\nset origin 0,0.32\nset xlabel ''\nset ytics nomirror\nset y2tics\n";
    if (truth) {
        g << "set ylabel 'heading error (degrees)'\nset y2label 'offset error (uT)'\nset autoscale y\n"
             "set y2range [0:*]\n"
             "plot $data using 1:2 with lines lc rgb '#e08000' title 'heading error, integer path', "
             "$data using 1:3 with lines lc rgb '#008060' title 'azimuth error, double path', "
             "$data using 1:4 axes x1y2 with lines lw 2 lc rgb '#000000' title 'offset error (right axis)'\n";
    } else {
        g << "set ylabel 'heading (degrees)'\nset yrange [0:360]\nset y2label 'field strength (uT)'\n"
             "set y2range [0:*]\n"
             "plot $data using 1:2 with lines title 'heading, integer path', "
             "$data using 1:3 with lines title 'azimuth, double path', "
             "$data using 1:4 axes x1y2 with lines lc rgb '#000000' title 'field strength (right axis)'\n";
    }
    g << "unset label\nset size 1,0.32\nset origin 0,0\nset bmargin 6\nset xlabel 'virtual time (s)' offset 0,0.4\n"
         "set ylabel 'accuracy'\nset key outside bottom center horizontal box\n"
         "set yrange [-0.3:3.3]\nset ytics ('unreliable' 0, 'low' 1, 'medium' 2, 'high' 3)\n"
         "unset y2tics\nunset y2label\n"
         "plot $data using 1:5 with steps lw 2 lc rgb '#2060c0' title 'accuracy', "
      << marks << "\nunset multiplot\n";
    FILE *p = popen("gnuplot", "w");
    if (!p) {
        *error = "plot: cannot start gnuplot";
        fs::remove_all(scratch, ec);
        return false;
    }
    const std::string script = g.str();
    const bool sent = std::fwrite(script.data(), 1, script.size(), p) == script.size();
    const int rc = pclose(p);
    bool ok = sent && rc == 0;
    if (!ok) {
        *error = "plot: gnuplot failed (is gnuplot-nox installed? scripts/ensure-deps.sh installs it)";
    } else {
        std::ifstream in(drawn, std::ios::binary);
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << in.rdbuf();
        out.close();
        ok = in.good() && out.good();
        if (!ok) *error = "plot: cannot write '" + path + "'";
    }
    fs::remove_all(scratch, ec);  // only the directory made above
    return ok;
}

}  // namespace compass
