#!/usr/bin/env python3
"""System benchmark of the host TV; see bench/system_bench.sh for the options.

The outer process checks the build, measures the binaries, starts one sandbox per run and prints
the medians; inside a sandbox (--one-run) it runs the TV once. The jobs live in sysbench/."""

import argparse
import json
import os
import sys

sys.dont_write_bytecode = True  # nothing left in the source tree

from sysbench import binaries, report, sandbox  # noqa: E402


def parse_args():
    parser = argparse.ArgumentParser(description="System benchmark of the host TV")
    parser.add_argument("--build-dir", default=os.path.join(sandbox.SOURCE_DIR, "build"))
    parser.add_argument("--runs", type=int)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--build", action="store_true")
    parser.add_argument("--explain", action="store_true")
    parser.add_argument("--source")
    parser.add_argument("--json")
    parser.add_argument("--one-run", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--recognition-seconds", type=float, help=argparse.SUPPRESS)
    parser.add_argument("--parked-seconds", type=float, help=argparse.SUPPRESS)
    args = parser.parse_args()
    args.build_dir = os.path.realpath(args.build_dir)
    if args.recognition_seconds is None:
        args.recognition_seconds = 12.0 if args.quick else 60.0
    if args.parked_seconds is None:
        args.parked_seconds = 6.0 if args.quick else 30.0
    if args.runs is None:
        args.runs = 1 if args.quick else 3
    if args.source:
        args.source = os.path.realpath(args.source)
    return args


def main():
    args = parse_args()
    if args.one_run:
        print(json.dumps(sandbox.one_run(args)))
        return
    sandbox.check_build(args)
    # A freshly linked binary's page-cache pages stay dirty until written back, and smaps counts
    # them as the daemon's private dirty memory.
    os.sync()
    daemon = os.path.join(args.build_dir, "bin", "ai_manager")
    sizes = binaries.binary_sizes(daemon)
    service_sizes = binaries.binary_sizes(os.path.join(args.build_dir, "bin", "ai_service"))
    runs = sandbox.run_all(args, os.path.abspath(__file__))
    report.print_table(runs, sizes, service_sizes, args)
    if args.explain:
        report.print_explanation(runs[-1], daemon)
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"binary": sizes, "service_binary": service_sizes, "runs": runs}, f, indent=1)


if __name__ == "__main__":
    main()
