// Double-precision analyses of the kit's estimators on the virtual phone (Eigen): the
// figures the kit's header, README and tools/README quote come from here. Not a test.
//
//   kit_analysis determinacy SCENARIO RATE SEED
//       The algebraic sphere fit of every sample so far (the script's field with noise
//       and the magnetometer's 0.4 uT steps, no offset needed), each second: its
//       offset's predicted 1-sigma uncertainty P = R^2 sigma^2 (sum u u^T)^-1 along the
//       phone's axes and its worst direction, the heading uncertainty it predicts at
//       that instant's attitude, and the fit's actual error.
//   kit_analysis soft-iron SCENARIO RATE SEED XX,YY,ZZ,XY,XZ,YZ
//       Runs the kit (its sources compiled in) on the scenario with soft iron. At each
//       ellipsoid fit of the kit's store: the store refitted in double with and without
//       the kit's ridge, each W against the true S^-1 (det 1), each centre against the
//       true offset, and the held-steady heading RMS each calibration leaves over the
//       whole run beside the offset alone's and the events' own.
//   kit_analysis trace SCENARIO RATE SEED XX,YY,ZZ,XY,XZ,YZ
//       The same run, one line per cycle: accuracy, estimator, flags, the heading error
//       and the one the kit's covariance predicts (in brackets without its soft-iron
//       share), the offset error, the store, the soft iron the store shows.
//   kit_analysis floor SCENARIO RATE SEED [WORLD...]
//       The library's double path fed the true gravity (no acceleration) and the field
//       the magnetometer reads with the true offset taken off (its noise and steps):
//       the azimuth its Euler angles give against the true one, with the library's
//       azimuth hold, and as the yaw alone (truncated); then the hold again on what the
//       accelerometer reads (a vehicle's accelerations in it). Over all samples, those
//       held steady and a car's drive: what the double path's heading error cannot go
//       below, whatever the estimators do.
//   The last three take the world after the soft iron (floor: after the seed):
//   field=UT, noise=UT, inclination=DEG (or the inclination alone), hard=X,Y,Z (the
//   phone's own field, uT), car=X,Y,Z (a car mount's field, uT, phone axes).
#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "orientation/orientation.h"
#include "service/kit_internal.h"
#include "service/kmxc_service.h"
#include "vphone/scene/rig.h"
#include "vphone/scene/scenario.h"
#include "vphone/scene/scripted_run.h"
#include "vphone/vphone.h"

#include <unistd.h>

using Eigen::Matrix3d;
using Eigen::Vector3d;
namespace sc = vphone::scene;

namespace {

constexpr double kUtPerCount = 0.4;

Vector3d v3(const vphone::Vec3 &v) { return Vector3d(v[0], v[1], v[2]); }

// The up row of the attitude (phone axes).
Vector3d up_of(const sc::Truth &t) { return v3(t.attitude[2]); }

// Signed angle (degrees) about `up` from the horizontal part of a to that of b.
double heading_error_deg(const Vector3d &a, const Vector3d &b, const Vector3d &up) {
    const Vector3d u = up.normalized();
    const Vector3d ha = a - a.dot(u) * u, hb = b - b.dot(u) * u;
    return std::atan2(u.dot(ha.cross(hb)), ha.dot(hb)) * 180 / M_PI;
}

// The rotation angle between two attitudes (degrees).
double attitude_change_deg(const sc::Mat3 &a, const sc::Mat3 &b) {
    double tr = 0;
    for (int r = 0; r < 3; ++r) tr += a[r][0] * b[r][0] + a[r][1] * b[r][1] + a[r][2] * b[r][2];
    const double c = std::clamp((tr - 1) / 2, -1.0, 1.0);
    return std::acos(c) * 180 / M_PI;
}

// Samples held steady: the attitude within 8 degrees of this one over the last 2 s (the
// demo's report uses the same rule).
std::vector<bool> held_steady(const std::vector<sc::Truth> &t, int rate) {
    std::vector<bool> steady(t.size(), false);
    const size_t window = static_cast<size_t>(2 * rate);
    for (size_t i = window; i < t.size(); ++i) {
        bool ok = true;
        for (size_t j = i - window; j < i && ok; ++j) ok = attitude_change_deg(t[i].attitude, t[j].attitude) <= 8;
        steady[i] = ok;
    }
    return steady;
}

// Algebraic sphere fit |u - c|^2 = R^2 (double): centre, radius, the strengths' RMS
// residual and the predicted covariance of the centre.
struct Sphere {
    Vector3d c;
    double r = 0, rms = 0;
    Matrix3d p;
    bool ok = false;
};
Sphere sphere_fit_d(const std::vector<Vector3d> &m) {
    Sphere s;
    const int n = static_cast<int>(m.size());
    if (n < 8) return s;
    Vector3d mean = Vector3d::Zero();
    for (const auto &v : m) mean += v;
    mean /= n;
    Eigen::MatrixXd a(n, 4);
    Eigen::VectorXd b(n);
    for (int i = 0; i < n; ++i) {
        const Vector3d u = m[i] - mean;
        a.row(i) << 2 * u.x(), 2 * u.y(), 2 * u.z(), 1;
        b(i) = u.squaredNorm();
    }
    const Eigen::Vector4d x = (a.transpose() * a).ldlt().solve(a.transpose() * b);
    s.c = mean + x.head<3>();
    s.r = std::sqrt(x(3) + x.head<3>().squaredNorm());
    Matrix3d cov = Matrix3d::Zero();
    double ss = 0;
    for (const auto &v : m) {
        const Vector3d u = v - mean;
        cov += u * u.transpose();
        const double d = (v - s.c).norm() - s.r;
        ss += d * d;
    }
    s.rms = std::sqrt(ss / n);
    s.p = s.r * s.r * s.rms * s.rms * cov.inverse();
    s.ok = true;
    return s;
}

// sigma_psi (degrees) of an offset covariance P at a field v and gravity g (any units of
// g): e^T P e |g|^2 / |e|^4, e = v x g.
double heading_sigma_deg(const Matrix3d &p, const Vector3d &v, const Vector3d &g) {
    const Vector3d e = v.cross(g);
    return std::sqrt(e.dot(p * e) * g.squaredNorm()) / e.squaredNorm() * 180 / M_PI;
}

int determinacy(const char *scenario, int rate, int seed) {
    sc::ScenarioSettings settings{.name = scenario};
    settings.seed = static_cast<uint32_t>(seed);
    sc::Scenario s(settings);
    std::vector<Vector3d> m;
    std::printf("t s | samples | 1-sigma offset uT: x y z worst | sigma_psi deg now | fit error uT\n");
    int next_report = 4;
    for (int i = 0;; ++i) {
        const double t = static_cast<double>(i) / rate;
        if (t > s.duration_s()) break;
        const sc::Truth truth = s.sample(t);
        Vector3d c = v3(truth.field_uT) / kUtPerCount;
        for (int k = 0; k < 3; ++k) c(k) = std::round(c(k));
        m.push_back(c);
        if (t + 1e-9 < next_report) continue;
        ++next_report;
        const Sphere f = sphere_fit_d(m);
        if (!f.ok) continue;
        const Eigen::SelfAdjointEigenSolver<Matrix3d> eig(f.p);
        const Vector3d sd = f.p.diagonal().cwiseSqrt() * kUtPerCount;
        const double psi = heading_sigma_deg(f.p, c - f.c, v3(truth.gravity_g));
        std::printf("%5.1f | %5zu | %6.2f %6.2f %6.2f %6.2f | %7.2f | %6.2f\n", t, m.size(), sd.x(), sd.y(), sd.z(),
                    std::sqrt(eig.eigenvalues().maxCoeff()) * kUtPerCount, psi, f.c.norm() * kUtPerCount);
    }
    return 0;
}

// ---- Soft iron ------------------------------------------------------------------------------

// The kit's ellipsoid model in double: features (x^2-z^2, y^2-z^2, 2xy, 2xz, 2yz, -2x, -2y,
// -2z, 1) against -|u|^2 about c0, with the kit's ridge when asked. Centre and W (det 1).
struct Ellipsoid {
    Vector3d c;
    Matrix3d w;
    bool ok = false;
};
Ellipsoid ellipsoid_fit_d(const std::vector<Vector3d> &m, const Vector3d &c0, double radius, bool ridge) {
    const int n = static_cast<int>(m.size());
    Eigen::MatrixXd f(n, 9);
    Eigen::VectorXd t(n);
    for (int i = 0; i < n; ++i) {
        const Vector3d u = m[i] - c0;
        const double x = u.x(), y = u.y(), z = u.z();
        f.row(i) << x * x - z * z, y * y - z * z, 2 * x * y, 2 * x * z, 2 * y * z, -2 * x, -2 * y, -2 * z, 1;
        t(i) = -u.squaredNorm();
    }
    Eigen::MatrixXd a = f.transpose() * f;
    if (ridge) {
        const double lambda = n * std::pow(radius, 4) / (1 << kmxc_kit::kEllipsoidRidgeBits);
        a(0, 0) += 2 * lambda, a(1, 1) += 2 * lambda, a(0, 1) += lambda, a(1, 0) += lambda;
        for (int j = 2; j < 5; ++j) a(j, j) += 2 * lambda;
    }
    const Eigen::VectorXd x = a.ldlt().solve(f.transpose() * t);
    Matrix3d am;
    am << 1 + x(0), x(2), x(3), x(2), 1 + x(1), x(4), x(3), x(4), 1 - x(0) - x(1);
    const Eigen::SelfAdjointEigenSolver<Matrix3d> eig(am);
    Ellipsoid e;
    if (eig.eigenvalues().minCoeff() <= 0) return e;
    e.c = c0 + am.inverse() * Vector3d(x(5), x(6), x(7));
    const Matrix3d root =
        eig.eigenvectors() * eig.eigenvalues().cwiseSqrt().asDiagonal() * eig.eigenvectors().transpose();
    e.w = root / std::cbrt(root.determinant());
    e.ok = true;
    return e;
}

Matrix3d w_of(const int16_t q14[9]) {
    Matrix3d w;
    for (int k = 0; k < 9; ++k) w(k / 3, k % 3) = q14[k] / 16384.0;
    return w;
}

struct Cycle {
    sc::Truth truth;
    Vector3d true_offset;  // counts
    KmxcServiceEvent event;
};

struct Snapshot {
    double t_s;
    std::vector<Vector3d> store;
    kmxc_kit::SphereFit sphere;
    kmxc_kit::EllipsoidFit ellipsoid;
    int coverage;
};

// Held-steady heading RMS (degrees) over the run of a calibration (centre c, W).
double steady_rms(const std::vector<Cycle> &run, const std::vector<bool> &steady, const Vector3d &c,
                  const Matrix3d &w) {
    double sq = 0;
    int n = 0;
    for (size_t i = 0; i < run.size(); ++i) {
        if (!steady[i]) continue;
        const Vector3d m = run[i].true_offset + v3(run[i].truth.field_uT) / kUtPerCount;
        const double e = heading_error_deg(v3(run[i].truth.earth_uT), w * (m - c), up_of(run[i].truth));
        sq += e * e;
        ++n;
    }
    return n ? std::sqrt(sq / n) : NAN;
}

// One trace line: the event's heading error and the one its covariance predicts
// (double), the offset's error, the store and the estimators' state.
void print_trace(const sc::Truth &t, const Vector3d &true_offset, const KmxcServiceEvent &e) {
    const kmxc_kit::Estimators &est = kmxc_kit::g_state.est;
    const Vector3d v(e.mag_counts[0] - e.offset[0], e.mag_counts[1] - e.offset[1], e.mag_counts[2] - e.offset[2]);
    const double err = heading_error_deg(v3(t.earth_uT), v, up_of(t));
    double pred = NAN, worst = NAN, best = NAN, pred_noise = NAN;
    if (est.cov.valid) {
        const int32_t *q = est.cov.p_q8, *h = est.cov.share_q8;
        Matrix3d p, n;
        p << q[0], q[1], q[2], q[1], q[3], q[4], q[2], q[4], q[5];
        n << q[0] - h[0], q[1] - h[1], q[2] - h[2], q[1] - h[1], q[3] - h[3], q[4] - h[4], q[2] - h[2], q[4] - h[4],
            q[5] - h[5];
        const Vector3d g(e.gravity_counts[0], e.gravity_counts[1], e.gravity_counts[2]);
        pred = heading_sigma_deg(p / 256, v, g);
        pred_noise = heading_sigma_deg(n / 256, v, g);
        const Eigen::SelfAdjointEigenSolver<Matrix3d> eig(p / 256);
        worst = std::sqrt(eig.eigenvalues().maxCoeff()) * kUtPerCount;
        best = std::sqrt(std::max(0.0, eig.eigenvalues().minCoeff())) * kUtPerCount;
    }
    const Vector3d off(e.offset[0], e.offset[1], e.offset[2]);
    kmxc_kit::SphereFit probe{};
    const int rc = static_cast<int>(kmxc_kit::sphere_fit(est.store, &probe));
    const kmxc_kit::Spread spread = kmxc_kit::field_store_spread(est.store);
    std::printf(
        "%6.1f acc %d est %d flags %04x err %6.2f pred %6.2f (%5.2f) off %5.2f store %2d cov %2d sph rms %5.2f "
        "pend %d%d%d W %d fit %d spread %d joined %d sd %.2f..%.2f shown %d %s\n",
        t.t_s, e.accuracy, e.estimator, e.flags, err, pred, pred_noise, (off - true_offset).norm() * kUtPerCount,
        est.store.count, est.coverage, est.sphere.residual.rms_q4 / 16.0, est.sphere_pending, est.ellipsoid_due,
        est.ellipsoid_pending, kmxc_kit::g_state.soft_iron.in_use, rc, spread.ratio_min, est.joined, best, worst,
        static_cast<int>(est.shown_permille), t.phase);
}

// Each ellipsoid attempt against the truth: W's error and the centre's for the kit's
// fit, the same fit in double with and without the ridge, and the sphere; the held-steady
// heading RMS each would give over the whole run.
void print_snapshots(const std::vector<Cycle> &cycles, const std::vector<Snapshot> &snaps,
                     const std::vector<bool> &steady, const Matrix3d &w_true) {
    const Vector3d o_end = cycles.back().true_offset;
    std::printf("held-steady samples %d; heading RMS with the true offset: no W %.2f deg, true W %.2f deg\n",
                static_cast<int>(std::count(steady.begin(), steady.end(), true)),
                steady_rms(cycles, steady, o_end, Matrix3d::Identity()), steady_rms(cycles, steady, o_end, w_true));
    std::printf(
        "t s | n cells | |W-Wtrue| max: kit, ridge, none | centre err uT: sphere, kit, ridge, none | "
        "steady RMS deg: sphere, kit, ridge, none\n");
    for (const auto &s : snaps) {
        const Vector3d c_sphere(s.sphere.offset.x, s.sphere.offset.y, s.sphere.offset.z);
        const Vector3d c_kit(s.ellipsoid.offset.x, s.ellipsoid.offset.y, s.ellipsoid.offset.z);
        const Matrix3d w_kit = w_of(s.ellipsoid.w_q14);
        const Ellipsoid ridge = ellipsoid_fit_d(s.store, c_sphere, s.sphere.radius_q4 / 16.0, true);
        const Ellipsoid none = ellipsoid_fit_d(s.store, c_sphere, s.sphere.radius_q4 / 16.0, false);
        // The true offset at the snapshot's time.
        Vector3d o = o_end;
        for (const auto &c : cycles)
            if (c.truth.t_s <= s.t_s) o = c.true_offset;
        std::printf("%5.1f | %2zu %2d | %.3f %.3f %.3f | %.2f %.2f %.2f %.2f | %.2f %.2f %.2f %.2f\n", s.t_s,
                    s.store.size(), s.coverage, (w_kit - w_true).cwiseAbs().maxCoeff(),
                    ridge.ok ? (ridge.w - w_true).cwiseAbs().maxCoeff() : NAN,
                    none.ok ? (none.w - w_true).cwiseAbs().maxCoeff() : NAN, (c_sphere - o).norm() * kUtPerCount,
                    (c_kit - o).norm() * kUtPerCount, ridge.ok ? (ridge.c - o).norm() * kUtPerCount : NAN,
                    none.ok ? (none.c - o).norm() * kUtPerCount : NAN,
                    steady_rms(cycles, steady, c_sphere, Matrix3d::Identity()),
                    steady_rms(cycles, steady, c_kit, w_kit),
                    ridge.ok ? steady_rms(cycles, steady, ridge.c, ridge.w) : NAN,
                    none.ok ? steady_rms(cycles, steady, none.c, none.w) : NAN);
    }
}

// What the events reported: the heading of each held-steady event's calibrated field
// (mag_counts is the corrected field, offset the one in use), and which estimator.
void print_events(const std::vector<Cycle> &cycles, const std::vector<bool> &steady) {
    double sq = 0;
    int n = 0, in_use[6] = {}, with_w = 0;
    for (size_t i = 0; i < cycles.size(); ++i) {
        const KmxcServiceEvent &e = cycles[i].event;
        if (!steady[i] || e.accuracy < KMXC_SERVICE_MEDIUM) continue;
        const Vector3d v(e.mag_counts[0] - e.offset[0], e.mag_counts[1] - e.offset[1], e.mag_counts[2] - e.offset[2]);
        const double err = heading_error_deg(v3(cycles[i].truth.earth_uT), v, up_of(cycles[i].truth));
        sq += err * err;
        ++n;
        ++in_use[e.estimator < 6 ? e.estimator : 5];
        if (e.soft_iron_q14[0] != 16384) ++with_w;
    }
    std::printf(
        "events held steady at medium/high: %d, heading RMS %.2f deg; estimator none/stored/library/sphere/"
        "ellipsoid: %d %d %d %d %d; with a soft-iron correction %d\n",
        n, n ? std::sqrt(sq / n) : NAN, in_use[0], in_use[1], in_use[2], in_use[3], in_use[4], with_w);
}

int soft_iron(const char *scenario, int rate, int seed, const char *soft, bool trace,
              const sc::ScenarioSettings &world) {
    sc::ScenarioSettings settings = world;
    settings.name = scenario;
    settings.seed = static_cast<uint32_t>(seed);
    if (std::sscanf(soft, "%lf,%lf,%lf,%lf,%lf,%lf", &settings.soft_iron[0], &settings.soft_iron[1],
                    &settings.soft_iron[2], &settings.soft_iron[3], &settings.soft_iron[4],
                    &settings.soft_iron[5]) != 6) {
        std::fprintf(stderr, "kit_analysis: soft iron XX,YY,ZZ,XY,XZ,YZ\n");
        return 2;
    }
    vphone::reset();
    const std::string dir = "/tmp/kit-analysis-" + std::to_string(getpid());
    sc::Rig rig;
    std::string error;
    if (!rig.open_sandbox(dir, true, 1, &error)) {
        std::fprintf(stderr, "kit_analysis: %s\n", error.c_str());
        return 1;
    }
    rig.attach_chips(1, sc::kRigCalibration);
    sc::Scenario scene(settings);
    sc::ScriptedRun run(rig, scene, static_cast<uint32_t>(rate));
    run.sense_start();
    if (kmxc_service_start(static_cast<uint32_t>(rate), nullptr) != KMXC_SERVICE_OK) return 1;
    std::vector<Cycle> cycles;
    std::vector<Snapshot> snaps;
    while (run.next()) {
        KmxcServiceEvent e;
        kmxc_service_cycle(static_cast<int64_t>(run.elapsed_us()) * 1000, &e);
        const sc::Truth &t = run.truth();
        cycles.push_back(Cycle{t, v3(rig.true_offset_counts()), e});
        if (trace) print_trace(t, cycles.back().true_offset, e);
        const kmxc_kit::Estimators &est = kmxc_kit::g_state.est;
        if (est.ellipsoid_pending) {
            Snapshot s{t.t_s, {}, est.sphere, est.ellipsoid, est.coverage};
            for (int i = 0; i < est.store.count; ++i) {
                const kmxc_kit::Vec3 v = kmxc_kit::stored_field(est.store, i);
                s.store.push_back(Vector3d(v.x, v.y, v.z));
            }
            snaps.push_back(s);
        }
    }
    kmxc_service_stop();
    std::filesystem::remove_all(dir);

    std::vector<sc::Truth> truths;
    for (const auto &c : cycles) truths.push_back(c.truth);
    const std::vector<bool> steady = held_steady(truths, rate);
    const sc::Mat3 s_scene = sc::soft_iron_matrix(settings.soft_iron);
    Matrix3d s_true;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) s_true(i, j) = s_scene[i][j];
    Matrix3d w_true = s_true.inverse();
    w_true /= std::cbrt(w_true.determinant());
    std::printf("true W (S^-1, det 1): %.4f %.4f %.4f / %.4f %.4f / %.4f\n", w_true(0, 0), w_true(0, 1), w_true(0, 2),
                w_true(1, 1), w_true(1, 2), w_true(2, 2));
    print_snapshots(cycles, snaps, steady, w_true);
    print_events(cycles, steady);
    return 0;
}

}  // namespace

// ---- The double path's floor ---------------------------------------------------------------

struct Rms {
    double sum_sq = 0;
    long n = 0;
    void add(double e) { sum_sq += e * e, ++n; }
    double value() const { return n > 0 ? std::sqrt(sum_sq / static_cast<double>(n)) : 0.0; }
};

int floor_of(const char *scenario, int rate, int seed, sc::ScenarioSettings settings) {
    settings.name = scenario;
    settings.seed = static_cast<uint32_t>(seed);
    sc::Scenario s(settings);
    std::vector<sc::Truth> truth;
    for (int i = 0;; ++i) {
        const double t = static_cast<double>(i) / rate;
        if (t > s.duration_s()) break;
        truth.push_back(s.sample(t));
    }
    const std::vector<bool> steady = held_steady(truth, rate);
    enum { kAll, kSteady, kDriving, kGroups };
    enum { kHeld, kYaw, kMeasured, kColumns };  // the hold, the yaw alone, the hold on the accelerometer's reading
    Rms rms[kColumns][kGroups];
    for (const bool measured : {false, true}) {
        KmxAxesLibInit();  // the hold's state, afresh for each pass
        for (size_t i = 0; i < truth.size(); ++i) {
            const sc::Truth &t = truth[i];
            // The library's gravity points the way gravity pulls: the attitude's -up, or
            // what the accelerometer reads (a vehicle's accelerations included).
            const vphone::Vec3 &up = t.attitude[2];
            const double g[3] = {measured ? t.gravity_g[0] : -up[0], measured ? t.gravity_g[1] : -up[1],
                                 measured ? t.gravity_g[2] : -up[2]};
            // The field the magnetometer reads with the true offset taken off, in its steps.
            double f[3];
            for (int k = 0; k < 3; ++k) f[k] = std::round(t.field_uT[k] / kUtPerCount);
            double m[9], e[3];
            if (KmxAxesLibGetRotationMatrix(g, f, m) != 0 || KmxAxesLibGetEuler(m, e) != 0) continue;
            const double truth_deg = sc::true_angles(t.attitude, sc::HeadingAxis::kY).double_azimuth;
            double y = std::atan2(m[1] - m[3], m[0] + m[4]) * 180 / M_PI;
            if (y < 0) y += 360;
            const bool in_group[kGroups] = {true, steady[i], std::strncmp(t.phase, "driving", 7) == 0};
            for (int k = 0; k < kGroups; ++k) {
                if (!in_group[k]) continue;
                if (measured) {
                    rms[kMeasured][k].add(sc::heading_difference(e[0], truth_deg));
                } else {
                    rms[kHeld][k].add(sc::heading_difference(e[0], truth_deg));
                    rms[kYaw][k].add(sc::heading_difference(std::trunc(y), truth_deg));
                }
            }
        }
    }
    std::printf("samples | RMS deg: the hold / the yaw alone / the hold on the accelerometer's reading\n");
    const char *names[kGroups] = {"all", "held steady", "driving"};
    for (int k = 0; k < kGroups; ++k)
        if (rms[kHeld][k].n > 0)
            std::printf("%-11s %6ld | %5.2f / %5.2f / %5.2f\n", names[k], rms[kHeld][k].n, rms[kHeld][k].value(),
                        rms[kYaw][k].value(), rms[kMeasured][k].value());
    return 0;
}

int main(int argc, char **argv) {
    if (argc == 5 && std::strcmp(argv[1], "determinacy") == 0)
        return determinacy(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    // The world's options after the soft iron: the inclination in degrees (alone, as
    // before), or field=UT, noise=UT, inclination=DEG (the scenarios' own otherwise).
    sc::ScenarioSettings world;
    const bool floor = argc > 1 && std::strcmp(argv[1], "floor") == 0;  // its world after the seed
    for (int i = floor ? 5 : 6; i < argc; ++i) {
        const char *arg = argv[i], *eq = std::strchr(arg, '=');
        const std::string key = eq != nullptr ? std::string(arg, eq) : "inclination";
        const char *text = eq != nullptr ? eq + 1 : arg;
        char *end = nullptr;
        const double v = std::strtod(text, &end);
        const bool number = end != text && *end == '\0';
        if (number && key == "inclination" && v >= -90 && v <= 90) {
            world.inclination_deg = v;
        } else if (number && key == "field" && v >= 25 && v <= 65) {
            world.field_uT = v;
        } else if (number && key == "noise" && v >= 0 && v <= 5) {
            world.noise_uT = v;
        } else if (key == "hard" && std::sscanf(text, "%lf,%lf,%lf", &world.hard_iron_uT[0], &world.hard_iron_uT[1],
                                                &world.hard_iron_uT[2]) == 3) {
        } else if (key == "car" && std::sscanf(text, "%lf,%lf,%lf", &world.car_field_uT[0], &world.car_field_uT[1],
                                               &world.car_field_uT[2]) == 3) {
        } else {
            std::fprintf(stderr,
                         "kit_analysis: '%s': inclination=-90..90, field=25..65, noise=0..5, hard=X,Y,Z or car=X,Y,Z\n",
                         arg);
            return 2;
        }
    }
    if (floor && argc >= 5) return floor_of(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), world);
    if (argc >= 6 && std::strcmp(argv[1], "soft-iron") == 0)
        return soft_iron(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), argv[5], false, world);
    if (argc >= 6 && std::strcmp(argv[1], "trace") == 0)
        return soft_iron(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), argv[5], true, world);
    std::fprintf(stderr,
                 "usage: kit_analysis determinacy SCENARIO RATE SEED\n"
                 "       kit_analysis soft-iron SCENARIO RATE SEED XX,YY,ZZ,XY,XZ,YZ [WORLD...]\n"
                 "       kit_analysis trace SCENARIO RATE SEED XX,YY,ZZ,XY,XZ,YZ [WORLD...]\n"
                 "       kit_analysis floor SCENARIO RATE SEED [WORLD...]\n"
                 "  WORLD: INCLINATION, inclination=DEG, field=UT, noise=UT, hard=X,Y,Z, car=X,Y,Z (uT)\n");
    return 2;
}
