"""One run of the host TV inside a fresh sandbox, and the outer loop that starts those runs.

Inside a sandbox (--one-run) the run prints its figures as JSON on the last line of stdout;
progress goes to stderr."""

import json
import os
import random
import re
import signal
import subprocess
import sys
import time

from . import logs
from . import sampling

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SANDBOX = os.path.join(SOURCE_DIR, "scripts", "sandbox.sh")
BINARIES = ("ai_manager", "ai_service", "tvctl")

WORK = "/var/run/aipq_bench"
TV_DIR = "/var/run/aipq_tv"
BIZREADY = "/var/run/BIZREADY2"


def log(msg):
    print(msg, file=sys.stderr, flush=True)


def wait_for(predicate, timeout, step=0.02):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = predicate()
        if value:
            return value
        time.sleep(step)
    return None


def wait_logged(reader, ref, match, timeout, step=0.02):
    """Time of the first log line that matches, waited for; ref None reads times near now."""
    return wait_for(lambda: logs.first_time(reader.records(time.time() if ref is None else ref), match),
                    timeout, step)


def check_build(args):
    """Builds when asked, refuses a tree without the binaries, warns where the figures would
    not be those of a release build on a settled machine."""
    if args.build:
        subprocess.run(["cmake", "--build", args.build_dir, "--target", *BINARIES], check=True)
    for b in BINARIES:
        if not os.access(os.path.join(args.build_dir, "bin", b), os.X_OK):
            sys.exit(f"missing {args.build_dir}/bin/{b}: build it, or pass --build")
    cache = sampling.read_first(os.path.join(args.build_dir, "CMakeCache.txt"))
    build_type = re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache, re.M)
    sanitizer = re.search(r"^AIPQ_SANITIZER:\w+=(.*)$", cache, re.M)
    if build_type and build_type.group(1) not in ("Release", "RelWithDebInfo", "MinSizeRel"):
        log(f"warning: {args.build_dir} is a {build_type.group(1)} build; the budgets are for a release build")
    if sanitizer and sanitizer.group(1):
        log(f"warning: {args.build_dir} is built with the {sanitizer.group(1)} sanitizer")
    with open("/proc/uptime") as f:
        if float(f.read().split()[0]) < 40:
            log("warning: the machine has been up less than 40 s; the daemon's 30 s uptime floor "
                "will show in the readiness figure")


def run_all(args, entry):
    """args.runs runs, each in its own sandbox re-entering `entry` with --one-run."""
    runs = []
    for i in range(args.runs):
        log(f"run {i + 1}/{args.runs}: about {args.recognition_seconds + args.parked_seconds + 12:.0f} s ...")
        cmd = [SANDBOX, sys.executable, entry, "--one-run", "--build-dir", args.build_dir,
               "--recognition-seconds", str(args.recognition_seconds),
               "--parked-seconds", str(args.parked_seconds)]
        if args.explain and i == args.runs - 1:
            cmd.append("--explain")
        if args.source:
            cmd += ["--source", args.source]
        done = subprocess.run(cmd, stdout=subprocess.PIPE, text=True)
        lines = done.stdout.strip().splitlines()
        if done.returncode != 0 or not lines:
            sys.exit(f"run {i + 1} failed (exit status {done.returncode})")
        runs.append(json.loads(lines[-1]))
    return runs


def one_run(args):
    if not os.environ.get("AIPQ_SANDBOXED"):
        sys.exit("--one-run runs inside scripts/sandbox.sh only")
    os.makedirs(WORK, exist_ok=True)
    binary = os.path.join(args.build_dir, "bin")
    env = dict(os.environ, AIPQ_TV_DIR=TV_DIR)
    env.pop("AIPQ_CAPTURE_SOURCE", None)
    env.pop("AIPQ_TIME_SCALE", None)
    env.pop("AIPQ_LOG_LEVEL", None)  # the markers below are lines of the default level
    daemon_log = os.path.join(WORK, "ai_manager.log")
    trace = os.path.join(WORK, "ai_service.trace")
    result = {"loadavg_start": sampling.loadavg()}
    reader = logs.LogReader(daemon_log)

    subprocess.run([os.path.join(binary, "tvctl"), "preset", "watching"], env=env, check=True,
                   stdout=subprocess.DEVNULL)
    procs = []
    try:
        with open(os.path.join(WORK, "ai_service.log"), "w") as service_out:
            service = subprocess.Popen([os.path.join(binary, "ai_service"), "--trace", trace], env=env,
                                       stdout=service_out, stderr=subprocess.STDOUT)
        procs.append(service)
        daemon_env = dict(env, AIPQ_LOG_FILE=daemon_log)
        if args.source:
            daemon_env["AIPQ_CAPTURE_SOURCE"] = args.source
        with open(os.path.join(WORK, "ai_manager.out"), "w") as daemon_out:
            daemon = subprocess.Popen([os.path.join(binary, "ai_manager")], env=daemon_env,
                                      stdin=subprocess.DEVNULL, stdout=daemon_out, stderr=subprocess.STDOUT)
        procs.append(daemon)

        # Readiness: the daemon is already polling for the marker when it appears, as on a TV
        # where it starts before the business layer.
        if not wait_logged(reader, None, lambda text: logs.is_enter(text, "wait_for_bizready"), 10):
            raise RuntimeError("the daemon never reached its readiness wait")
        time.sleep(0.4 + random.random() * 0.2)
        before = time.time()
        with open(BIZREADY, "w"):
            pass
        touched = (before + time.time()) / 2

        wired_at = wait_logged(reader, touched, lambda text: logs.is_enter(text, "handleAIPQSupported"), 10)
        if wired_at is None:
            raise RuntimeError("the controller was never wired")
        result["readiness_ms"] = (wired_at - touched) * 1000.0
        # Split at the first line after the readiness wait returns: the framework's proxies.
        noticed = logs.first_time(reader.records(touched), lambda text: "business proxy started" in text)
        if noticed is not None:
            result["readiness_poll_ms"] = (noticed - touched) * 1000.0
            result["readiness_build_ms"] = (wired_at - noticed) * 1000.0

        # Cold start: the service's trace has monotonic times; the log has wall-clock times.
        row_at = wait_logged(reader, touched, lambda text: "PQ parameters applied:" in text, 30, step=0.05)
        if row_at is None:
            raise RuntimeError("no PQ row was applied within 30 s of start-up")
        wall_minus_mono = sampling.wall_minus_monotonic()
        command_at, result["first_command"] = logs.first_trace_command(trace)
        result["cold_start_ms"] = (row_at - (command_at + wall_minus_mono)) * 1000.0

        # Normal recognition, warm: counters over the window, memory at its end.
        time.sleep(0.5)
        d0, s0 = sampling.sample(daemon.pid), sampling.sample(service.pid)
        window_start = time.time()
        time.sleep(args.recognition_seconds)
        d1, s1 = sampling.sample(daemon.pid), sampling.sample(service.pid)
        window_end = time.time()
        result["recognition"] = {"daemon": sampling.delta(d0, d1), "service": sampling.delta(s0, s1)}
        result["memory"] = {"daemon": sampling.smaps_rollup(daemon.pid),
                            "service": sampling.smaps_rollup(service.pid)}
        if args.explain:
            result["daemon_mappings"] = sampling.smaps_mappings(daemon.pid)
            result["daemon_pid_maps_libs"] = sorted({m["name"] for m in result["daemon_mappings"]
                                                     if m["name"].startswith("/")})
        result.update(logs.cycles(reader.records(touched), window_start, window_end))

        # Parked: AIPQ switched off, the worker ends its period wait and parks in the untimed
        # AIPQ gate. Measured once the log has been quiet for a while.
        switched = time.time()
        subprocess.run([os.path.join(binary, "tvctl"), "set", "aipq_switch", "0"], env=env, check=True,
                       stdout=subprocess.DEVNULL)
        quiet = {"size": -1, "since": time.monotonic()}

        def parked():
            recs = reader.records(switched)
            gate = [r for r in recs if r[0] >= switched - 0.002 and logs.is_enter(r[2], "waitAIPQEnable")]
            if not gate or os.path.getsize(daemon_log) != quiet["size"]:
                quiet["size"] = os.path.getsize(daemon_log)
                quiet["since"] = time.monotonic()
                return False
            return time.monotonic() - quiet["since"] >= 1.5

        if not wait_for(parked, 20, step=0.1):
            raise RuntimeError("the worker did not park in the AIPQ gate")
        d0, s0 = sampling.sample(daemon.pid), sampling.sample(service.pid)
        log_size = os.path.getsize(daemon_log)
        time.sleep(args.parked_seconds)
        d1, s1 = sampling.sample(daemon.pid), sampling.sample(service.pid)
        result["parked"] = {"daemon": sampling.delta(d0, d1), "service": sampling.delta(s0, s1),
                            "log_bytes": os.path.getsize(daemon_log) - log_size}
        result["thread_roles"] = logs.thread_roles(reader.records(touched), daemon.pid,
                                                   sampling.thread_wchans(daemon.pid))
        result["loadavg_end"] = sampling.loadavg()
    except Exception:
        # The sandbox takes the logs with it: show their ends before it goes.
        for name in ("ai_manager.log", "ai_manager.out", "ai_service.log"):
            tail = sampling.read_first(os.path.join(WORK, name)).splitlines()[-15:]
            log(f"--- last lines of {name}:\n" + "\n".join(tail))
        raise
    finally:
        for p in reversed(procs):
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
        for p in reversed(procs):
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
    return result
