#!/usr/bin/env python3
"""The kit's calibration goals on the virtual phone: runs the compass service demo over
a matrix of scenarios, soft-iron settings, seeds and rates (each run --fresh in a
sandbox of its own, with --summary-json and --outputs), and prints one table row per
scenario, soft iron and rate.

Usage: scripts/goals.py [--binary B] [--base B0] [--seeds 1-5] [--rates 10,50]
                        [--scenarios default,slow,...] [--soft-iron all|none] [--work DIR]

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


def wrap(d):
    d = math.fmod(d, 360.0)
    if d > 180:
        d -= 360
    if d < -180:
        d += 360
    return d


def run_one(binary, scenario, seed, rate, soft, work):
    tag = f"{os.path.basename(os.path.dirname(os.path.dirname(binary)))}-{scenario}-{seed}-{rate}-{soft}"
    sandbox = os.path.join(work, "sb-" + tag)
    js, outs = os.path.join(work, tag + ".json"), os.path.join(work, tag + ".csv")
    cmd = [binary, "--scenario", scenario, "--seed", str(seed), "--rate", str(rate), "--fresh", "--quiet",
           "--sandbox", sandbox, "--summary-json", js, "--outputs", outs]
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
    with open(outs) as f:
        for row in csv.DictReader(f):
            if first is None or int(row["time_us"]) < first * 1e6 - 1:
                continue
            if row["rotation_rc"] != "0":
                continue
            e = wrap(float(row["azimuth"]) - float(row["true_azimuth"]))
            after_sq += e * e
            after_n += 1
    summary["_after"] = (after_sq, after_n)
    return summary


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
    a = ap.parse_args()
    lo, _, hi = a.seeds.partition("-")
    seeds = list(range(int(lo), int(hi or lo) + 1))
    rates = [int(r) for r in a.rates.split(",")]
    softs = ["none"] + ([k for k in SOFT_IRON if k != "none"] if a.soft_iron == "all" else
                        [] if a.soft_iron == "none" else a.soft_iron.split(","))
    work = a.work or tempfile.mkdtemp(prefix="kmxc-goals-")
    os.makedirs(work, exist_ok=True)
    for name, path in [("--binary", a.binary)] + ([("--base", a.base)] if a.base else []):
        if not os.access(path, os.X_OK):
            sys.exit(f"goals.py: {name} {path}: no such program (build it first)")
    binaries = [("after", os.path.abspath(a.binary))] + ([("before", os.path.abspath(a.base))] if a.base else [])
    print("| scenario | soft iron | Hz | build | first medium/high s | first 3-D s | offset err uT | RMS after "
          "dbl | held steady int / dbl | wrong | estimator / cells |")
    print("|---|---|---|---|---|---|---|---|---|---|---|")
    for scenario in a.scenarios.split(","):
        for soft in softs:
            if soft != "none" and scenario not in SOFT_SCENARIOS:
                continue
            for rate in rates:
                for name, binary in binaries:
                    runs = [run_one(binary, scenario, s, rate, soft, work) for s in seeds]
                    r = row_of(runs)
                    if r is None:
                        print(f"| {scenario} | {soft} | {rate} | {name} | n/a | | | | | | |")
                    else:
                        print(f"| {scenario} | {soft} | {rate} | {name} | {r['trusted']} | {r['3d']} | {r['off']} | "
                              f"{r['after']} | {r['steady']} | {r['wrong']} | {r['est']} |")
                    sys.stdout.flush()
    print(f"soft iron: " + "; ".join(f"{k} = {v}" for k, v in SOFT_IRON.items() if v))


if __name__ == "__main__":
    main()
