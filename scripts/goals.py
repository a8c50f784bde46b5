#!/usr/bin/env python3
"""The kit's calibration goals on the virtual phone: runs the compass service demo over
a matrix of scenarios, soft-iron settings, seeds and rates (each run --fresh in a
sandbox of its own, with --summary-json and --outputs), and prints one table row per
scenario, soft iron and rate.

Usage: scripts/goals.py [--binary B] [--base B0] [--seeds 1-5] [--rates 10,50]
                        [--scenarios default,slow,...] [--soft-iron all|none] [--work DIR]
                        [--inclination DEG] [--accel-offset X,Y,Z] [--field UT] [--noise UT]
                        [--hard-iron X,Y,Z] [--temp-drift C_PER_MIN] [--jobs N] [--wrong]

--jobs runs that many demos at once (default: one per processor); the table is the
same whatever the number. --wrong lists, after the table, every episode of medium/high
samples more than 15 degrees off: the run, its span, the estimator, how far the offset
was off and what the phone was doing (the samples the 'wrong' column counts).

--inclination runs every scenario in a field of that dip (the demo's default 60): the
rules must hold from the equator to the poles, in either hemisphere. --accel-offset
gives the accelerometer a zero-g offset (mg, phone axes; the demo's part has none).
--field and --noise set the Earth field's strength (25..65 uT) and the magnetometer's
noise per axis (0..5 uT): the rules are counts of noise and fractions of the field,
never the demo's numbers. --hard-iron and --temp-drift set the phone's own field and
the chip's temperature change per minute.

--base names a second build (the one before this work); its runs fill the 'before'
columns, n/a where it lacks the scenario or the option.

Columns, per row (over the seeds):
  trusted   first medium/high accuracy, seconds (min-max), 'never' when no seed got one
  3-D       first three-dimensional calibration (min-max)
  off err   final offset error, uT: mean (max)
  after     double-path heading RMS over every sample after the first medium/high, deg
            (the seeds' samples together)
  steady    held steady (attitude within 8 degrees for 2 s) heading RMS, integer /
            double path, deg (the seeds' samples together)
  wrong     medium/high samples more than 15 degrees off, of all medium/high
  est       the estimator in use at the end (the seeds' codes), coverage cells
"""
import argparse
import concurrent.futures
import csv
import json
import math
import os
import subprocess
import sys
import tempfile

SOFT_IRON = {
    "none": None,
    "A": "1.10,0.92,1.0,0.05,0,0",  # x stretched, y squeezed, an x-y skew
    "B": "0.95,1.0,1.12,0,0.06,0",  # z stretched, an x-z skew
    "C": "1.0,1.08,0.90,0,0,-0.07",  # y stretched, z squeezed, a y-z skew
    "D": "1.15,1.0,0.88,0.04,-0.05,0.06",  # every axis and skew at once
}
SCENARIOS = ["default", "slow", "browse", "planar", "still", "magnet", "two-planes"]
SOFT_SCENARIOS = ["default", "slow", "browse"]
STEADY_DEG, STEADY_FOR_US = 8.0, 2000000
WRONG_DEG = 15.0  # the 'wrong' column's limit
EPISODE_GAP_S = 1.0  # wrong samples this close belong to one episode


def wrap(d):
    d = math.fmod(d, 360.0)
    if d > 180:
        d -= 360
    if d < -180:
        d += 360
    return d


def run_one(name, binary, scenario, seed, rate, soft, work, world):
    # Files named by the build's role (after, before): two builds' trees may share a name.
    tag = f"{name}-{scenario}-{seed}-{rate}-{soft}"
    sandbox = os.path.join(work, "sb-" + tag)
    js, outs = os.path.join(work, tag + ".json"), os.path.join(work, tag + ".csv")
    cmd = [binary, "--scenario", scenario, "--seed", str(seed), "--rate", str(rate), "--fresh", "--quiet",
           "--sandbox", sandbox, "--summary-json", js, "--outputs", outs] + world
    if SOFT_IRON[soft]:
        cmd += ["--soft-iron", SOFT_IRON[soft]]
    p = subprocess.run(cmd, capture_output=True, text=True)
    if p.returncode not in (0, 3) or not os.path.exists(js):
        # A run that failed says why: a missing binary, a refused option, a crash.
        why = (p.stderr.strip().splitlines() or [f"exit {p.returncode}, no summary"])[-1]
        print(f"goals.py: {' '.join(cmd)}: {why}", file=sys.stderr)
        return None
    with open(js) as f:
        summary = json.load(f)
    after_sq, after_n = 0.0, 0
    first = summary.get("first_trusted_s")
    wrong = []
    with open(outs) as f:
        for row in csv.DictReader(f):
            if row["rotation_rc"] != "0":
                continue
            e = wrap(float(row["azimuth"]) - float(row["true_azimuth"]))
            if int(row["accuracy"]) >= 2 and abs(e) > WRONG_DEG:
                wrong.append(row)
            if first is None or int(row["time_us"]) < first * 1e6 - 1:
                continue
            after_sq += e * e
            after_n += 1
    summary["_after"] = (after_sq, after_n)
    summary["_episodes"] = episodes(wrong)
    summary["_tag"] = f"{scenario} {soft} {rate} Hz seed {seed} ({name})"
    return summary


def episodes(rows):
    """The wrong samples (CSV rows) grouped into episodes: one line each."""
    groups = []
    for row in rows:
        if groups and (int(row["time_us"]) - int(groups[-1][-1]["time_us"])) / 1e6 <= EPISODE_GAP_S:
            groups[-1].append(row)
        else:
            groups.append([row])
    out = []
    for g in groups:
        offs = [float(r["offset_error_uT"]) for r in g]
        pitch = [int(r["pitch"]) for r in g]
        out.append(f"{int(g[0]['time_us']) / 1e6:.2f}-{int(g[-1]['time_us']) / 1e6:.2f} s, {len(g)} samples, "
                   f"{','.join(sorted({r['estimator'] for r in g}))}, offset {min(offs):.1f}-{max(offs):.1f} uT off, "
                   f"pitch {min(pitch)}..{max(pitch)}, {','.join(dict.fromkeys(r['phase'] for r in g))}")
    return out


def wrong_lines(runs):
    """Each run's wrong episodes, one line each, named by the run."""
    return [f"- {r['_tag']}: {e}" for r in runs if r is not None for e in r["_episodes"]]


def run_all(jobs, fn, items):
    """fn over items, `jobs` at a time, the results in the items' order."""
    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        return list(pool.map(fn, items))


# The car scenarios' fields (uT, phone axes once mounted): 10, 20 and 40 uT in three
# directions; 0 measures what the drive's accelerations and vibration leave with the
# hand's offset still right.
CAR_FIELDS = {"0": "0,0,0", "10": "6,-4,7", "20": "-8,12,14", "40": "25,20,-24"}
CAR_TURNING_DEG = 720.0  # the goals' turning allowance before a re-estimate


def run_car(name, binary, scenario, seed, rate, field, work, world):
    tag = f"{name}-{scenario}-{seed}-{rate}-car{field}"
    sandbox = os.path.join(work, "sb-" + tag)
    js, outs = os.path.join(work, tag + ".json"), os.path.join(work, tag + ".csv")
    cmd = [binary, "--scenario", scenario, "--seed", str(seed), "--rate", str(rate), "--fresh", "--quiet",
           "--sandbox", sandbox, "--summary-json", js, "--outputs", outs, "--car-field", CAR_FIELDS[field]] + world
    p = subprocess.run(cmd, capture_output=True, text=True)
    if p.returncode not in (0, 3) or not os.path.exists(js):
        return None
    with open(js) as f:
        summary = json.load(f)
    mounted = summary.get("mounted_s") or 0.0
    reest = summary.get("first_reestimate_s")
    wrong = []
    r = {"mounted": mounted, "reest": reest, "detect": None, "turn_at_reest": None, "trusted_before": 0,
         "drive": [0.0, 0, 0.0, 0], "straight": [0.0, 0], "after720": [0.0, 0], "mh": 0, "max_acc": 0,
         "cum": 0.0}
    prev = None
    with open(outs) as f:
        for row in csv.DictReader(f):
            t = int(row["time_us"]) / 1e6
            acc = int(row["accuracy"])
            r["max_acc"] = max(r["max_acc"], acc)
            valid = row["rotation_rc"] == "0"
            e = wrap(float(row["azimuth"]) - float(row["true_azimuth"])) if valid else 0.0
            ei = wrap(float(row["heading_int"]) - float(row["true_heading_int"])) if row["attitude_rc"] == "0" else None
            if valid and acc >= 2:
                r["mh"] += 1
                if abs(e) > WRONG_DEG:
                    wrong.append(row)
            if t < mounted:
                continue
            a = float(row["true_azimuth"])
            if prev is not None:
                r["cum"] += abs(wrap(a - prev))
            prev = a
            if r["detect"] is None and acc <= 1:
                r["detect"] = t - mounted
            if reest is not None and t < reest - 1e-6 and acc >= 2:
                r["trusted_before"] += 1
            if reest is not None and abs(t - reest) < 1e-6 and r["turn_at_reest"] is None:
                r["turn_at_reest"] = r["cum"]
            driving = row["phase"].startswith("driving")
            if reest is not None and t >= reest - 1e-6 and driving and valid:
                r["drive"][0] += e * e
                r["drive"][1] += 1
                if ei is not None:
                    r["drive"][2] += ei * ei
                    r["drive"][3] += 1
                if row["phase"] == "driving straight":
                    r["straight"][0] += e * e
                    r["straight"][1] += 1
            if r["cum"] >= CAR_TURNING_DEG and driving and valid:
                r["after720"][0] += e * e
                r["after720"][1] += 1
    r["summary"] = summary
    r["wrong"] = len(wrong)
    r["_episodes"] = episodes(wrong)
    r["_tag"] = f"{scenario} {field} uT {rate} Hz seed {seed} ({name})"
    return r


def car_row(runs):
    if not runs or any(x is None for x in runs):
        return None

    def span(vals, f="{:.1f}"):
        vals = [v for v in vals if v is not None]
        if not vals:
            return "never"
        lo, hi = min(vals), max(vals)
        return f.format(lo) if abs(hi - lo) < 0.05 else f.format(lo) + "-" + f.format(hi)

    def pooled(key, i=0):
        sq = sum(x[key][i] for x in runs)
        n = sum(x[key][i + 1] for x in runs)
        return f"{math.sqrt(sq / n):.2f}" if n else "-"

    never = sum(x["reest"] is None for x in runs)
    mh = sum(x["mh"] for x in runs)
    wr = sum(x["wrong"] for x in runs)
    return {
        "detect": span([x["detect"] for x in runs]),
        "reest": span([x["reest"] - x["mounted"] if x["reest"] is not None else None for x in runs], "{:.0f}") +
                 (f" ({never} never)" if never and never < len(runs) else ""),
        "turn": span([x["turn_at_reest"] for x in runs], "{:.0f}"),
        "before": sum(x["trusted_before"] for x in runs),
        "drive": f"{pooled('drive')} / {pooled('drive', 2)}",
        "straight": pooled("straight"),
        "after720": pooled("after720"),
        "wrong": f"{wr}/{mh}" + (f" ({100.0 * wr / mh:.2f} %)" if mh else ""),
        "maxacc": max(x["max_acc"] for x in runs),
    }


def in_range(texts, lo, hi, count=1):
    """Each of `count` texts a number within lo..hi."""
    try:
        return len(texts) == count and all(lo <= float(t) <= hi for t in texts)
    except ValueError:
        return False


def world_of(a):
    """The world's options every run takes: the Earth field's dip and strength, the
    accelerometer's offset, the magnetometer's noise."""
    return (["--inclination", a.inclination] if a.inclination else []) + \
        (["--accel-offset", a.accel_offset] if a.accel_offset else []) + \
        (["--field", a.field] if a.field else []) + (["--noise", a.noise] if a.noise else []) + \
        (["--hard-iron", a.hard_iron] if a.hard_iron else []) + \
        (["--temp-drift", a.temp_drift] if a.temp_drift else [])


def car_table(a, seeds, rates, binaries, work):
    print("| scenario | car field uT | Hz | build | accuracy <= 1 after mounting, s | re-estimate after mounting, s "
          "| turning by then, deg | medium/high before it | RMS after it while driving dbl / int | ... straight "
          "| RMS after 720 deg dbl | wrong | highest accuracy |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    wrong = []
    for scenario in a.car_scenarios.split(","):
        for field in a.car_fields.split(","):
            for rate in rates:
                for name, binary in binaries:
                    runs = run_all(a.jobs, lambda s: run_car(name, binary, scenario, s, rate, field, work, world_of(a)),
                                   seeds)
                    wrong += wrong_lines(runs)
                    r = car_row(runs)
                    if r is None:
                        print(f"| {scenario} | {field} | {rate} | {name} | n/a | | | | | | | | |")
                    else:
                        print(f"| {scenario} | {field} | {rate} | {name} | {r['detect']} | {r['reest']} | {r['turn']} | "
                              f"{r['before']} | {r['drive']} | {r['straight']} | {r['after720']} | {r['wrong']} | "
                              f"{r['maxacc']} |")
                    sys.stdout.flush()
    print("car fields: " + "; ".join(f"{k} uT = {v}" for k, v in CAR_FIELDS.items()))
    return wrong


def rng(values):
    if any(v == "n/a" for v in values):
        return "n/a"
    values = [v for v in values if v is not None]
    if not values:
        return "never"
    lo, hi = min(values), max(values)
    return f"{lo:.1f}" if abs(hi - lo) < 0.05 else f"{lo:.1f}-{hi:.1f}"


def row_of(runs):
    if not runs or any(r is None for r in runs):
        return None
    trusted = rng([r.get("first_trusted_s", "n/a") for r in runs])
    if any(r.get("first_trusted_s") is None for r in runs) and trusted not in ("never", "n/a"):
        trusted += f" ({sum(r.get('first_trusted_s') is None for r in runs)} never)"
    first3d = rng([r.get("first_3d_s") for r in runs])
    errs = [r["final_offset_error_uT"] for r in runs]
    off = f"{sum(errs) / len(errs):.2f} ({max(errs):.2f})"
    sq = sum(r["_after"][0] for r in runs)
    n = sum(r["_after"][1] for r in runs)
    after = f"{math.sqrt(sq / n):.2f}" if n else "-"

    def pooled(key, path):
        s, c = 0.0, 0
        for r in runs:
            v, k = r[key][path], r[key]["samples"]
            if v is not None and k:
                s += v * v * k
                c += k
        return math.sqrt(s / c) if c else None

    si, sd = pooled("heading_rms_held_steady_deg", "integer"), pooled("heading_rms_held_steady_deg", "double")
    steady = f"{si:.2f} / {sd:.2f}" if si is not None and sd is not None else "-"
    mh = sum(r["medium_high_samples"] for r in runs)
    wr = sum(r["medium_high_wrong"] for r in runs)
    wrong = f"{wr}/{mh}" + (f" ({100.0 * wr / mh:.2f} %)" if mh else "")
    est = ",".join(str(r.get("estimator")) for r in runs)
    cov = ",".join(str(r.get("coverage_cells")) for r in runs)
    return {"trusted": trusted, "3d": first3d, "off": off, "after": after, "steady": steady, "wrong": wrong,
            "est": f"{est} / {cov}" if "estimator" in runs[0] else "n/a"}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--binary", default="build/tools/compass_service")
    ap.add_argument("--base", default="")
    ap.add_argument("--seeds", default="1-5")
    ap.add_argument("--rates", default="10,50")
    ap.add_argument("--scenarios", default=",".join(SCENARIOS))
    ap.add_argument("--soft-iron", default="all", help="all, none, or a list of A,B,C,D")
    ap.add_argument("--work", default="")
    ap.add_argument("--car", action="store_true", help="the car table instead (car, car-fresh; fields 10, 20, 40 uT)")
    ap.add_argument("--car-scenarios", default="car,car-fresh")
    ap.add_argument("--car-fields", default="10,20,40", help="of 0 (none: the floor the accelerations leave), 10, 20, 40")
    ap.add_argument("--inclination", default="", help="the Earth field's dip, -90..90 degrees (default: the demo's)")
    ap.add_argument("--accel-offset", default="", help="the accelerometer's zero-g offset X,Y,Z, mg (default: none)")
    ap.add_argument("--field", default="", help="the Earth field's strength, 25..65 uT (default: the demo's)")
    ap.add_argument("--noise", default="", help="the magnetometer's noise per axis, 0..5 uT (default: the demo's)")
    ap.add_argument("--hard-iron", default="", help="the phone's own field X,Y,Z, uT, each -200..200 (default: the demo's)")
    ap.add_argument("--temp-drift", default="", help="temperature change per minute, -20..20 (default: the demo's)")
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 1, help="demos run at once (default: processors)")
    ap.add_argument("--wrong", action="store_true", help=f"list the medium/high episodes more than {WRONG_DEG:.0f} degrees off")
    a = ap.parse_args()
    if a.jobs < 1:
        sys.exit(f"goals.py: --jobs {a.jobs}: at least 1")
    # The world's options are checked here, before any run: a run the demo refuses would
    # only leave its rows empty.
    if a.inclination and not in_range([a.inclination], -90, 90):
        sys.exit(f"goals.py: --inclination {a.inclination}: degrees, -90..90")
    if a.accel_offset and not in_range(a.accel_offset.split(","), -200, 200, count=3):
        sys.exit(f"goals.py: --accel-offset {a.accel_offset}: X,Y,Z in mg, each -200..200")
    if a.field and not in_range([a.field], 25, 65):
        sys.exit(f"goals.py: --field {a.field}: uT, 25..65")
    if a.noise and not in_range([a.noise], 0, 5):
        sys.exit(f"goals.py: --noise {a.noise}: uT, 0..5")
    if a.hard_iron and not in_range(a.hard_iron.split(","), -200, 200, count=3):
        sys.exit(f"goals.py: --hard-iron {a.hard_iron}: X,Y,Z in uT, each -200..200")
    if a.temp_drift and not in_range([a.temp_drift], -20, 20):
        sys.exit(f"goals.py: --temp-drift {a.temp_drift}: degrees per minute, -20..20")
    lo, _, hi = a.seeds.partition("-")
    seeds = list(range(int(lo), int(hi or lo) + 1))
    rates = [int(r) for r in a.rates.split(",")]
    softs = ["none"] + ([k for k in SOFT_IRON if k != "none"] if a.soft_iron == "all" else
                        [k for k in a.soft_iron.split(",") if k != "none"])
    work = a.work or tempfile.mkdtemp(prefix="kmxc-goals-")
    os.makedirs(work, exist_ok=True)
    for name, path in [("--binary", a.binary)] + ([("--base", a.base)] if a.base else []):
        if not os.access(path, os.X_OK):
            sys.exit(f"goals.py: {name} {path}: no such program (build it first)")
    binaries = [("after", os.path.abspath(a.binary))] + ([("before", os.path.abspath(a.base))] if a.base else [])
    if a.car:
        print_wrong(a, car_table(a, seeds, rates, binaries, work))
        return
    print("| scenario | soft iron | Hz | build | first medium/high s | first 3-D s | offset err uT | RMS after "
          "dbl | held steady int / dbl | wrong | estimator / cells |")
    print("|---|---|---|---|---|---|---|---|---|---|---|")
    wrong = []
    for scenario in a.scenarios.split(","):
        for soft in softs:
            if soft != "none" and scenario not in SOFT_SCENARIOS:
                continue
            for rate in rates:
                for name, binary in binaries:
                    runs = run_all(a.jobs, lambda s: run_one(name, binary, scenario, s, rate, soft, work, world_of(a)),
                                   seeds)
                    wrong += wrong_lines(runs)
                    r = row_of(runs)
                    if r is None:
                        print(f"| {scenario} | {soft} | {rate} | {name} | n/a | | | | | | |")
                    else:
                        print(f"| {scenario} | {soft} | {rate} | {name} | {r['trusted']} | {r['3d']} | {r['off']} | "
                              f"{r['after']} | {r['steady']} | {r['wrong']} | {r['est']} |")
                    sys.stdout.flush()
    print(f"soft iron: " + "; ".join(f"{k} = {v}" for k, v in SOFT_IRON.items() if v))
    print_wrong(a, wrong)


def print_wrong(a, wrong):
    if a.wrong:
        print(f"\nmedium/high samples more than {WRONG_DEG:.0f} degrees off, by episode:")
        print("\n".join(wrong) if wrong else "none")


if __name__ == "__main__":
    main()
