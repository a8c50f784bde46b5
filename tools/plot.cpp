// The demo's plot: heading and offset error over time above the kit's accuracy, drawn
// by gnuplot (Report::write_plot, report.h).
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "service/kmxc_service.h"
#include "tools/report.h"
#include "vphone/scene/frames.h"

namespace compass {

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

namespace {

using vphone::scene::heading_difference;

// Dashed vertical lines where an offset was published, the kit's estimator changed, the
// rough offset changed or an anomaly began.
void put_marks(std::ostream &g, const std::vector<SampleOutput> &samples) {
    for (size_t i = 0; i < samples.size(); ++i) {
        const SampleOutput &s = samples[i];
        const double t = static_cast<double>(s.time_us) / 1e6;
        const char *colour = nullptr;
        if (i > 0 && s.estimator != samples[i - 1].estimator)
            colour = "#00a0a0";
        else if (is_new_offset(s.calib_rc))
            colour = is_three_d(s.calib_rc) ? "#c00000" : "#2060c0";
        else if (s.flags & KMXC_SERVICE_ROUGH_CHANGED)
            colour = "#8000a0";
        else if (s.anomaly && (i == 0 || !samples[i - 1].anomaly))
            colour = "#e0a000";
        if (colour)
            g << "set arrow from " << t << ", graph 0 to " << t << ", graph 1 nohead dt 2 lc rgb '" << colour << "'\n";
    }
}

// Phase names at the top of the upper panel, where each phase begins.
void put_phase_labels(std::ostream &g, const std::vector<SampleOutput> &samples) {
    std::string phase;
    for (const SampleOutput &s : samples)
        if (phase != s.phase) {
            phase = s.phase;
            g << "set label '" << phase << "' at " << static_cast<double>(s.time_us) / 1e6
              << ", graph 0.99 rotate by 90 right front offset 0.8,0 font 'sans,8' tc rgb '#606060'\n";
        }
}

// Per sample: time, integer heading (error), azimuth (error), offset error or field
// strength, accuracy.
void put_data(std::ostream &g, const std::vector<SampleOutput> &samples, bool truth, bool offset_known) {
    g << "$data << EOD\n";
    for (const SampleOutput &s : samples) {
        const double t = static_cast<double>(s.time_us) / 1e6;
        const std::string hi = (s.flags & KMXC_SERVICE_HEADING_VALID) ? std::string() : "NaN";
        if (truth)
            g << t << ' '
              << (hi.empty() ? fmt("%.2f", heading_difference(s.integer_heading, s.truth.integer_heading)) : hi) << ' '
              << heading_difference(s.euler[0], s.truth.double_azimuth);
        else
            g << t << ' ' << (hi.empty() ? std::to_string(s.integer_heading) : hi) << ' ' << s.euler[0];
        g << ' ' << (offset_known ? offset_error_uT(s) : s.strength_uT) << ' ' << s.accuracy << '\n';
    }
    g << "EOD\n";
}

// Two panels: errors (or headings, without a true attitude) above, the kit's accuracy
// below; the legend below the plots, off the data; heading errors autoscaled, never
// clipped. The right axis: the offset's error, or without its truth the field strength.
void put_panels(std::ostream &g, bool truth, bool offset_known) {
    const std::string marks =
        "NaN with lines dt 2 lc rgb '#c00000' title '3-D calibration', "
        "NaN with lines dt 2 lc rgb '#2060c0' title 'planar calibration', "
        "NaN with lines dt 2 lc rgb '#00a0a0' title 'estimator changed', "
        "NaN with lines dt 2 lc rgb '#8000a0' title 'rough offset changed', "
        "NaN with lines dt 2 lc rgb '#e0a000' title 'anomaly flagged'";
    g << "set size 1,0.68\nset origin 0,0.32\nset xlabel ''\nset ytics nomirror\nset y2tics\n";
    const std::string right = offset_known ? "offset error" : "field strength";
    g << "set y2label '" << right << " (uT)'\nset y2range [0:*]\n";
    if (truth)
        g << "set ylabel 'heading error (degrees)'\nset autoscale y\n"
             "plot $data using 1:2 with lines lc rgb '#e08000' title 'heading error, integer path', "
             "$data using 1:3 with lines lc rgb '#008060' title 'azimuth error, double path', ";
    else
        g << "set ylabel 'heading (degrees)'\nset yrange [0:360]\n"
             "plot $data using 1:2 with lines title 'heading, integer path', "
             "$data using 1:3 with lines title 'azimuth, double path', ";
    g << "$data using 1:4 axes x1y2 with lines lw " << (offset_known ? 2 : 1) << " lc rgb '#000000' title '" << right
      << " (right axis)'\n";
    g << "unset label\nset size 1,0.32\nset origin 0,0\nset bmargin 6\nset xlabel 'virtual time (s)' offset 0,0.4\n"
         "set ylabel 'accuracy'\nset key outside bottom center horizontal box\n"
         "set yrange [-0.3:3.3]\nset ytics ('unreliable' 0, 'low' 1, 'medium' 2, 'high' 3)\n"
         "unset y2tics\nunset y2label\n"
         "plot $data using 1:5 with steps lw 2 lc rgb '#2060c0' title 'accuracy', "
      << marks << "\nunset multiplot\n";
}

// Runs gnuplot on the script, which draws to drawn, and copies the picture to path.
bool draw(const std::string &script, const std::string &drawn, const std::string &path, std::string *error) {
    FILE *p = popen("gnuplot", "w");
    if (!p) {
        *error = "plot: cannot start gnuplot";
        return false;
    }
    const bool sent = std::fwrite(script.data(), 1, script.size(), p) == script.size();
    const int rc = pclose(p);
    if (!sent || rc != 0) {
        *error = "plot: gnuplot failed (is gnuplot-nox installed? scripts/ensure-deps.sh installs it)";
        return false;
    }
    std::ifstream in(drawn, std::ios::binary);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();
    if (in.good() && out.good()) return true;
    *error = "plot: cannot write '" + path + "'";
    return false;
}

}  // namespace

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
    const bool offset_known = !samples_.empty() && samples_.front().offset_known;
    std::ostringstream g;
    g << "set terminal pngcairo size 1100,760 font 'sans,10'\n"
      << "set output " << gnuplot_text(drawn) << "\n"
      << "set multiplot title " << gnuplot_text(title) << " noenhanced\n"  // a name's _ is no subscript
      << "set lmargin 10\nset rmargin 10\nset grid\n"
      << "set key outside bottom center horizontal box\n";
    const double end_s = samples_.empty() ? 0.0 : static_cast<double>(samples_.back().time_us) / 1e6;
    g << "set xrange [0:" << end_s << "]\n";
    put_marks(g, samples_);
    if (truth) put_phase_labels(g, samples_);
    put_data(g, samples_, truth, offset_known);
    put_panels(g, truth, offset_known);
    const bool ok = draw(g.str(), drawn, path, error);
    fs::remove_all(scratch, ec);  // only the directory made above
    return ok;
}

}  // namespace compass
