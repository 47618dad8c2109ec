#!/usr/bin/env python3
"""System benchmark of the host TV; see bench/system_bench.sh for the options.

The outer process checks the build, measures the binary, starts one sandbox per run and prints
the medians. Inside a sandbox (--one-run) it runs the TV once and prints its figures as JSON on
the last line of stdout; progress goes to stderr.
"""

import argparse
import json
import os
import random
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SANDBOX = os.path.join(SOURCE_DIR, "scripts", "sandbox.sh")
BINARIES = ("ai_manager", "ai_service", "tvctl")

WORK = "/var/run/aipq_bench"
TV_DIR = "/var/run/aipq_tv"
BIZREADY = "/var/run/BIZREADY2"

LINE = re.compile(r"^(\d\d):(\d\d):(\d\d)\.(\d{3}) \[(\d+)\] (.*)$")
CLK_TCK = os.sysconf("SC_CLK_TCK")


def log(msg):
    print(msg, file=sys.stderr, flush=True)


# ---------------------------------------------------------------- inside the sandbox


class LogReader:
    """The daemon's log as (wall time, tid, text) records; the log has local wall-clock times
    with ms resolution, turned into epoch seconds near a reference time."""

    def __init__(self, path):
        self.path = path

    def records(self, ref):
        lt = time.localtime(ref)
        midnight = time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, 0, 0, 0, 0, 0, -1))
        out = []
        try:
            with open(self.path, errors="replace") as f:
                for raw in f:
                    m = LINE.match(raw.rstrip("\n"))
                    if not m:
                        continue
                    h, mi, s, ms, tid, text = m.groups()
                    t = midnight + int(h) * 3600 + int(mi) * 60 + int(s) + int(ms) / 1000.0
                    if t - ref > 43200:
                        t -= 86400
                    elif ref - t > 43200:
                        t += 86400
                    out.append((t, int(tid), text))
        except FileNotFoundError:
            pass
        return out


def is_enter(text, function):
    return (function + "(): ") in text and text.rstrip().endswith("ENTER")


def wait_for(predicate, timeout, step=0.02):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = predicate()
        if value:
            return value
        time.sleep(step)
    return None


def tasks(pid):
    try:
        return sorted(int(t) for t in os.listdir(f"/proc/{pid}/task"))
    except FileNotFoundError:
        return []


def read_first(path, default=""):
    try:
        with open(path) as f:
            return f.read()
    except (FileNotFoundError, ProcessLookupError, PermissionError):
        return default


def sample(pid):
    """CPU and wake-up counters of a process: whole-process utime+stime (includes threads that
    have ended), on-CPU nanoseconds and context switches per live thread."""
    stat = read_first(f"/proc/{pid}/stat")
    fields = stat[stat.rfind(")") + 2:].split() if stat else []
    ticks = int(fields[11]) + int(fields[12]) if len(fields) > 12 else 0
    threads = {}
    for tid in tasks(pid):
        status = read_first(f"/proc/{pid}/task/{tid}/status")
        vol = re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.M)
        nonvol = re.search(r"^nonvoluntary_ctxt_switches:\s+(\d+)", status, re.M)
        sched = read_first(f"/proc/{pid}/task/{tid}/schedstat", "0 0 0").split()
        threads[tid] = {
            "ctx": (int(vol.group(1)) if vol else 0) + (int(nonvol.group(1)) if nonvol else 0),
            "ns": int(sched[0]) if sched else 0,
        }
    return {"t": time.monotonic(), "ticks": ticks, "threads": threads}


def delta(a, b):
    common = set(a["threads"]) & set(b["threads"])
    per_thread = {tid: b["threads"][tid]["ctx"] - a["threads"][tid]["ctx"] for tid in common}
    return {
        "seconds": b["t"] - a["t"],
        "cpu_ms_ticks": (b["ticks"] - a["ticks"]) * 1000.0 / CLK_TCK,
        "cpu_ms": sum(b["threads"][t]["ns"] - a["threads"][t]["ns"] for t in common) / 1e6,
        "ctx": sum(per_thread.values()),
        "ctx_by_thread": {str(t): c for t, c in sorted(per_thread.items())},
        "threads_changed": set(a["threads"]) != set(b["threads"]),
    }


def smaps_rollup(pid):
    text = read_first(f"/proc/{pid}/smaps_rollup")
    values = {}
    for key in ("Rss", "Pss", "Private_Clean", "Private_Dirty", "Shared_Clean", "Shared_Dirty", "Anonymous"):
        m = re.search(rf"^{key}:\s+(\d+) kB", text, re.M)
        values[key] = int(m.group(1)) if m else None
    if values["Private_Clean"] is not None and values["Private_Dirty"] is not None:
        values["Private"] = values["Private_Clean"] + values["Private_Dirty"]
    return values


def smaps_mappings(pid):
    """Per mapping: name, size, Rss, Private_Clean, Private_Dirty (kB)."""
    maps = []
    current = None
    header = re.compile(r"^([0-9a-f]+)-([0-9a-f]+) (\S+) \S+ \S+ \S+\s*(.*)$")
    for raw in read_first(f"/proc/{pid}/smaps").splitlines():
        m = header.match(raw)
        if m:
            current = {"name": m.group(4) or "[anon]", "perms": m.group(3), "Size": 0, "Rss": 0,
                       "Private_Clean": 0, "Private_Dirty": 0}
            maps.append(current)
            continue
        key, _, rest = raw.partition(":")
        if current is not None and key in current and key not in ("name", "perms"):
            current[key] = int(rest.split()[0])
    return maps


def thread_roles(records, pid):
    roles = {str(pid): "main"}
    # Threads that never log are named by where they sleep.
    for tid in tasks(pid):
        wchan = read_first(f"/proc/{pid}/task/{tid}/wchan").strip()
        if str(tid) == str(pid) or not wchan or wchan == "0":
            continue
        if "sigtimedwait" in wchan:
            roles[str(tid)] = "thread in sigwait (signal watcher)"
        elif "poll" in wchan:
            roles[str(tid)] = "thread in poll (tv-directory watcher)"
        else:
            roles[str(tid)] = f"thread in {wchan}"
    for _, tid, text in records:
        key = str(tid)
        if key in roles and not roles[key].startswith("thread in"):
            continue
        if "recognitionProcess(" in text or "waitAIPQEnable(" in text or "handleAIRecognition(" in text:
            roles[key] = "worker"
        elif "create thread to send message queue" in text or "mq_send" in text:
            roles[key] = "ai service sender"
        elif "aipqEnable:" in text or "handlePlayerStateChanged" in text or "playerState:" in text:
            roles[key] = "tv state watcher"
    return roles


def one_run(args):
    os.makedirs(WORK, exist_ok=True)
    binary = os.path.join(args.build_dir, "bin")
    env = dict(os.environ, AIPQ_TV_DIR=TV_DIR)
    env.pop("AIPQ_CAPTURE_SOURCE", None)
    env.pop("AIPQ_TIME_SCALE", None)
    env.pop("AIPQ_LOG_LEVEL", None)  # the markers below are lines of the default level
    daemon_log = os.path.join(WORK, "ai_manager.log")
    trace = os.path.join(WORK, "ai_service.trace")
    result = {"loadavg_start": read_first("/proc/loadavg").split()[:3]}
    reader = LogReader(daemon_log)

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
        if not wait_for(lambda: any(is_enter(r[2], "wait_for_bizready") for r in reader.records(time.time())), 10):
            raise RuntimeError("the daemon never reached its readiness wait")
        time.sleep(0.4 + random.random() * 0.2)
        before = time.time()
        with open(BIZREADY, "w"):
            pass
        touched = (before + time.time()) / 2

        def wired():
            for t, _, text in reader.records(touched):
                if is_enter(text, "handleAIPQSupported"):
                    return t
            return None

        wired_at = wait_for(wired, 10)
        if wired_at is None:
            raise RuntimeError("the controller was never wired")
        result["readiness_ms"] = (wired_at - touched) * 1000.0
        # Split at the first line after the readiness wait returns: the framework's proxies.
        noticed = next((t for t, _, text in reader.records(touched) if "business proxy started" in text), None)
        if noticed is not None:
            result["readiness_poll_ms"] = (noticed - touched) * 1000.0
            result["readiness_build_ms"] = (wired_at - noticed) * 1000.0

        # Cold start: the service's trace has monotonic times; the log has wall-clock times.
        def first_row():
            for t, _, text in reader.records(touched):
                if "PQ parameters applied:" in text:
                    return t
            return None

        row_at = wait_for(first_row, 30, step=0.05)
        if row_at is None:
            raise RuntimeError("no PQ row was applied within 30 s of start-up")
        offsets = []
        for _ in range(5):
            a = time.time()
            m = time.monotonic()
            b = time.time()
            offsets.append(((a + b) / 2 - m, b - a))
        wall_minus_mono = min(offsets, key=lambda o: o[1])[0]
        with open(trace) as f:
            first_command = f.readline().split()
        result["first_command"] = first_command[1]
        result["cold_start_ms"] = (row_at - (float(first_command[0]) + wall_minus_mono)) * 1000.0

        # Normal recognition, warm: counters over the window, memory at its end.
        time.sleep(0.5)
        d0, s0 = sample(daemon.pid), sample(service.pid)
        window_start = time.time()
        time.sleep(args.recognition_seconds)
        d1, s1 = sample(daemon.pid), sample(service.pid)
        window_end = time.time()
        result["recognition"] = {"daemon": delta(d0, d1), "service": delta(s0, s1)}
        result["memory"] = {"daemon": smaps_rollup(daemon.pid), "service": smaps_rollup(service.pid)}
        if args.explain:
            result["daemon_mappings"] = smaps_mappings(daemon.pid)
            result["daemon_pid_maps_libs"] = sorted({m["name"] for m in result["daemon_mappings"]
                                                     if m["name"].startswith("/")})

        # Cycle latency: end of getPicture to the platform's setVideoPQParameters returning
        # (its "applied" line is its last act), same worker thread, warm cycles only.
        records = reader.records(touched)
        latencies, cycles, cycles_in_window, unapplied = [], 0, 0, 0
        open_cycle = None
        for t, tid, text in records:
            if "getPicture, ret: 1." in text:
                if open_cycle is not None:
                    unapplied += 1
                cycles += 1
                open_cycle = (t, tid, cycles)
                if window_start <= t <= window_end:
                    cycles_in_window += 1
            elif "PQ parameters applied:" in text and open_cycle is not None and tid == open_cycle[1]:
                if open_cycle[2] > 1:
                    latencies.append((t - open_cycle[0]) * 1000.0)
                open_cycle = None
        result["cycle_latency_ms"] = latencies
        result["cycles"] = cycles
        result["cycles_in_window"] = cycles_in_window
        result["cycles_without_row"] = unapplied

        # Parked: AIPQ switched off, the worker ends its period wait and parks in the untimed
        # AIPQ gate. Measured once the log has been quiet for a while.
        switched = time.time()
        subprocess.run([os.path.join(binary, "tvctl"), "set", "aipq_switch", "0"], env=env, check=True,
                       stdout=subprocess.DEVNULL)

        def parked():
            recs = reader.records(switched)
            gate = [r for r in recs if r[0] >= switched - 0.002 and is_enter(r[2], "waitAIPQEnable")]
            if not gate or os.path.getsize(daemon_log) != parked.size:
                parked.size = os.path.getsize(daemon_log)
                parked.quiet_since = time.monotonic()
                return False
            return time.monotonic() - parked.quiet_since >= 1.5

        parked.size = -1
        parked.quiet_since = time.monotonic()
        if not wait_for(parked, 20, step=0.1):
            raise RuntimeError("the worker did not park in the AIPQ gate")
        d0, s0 = sample(daemon.pid), sample(service.pid)
        log_size = os.path.getsize(daemon_log)
        time.sleep(args.parked_seconds)
        d1, s1 = sample(daemon.pid), sample(service.pid)
        result["parked"] = {"daemon": delta(d0, d1), "service": delta(s0, s1),
                            "log_bytes": os.path.getsize(daemon_log) - log_size}
        result["thread_roles"] = thread_roles(reader.records(touched), daemon.pid)
        result["loadavg_end"] = read_first("/proc/loadavg").split()[:3]
    except Exception:
        # The sandbox takes the logs with it: show their ends before it goes.
        for name in ("ai_manager.log", "ai_manager.out", "ai_service.log"):
            tail = read_first(os.path.join(WORK, name)).splitlines()[-15:]
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


# ---------------------------------------------------------------- outside


def binary_sizes(path):
    with tempfile.TemporaryDirectory(prefix="aipq_bench_") as tmp:
        copy = os.path.join(tmp, os.path.basename(path))
        shutil.copyfile(path, copy)
        subprocess.run(["strip", "--strip-all", copy], check=True)
        size = subprocess.run(["size", "-A", copy], capture_output=True, text=True).stdout
        stripped = os.path.getsize(copy)
    needed = re.findall(r"NEEDED\s+(\S+)",
                        subprocess.run(["objdump", "-p", path], capture_output=True, text=True).stdout)
    ldd = subprocess.run(["ldd", path], capture_output=True, text=True).stdout
    loaded = [ln for ln in ldd.splitlines() if "=>" in ln or "ld-linux" in ln]
    sections = {}
    for ln in size.splitlines():
        parts = ln.split()
        if len(parts) >= 2 and parts[0].startswith(".") and parts[1].isdigit():
            sections[parts[0]] = int(parts[1])
    return {"file": os.path.getsize(path), "stripped": stripped, "needed": needed,
            "shared_libraries": len(loaded), "text": sections.get(".text", 0)}


def library_groups(daemon):
    """Which shared libraries each direct dependency of the daemon brings in."""
    def closure(lib_path):
        out = subprocess.run(["ldd", lib_path], capture_output=True, text=True).stdout
        libs = {os.path.realpath(p) for p in re.findall(r"=> (/\S+)", out)}
        libs.add(os.path.realpath(lib_path))
        return libs

    direct = {}
    for ln in subprocess.run(["ldd", daemon], capture_output=True, text=True).stdout.splitlines():
        m = re.match(r"\s*(\S+) => (/\S+)", ln)
        if m:
            direct[m.group(1)] = m.group(2)
    needed = re.findall(r"NEEDED\s+(\S+)",
                        subprocess.run(["objdump", "-p", daemon], capture_output=True, text=True).stdout)
    order = [("C/C++ runtime", lambda n: n.startswith(("libc.", "libstdc++", "libm.", "libgcc_s", "ld-linux"))),
             ("DirectFB (debug overlay)", lambda n: n.startswith("libdirectfb")),
             ("OpenCV (host capture)", lambda n: n.startswith("libopencv"))]
    groups = []
    seen = set()
    for title, match in order:
        members = set()
        for n in needed:
            if match(n) and n in direct:
                members |= closure(direct[n])
        members -= seen
        seen |= members
        groups.append((title, members))
    return groups


def median(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def fmt(value, unit="", digits=1):
    if value is None:
        return "n/a"
    return f"{value:.{digits}f}{unit}"


def kib(value):
    return "n/a" if value is None else f"{value:,} KiB ({value / 1024:.2f} MiB)"


def print_table(runs, sizes, service_sizes, args):
    n = len(runs)
    per_run_latency = [median(r["cycle_latency_ms"]) for r in runs]
    all_latency = [v for r in runs for v in r["cycle_latency_ms"]]
    rec = [r["recognition"] for r in runs]
    parked = [r["parked"] for r in runs]
    mem = [r["memory"] for r in runs]

    def pct(d):
        return d["cpu_ms"] / (d["seconds"] * 1000.0) * 100.0

    rows = []
    rows.append(("warm cycle latency (getPicture end -> setVideoPQParameters return)",
                 f"{fmt(median(per_run_latency), ' ms')}  (all {len(all_latency)} warm cycles: min "
                 f"{fmt(min(all_latency) if all_latency else None, ' ms')}, max "
                 f"{fmt(max(all_latency) if all_latency else None, ' ms')})", "< 60 ms"))
    rows.append(("cold start (first command on the queue -> first applied row)",
                 fmt(median([r["cold_start_ms"] for r in runs]), " ms"), "< 400 ms"))
    rows.append((f"parked, AIPQ off ({args.parked_seconds:g} s): daemon context switches",
                 f"{median([p['daemon']['ctx'] for p in parked]):g}  (per run: "
                 f"{', '.join(str(p['daemon']['ctx']) for p in parked)})", "0"))
    rows.append((f"parked: daemon CPU time",
                 fmt(median([p["daemon"]["cpu_ms"] for p in parked]), " ms", 2), ""))
    rows.append((f"parked: AI service CPU time / context switches",
                 f"{fmt(median([p['service']['cpu_ms'] for p in parked]), ' ms', 2)} / "
                 f"{median([p['service']['ctx'] for p in parked]):g}", ""))
    rows.append((f"recognising ({args.recognition_seconds:g} s): daemon CPU",
                 f"{fmt(median([pct(d['daemon']) for d in rec]), ' %', 3)} of a core "
                 f"({fmt(median([d['daemon']['cpu_ms'] for d in rec]), ' ms', 1)}), "
                 f"{median([d['daemon']['ctx'] for d in rec]):g} context switches", ""))
    rows.append(("recognising: AI service CPU",
                 f"{fmt(median([pct(d['service']) for d in rec]), ' %', 3)} of a core "
                 f"({fmt(median([d['service']['cpu_ms'] for d in rec]), ' ms', 1)}), "
                 f"{median([d['service']['ctx'] for d in rec]):g} context switches", ""))
    rows.append(("recognising: daemon + AI service CPU",
                 f"{fmt(median([pct(d['daemon']) + pct(d['service']) for d in rec]), ' %', 3)} of a core",
                 "< 0.5 %"))
    rows.append(("daemon memory while recognising, overlay off: Rss / Pss",
                 f"{kib(median([m['daemon']['Rss'] for m in mem]))} / {kib(median([m['daemon']['Pss'] for m in mem]))}",
                 "Rss < 4 MiB"))
    rows.append(("daemon private (Private_Clean + Private_Dirty) / of which dirty",
                 f"{kib(median([m['daemon']['Private'] for m in mem]))} / "
                 f"{kib(median([m['daemon']['Private_Dirty'] for m in mem]))}", "< 1 MiB"))
    rows.append(("AI service memory: Rss / Pss",
                 f"{kib(median([m['service']['Rss'] for m in mem]))} / {kib(median([m['service']['Pss'] for m in mem]))}",
                 ""))
    rows.append(("AI service private / of which dirty",
                 f"{kib(median([m['service']['Private'] for m in mem]))} / "
                 f"{kib(median([m['service']['Private_Dirty'] for m in mem]))}", ""))
    rows.append(("stripped daemon binary",
                 f"{sizes['stripped']:,} bytes ({sizes['stripped'] / 1024:.0f} KiB); "
                 f"{sizes['shared_libraries']} shared libraries loaded", ""))
    rows.append(("stripped AI service binary",
                 f"{service_sizes['stripped']:,} bytes ({service_sizes['stripped'] / 1024:.0f} KiB)", ""))
    rows.append(("readiness (BIZREADY2 appears -> controller wired)",
                 f"{fmt(median([r['readiness_ms'] for r in runs]), ' ms')}  (per run: "
                 f"{', '.join(fmt(r['readiness_ms'], ' ms') for r in runs)})", "< 100 ms"))
    rows.append(("readiness: marker noticed by the 100 ms poll / objects built and wired",
                 f"{fmt(median([r.get('readiness_poll_ms') for r in runs]), ' ms')} / "
                 f"{fmt(median([r.get('readiness_build_ms') for r in runs]), ' ms')}", ""))

    print()
    print(f"ai_manager system benchmark: {n} run(s), medians; build {args.build_dir}")
    print(f"machine: {os.cpu_count()} cores, load average at the runs' starts: "
          f"{'; '.join(' '.join(r['loadavg_start']) for r in runs)}")
    print()
    w1 = max(len(r[0]) for r in rows)
    w2 = max(len(r[1]) for r in rows)
    print(f"| {'figure'.ljust(w1)} | {'median'.ljust(w2)} | budget |")
    print(f"|{'-' * (w1 + 2)}|{'-' * (w2 + 2)}|--------|")
    for a, b, c in rows:
        print(f"| {a.ljust(w1)} | {b.ljust(w2)} | {c} |")
    print()
    cycles = [r["cycles_in_window"] for r in runs]
    print(f"cycles in each recognition window: {cycles}; warm cycles without an applied row: "
          f"{[r['cycles_without_row'] for r in runs]}; first command: {runs[0]['first_command']}")
    last = runs[-1]
    roles = last["thread_roles"]
    by_thread = ", ".join(f"{roles.get(t, 'tid ' + t)} {c}" for t, c in last["parked"]["daemon"]["ctx_by_thread"].items())
    print(f"parked, last run, context switches by daemon thread: {by_thread}; "
          f"log bytes written while parked: {last['parked']['log_bytes']}")
    by_thread = ", ".join(f"{roles.get(t, 'tid ' + t)} {c}"
                          for t, c in last["recognition"]["daemon"]["ctx_by_thread"].items())
    print(f"recognising, last run, context switches by daemon thread: {by_thread}")
    print(f"CPU from utime+stime (10 ms ticks) for comparison, recognising, daemon/service: "
          f"{median([d['daemon']['cpu_ms_ticks'] for d in rec]):g} / {median([d['service']['cpu_ms_ticks'] for d in rec]):g} ms")


def print_explanation(run, daemon):
    maps = run.get("daemon_mappings")
    if not maps:
        return
    groups = library_groups(daemon)
    daemon_real = os.path.realpath(daemon)

    def group_of(m):
        name = m["name"]
        if name.startswith("/"):
            real = os.path.realpath(name)
            if real == daemon_real:
                return "the daemon binary"
            for title, members in groups:
                if real in members:
                    return title
            return "other files"
        if name == "[heap]":
            return "[heap] (main malloc arena)"
        if name == "[stack]":
            return "[stack] (main thread)"
        if name == "[anon]" and m["Size"] == 8192 and m["perms"].startswith("rw"):
            return "thread stacks (8 MiB anonymous)"
        if name == "[anon]":
            return "other anonymous (thread malloc arenas, library data)"
        return name

    totals = {}
    per_lib = {}
    for m in maps:
        g = group_of(m)
        t = totals.setdefault(g, {"maps": 0, "Rss": 0, "Private_Clean": 0, "Private_Dirty": 0, "files": set()})
        t["maps"] += 1
        for k in ("Rss", "Private_Clean", "Private_Dirty"):
            t[k] += m[k]
        if m["name"].startswith("/"):
            t["files"].add(m["name"])
            lib = per_lib.setdefault(m["name"], {"Rss": 0, "Private_Dirty": 0, "Private_Clean": 0})
            for k in lib:
                lib[k] += m[k]
    print()
    print("where the daemon's memory sits (last run, while recognising; KiB):")
    print(f"| {'group'.ljust(52)} | files | Rss | Private_Clean | Private_Dirty |")
    print(f"|{'-' * 54}|-------|-----|---------------|---------------|")
    for g, t in sorted(totals.items(), key=lambda kv: -(kv[1]["Rss"])):
        print(f"| {g.ljust(52)} | {len(t['files'])} | {t['Rss']} | {t['Private_Clean']} | {t['Private_Dirty']} |")
    print()
    print("largest files by private dirty pages (relocated data, GOT, .bss):")
    for name, v in sorted(per_lib.items(), key=lambda kv: -kv[1]["Private_Dirty"])[:10]:
        print(f"  {v['Private_Dirty']:6d} dirty  {v['Rss']:6d} rss  {name}")
    print("largest files by resident pages:")
    for name, v in sorted(per_lib.items(), key=lambda kv: -kv[1]["Rss"])[:10]:
        print(f"  {v['Rss']:6d} rss  {v['Private_Clean']:6d} private clean  {name}")


def main():
    parser = argparse.ArgumentParser(description="System benchmark of the host TV")
    parser.add_argument("--build-dir", default=os.path.join(SOURCE_DIR, "build"))
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

    if args.one_run:
        if not os.environ.get("AIPQ_SANDBOXED"):
            sys.exit("--one-run runs inside scripts/sandbox.sh only")
        print(json.dumps(one_run(args)))
        return

    if args.build:
        subprocess.run(["cmake", "--build", args.build_dir, "--target", *BINARIES], check=True)
    for b in BINARIES:
        if not os.access(os.path.join(args.build_dir, "bin", b), os.X_OK):
            sys.exit(f"missing {args.build_dir}/bin/{b}: build it, or pass --build")
    cache = read_first(os.path.join(args.build_dir, "CMakeCache.txt"))
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

    # A freshly linked binary's page-cache pages stay dirty until written back, and smaps counts
    # them as the daemon's private dirty memory.
    os.sync()
    daemon = os.path.join(args.build_dir, "bin", "ai_manager")
    sizes = binary_sizes(daemon)
    service_sizes = binary_sizes(os.path.join(args.build_dir, "bin", "ai_service"))
    runs = []
    for i in range(args.runs):
        log(f"run {i + 1}/{args.runs}: about {args.recognition_seconds + args.parked_seconds + 12:.0f} s ...")
        cmd = [SANDBOX, sys.executable, os.path.abspath(__file__), "--one-run", "--build-dir", args.build_dir,
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
    print_table(runs, sizes, service_sizes, args)
    if args.explain:
        print_explanation(runs[-1], daemon)
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"binary": sizes, "service_binary": service_sizes, "runs": runs}, f, indent=1)


if __name__ == "__main__":
    main()
