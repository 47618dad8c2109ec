#!/usr/bin/env python3
"""Soak of the host TV; see bench/soak.sh for the options.

Outside the sandbox this checks the build and re-enters itself through scripts/sandbox.sh; inside,
it runs the TV through its scripted life, samples both processes every virtual minute, writes the
table, the samples and the plot, and judges the series."""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # nothing left in the source tree

from sysbench import sampling  # noqa: E402

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SANDBOX = os.path.join(SOURCE_DIR, "scripts", "sandbox.sh")
TV_DIR = "/var/run/aipq_tv"
BIZREADY = "/var/run/BIZREADY2"
QUEUE = "/run/mqueue/ai_service_message_queue"  # the sandbox mounts its queues there
SEGMENT_KEY = "72314"
MEMINFO = "/run/aipq_soak_meminfo"

# MemAvailable as the daemon's memory gate reads it: enough, limited (30 s period), lacking (parked),
# whether or not a model is loaded.
MEMORY = {"plenty": 4000000, "limited": 60, "lacking": 10}

# One virtual hour of the TV's life, repeated: (minute, what happens). Every hour starts from the
# same state, so that any two hours can be compared; minutes 55 to 59 are the steady window the
# verdicts read.
WATCHING = ["aipq_supported", "1", "aipq_switch", "1", "aipq_available", "1", "source_type", "2",
            "player_state", "2", "hdr_type", "1", "game_mode", "0", "encrypted_source1", "0",
            "encrypted_source6or9", "0", "power_state", "0"]
LIFE = [
    (0, "watching, every gate open", ("tv", WATCHING), ("memory", "plenty")),
    (4, "AIPQ switched off", ("tv", ["aipq_switch", "0"])),
    (6, "AIPQ switched on", ("tv", ["aipq_switch", "1"])),
    (8, "AIPQ unavailable", ("tv", ["aipq_available", "0"])),
    (10, "AIPQ available", ("tv", ["aipq_available", "1"])),
    (12, "game mode on", ("tv", ["game_mode", "1"])),
    (14, "game mode off", ("tv", ["game_mode", "0"])),
    (16, "HDR type not permitted", ("tv", ["hdr_type", "2"])),
    (18, "HDR type permitted", ("tv", ["hdr_type", "1"])),
    (20, "source 1, encrypted", ("tv", ["source_type", "1", "encrypted_source1", "1"])),
    (22, "source 1 clear, back to source 2", ("tv", ["encrypted_source1", "0", "source_type", "2"])),
    (24, "source 6, encrypted", ("tv", ["source_type", "6", "encrypted_source6or9", "1"])),
    (26, "source 6 clear, back to source 2", ("tv", ["encrypted_source6or9", "0", "source_type", "2"])),
    (28, "player stopped", ("tv", ["player_state", "0"])),
    (30, "player playing", ("tv", ["player_state", "2"])),
    (32, "no input source", ("tv", ["source_type", "0"])),
    (33, "source 2, playing", ("tv", ["source_type", "2", "player_state", "2"])),
    (35, "power state 8", ("tv", ["power_state", "8"])),
    (36, "power state 0", ("tv", ["power_state", "0"])),
    (38, "AI service killed (SIGKILL)", ("service", "kill")),
    (40, "AI service started", ("service", "start")),
    (42, "queue unlinked, AI service restarted", ("queue", None), ("service", "restart")),
    (45, "segment removed (ipcrm -M)", ("segment", None)),
    (48, "memory limited", ("memory", "limited")),
    (51, "memory lacking", ("memory", "lacking")),
    (54, "memory plenty", ("memory", "plenty")),
]
STEADY = range(55, 60)

# Noise: resident and private dirty memory of the last hour's steady window may exceed the first
# hour's by this fraction (plus two pages); descriptors and threads must match exactly; the log may
# grow this much faster per hour (cycles shift against the script's minutes by a few percent).
# Pss is shown, not judged: it moves with whatever else maps the same libraries.
MEMORY_NOISE = 0.03
LOG_NOISE = 0.10
SERIES = ("rss", "pss", "private", "fds", "threads", "log")


def log(msg):
    print(msg, file=sys.stderr, flush=True)


def parse_args():
    p = argparse.ArgumentParser(description="Soak of the host TV")
    p.add_argument("--build-dir", default=os.path.join(SOURCE_DIR, "build"))
    p.add_argument("--hours", type=int, default=24, help="virtual hours (at least 2)")
    p.add_argument("--scale", type=float, default=60.0, help="AIPQ_TIME_SCALE")
    p.add_argument("--out", help="results directory (default BUILD_DIR/soak)")
    p.add_argument("--source", help="AIPQ_CAPTURE_SOURCE for the daemon (default: built-in scenes)")
    p.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    args = p.parse_args()
    args.build_dir = os.path.realpath(args.build_dir)
    args.out = os.path.realpath(args.out or os.path.join(args.build_dir, "soak"))
    if args.source:
        args.source = os.path.realpath(args.source)
    if args.hours < 2:
        p.error("--hours must be at least 2: the first and the last hour are compared")
    return args


class Tv:
    """The daemon, the AI service and the TV around them, inside the sandbox."""

    def __init__(self, args):
        self.args = args
        self.bin = os.path.join(args.build_dir, "bin")
        self.env = dict(os.environ, AIPQ_TV_DIR=TV_DIR, AIPQ_TIME_SCALE=str(args.scale))
        for name in ("AIPQ_CAPTURE_SOURCE", "AIPQ_LOG_LEVEL", "AIPQ_LOG_FILE"):
            self.env.pop(name, None)
        self.daemon_log = os.path.join(args.out, "ai_manager.log")
        self.service_log = os.path.join(args.out, "ai_service.log")
        self.daemon = None
        self.service = None
        self.service_starts = 0

    def tv(self, values):
        subprocess.run([os.path.join(self.bin, "tvctl"), "set", *values], env=self.env, check=True,
                       stdout=subprocess.DEVNULL)

    def memory(self, level):
        # Written in place: the bind mount holds this inode.
        text = re.sub(r"^MemAvailable:\s+\d+", f"MemAvailable: {MEMORY[level]:>8}", self.meminfo, flags=re.M)
        with open(MEMINFO, "w") as f:
            f.write(text)

    def service_action(self, what):
        if what in ("kill", "restart") and self.service is not None:
            self.service.send_signal(signal.SIGKILL if what == "kill" else signal.SIGTERM)
            status = self.service.wait(timeout=10)
            if what == "restart" and status != 0:
                raise RuntimeError(f"the AI service ended with status {status} on SIGTERM")
            self.service = None
        if what in ("start", "restart"):
            with open(self.service_log, "a") as out:
                self.service = subprocess.Popen([os.path.join(self.bin, "ai_service")], env=self.env,
                                                stdout=out, stderr=subprocess.STDOUT)
            self.service_starts += 1

    def act(self, action):
        kind, arg = action
        if kind == "tv":
            self.tv(arg)
        elif kind == "memory":
            self.memory(arg)
        elif kind == "service":
            self.service_action(arg)
        elif kind == "queue":
            os.unlink(QUEUE)  # absent would be a finding: the daemon and the service both use it
        elif kind == "segment":
            subprocess.run(["ipcrm", "-M", SEGMENT_KEY], check=True)

    def start(self):
        with open("/proc/meminfo") as f:
            self.meminfo = f.read()
        self.memory("plenty")
        subprocess.run(["mount", "--bind", MEMINFO, "/proc/meminfo"], check=True)
        self.tv(WATCHING)
        self.service_action("start")
        env = dict(self.env, AIPQ_LOG_FILE=self.daemon_log)
        if self.args.source:
            env["AIPQ_CAPTURE_SOURCE"] = self.args.source
        with open(os.path.join(self.args.out, "ai_manager.out"), "w") as out:
            self.daemon = subprocess.Popen([os.path.join(self.bin, "ai_manager")], env=env,
                                           stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT)
        open(BIZREADY, "w").close()

    def stop(self):
        """SIGTERM to both; the daemon's exit status."""
        status = None
        for name in ("daemon", "service"):
            p = getattr(self, name)
            if p is None:
                continue
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
            try:
                code = p.wait(timeout=15)
            except subprocess.TimeoutExpired:
                p.kill()
                code = "still running 15 s after SIGTERM"
            if name == "daemon":
                status = code
        return status


def process_sample(pid, log_path):
    mem = sampling.smaps_rollup(pid)
    status = sampling.read_first(f"/proc/{pid}/status")
    threads = re.search(r"^Threads:\s+(\d+)", status, re.M)
    try:
        fds = len(os.listdir(f"/proc/{pid}/fd"))
    except FileNotFoundError:
        fds = None
    stat = sampling.read_first(f"/proc/{pid}/stat")
    fields = stat[stat.rfind(")") + 2:].split() if stat else []
    # Private dirty: pages the process wrote itself (heap, stacks, data). Its clean private pages
    # are library text that becomes shared whenever another process maps the same library.
    return {
        "rss": mem["Rss"], "pss": mem["Pss"], "private": mem["Private_Dirty"], "fds": fds,
        "threads": int(threads.group(1)) if threads else None,
        "cpu_ticks": int(fields[11]) + int(fields[12]) if len(fields) > 12 else None,
        "log_size": os.path.getsize(log_path) if os.path.exists(log_path) else 0,
    }


class Reader:
    """New lines of the daemon's log since the last call: rows applied."""

    def __init__(self, path):
        self.path = path
        self.offset = 0

    def rows(self):
        try:
            with open(self.path, "rb") as f:
                f.seek(self.offset)
                data = f.read()
        except FileNotFoundError:
            return 0
        end = data.rfind(b"\n") + 1  # a line still being written is read next time
        self.offset += end
        return data[:end].count(b"PQ parameters applied:")


def run(args):
    """The scripted life inside the sandbox; the samples, one per virtual minute."""
    tv = Tv(args)
    reader = Reader(tv.daemon_log)
    samples = []
    minute_s = 60.0 / args.scale
    last = {"daemon": None, "service": None}
    events = {m: (text, acts) for m, text, *acts in LIFE}
    tv.start()
    t0 = time.monotonic()
    try:
        for minute in range(args.hours * 60 + 1):
            delay = t0 + minute * minute_s - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            if tv.daemon.poll() is not None:
                raise RuntimeError(f"the daemon ended with status {tv.daemon.returncode} at virtual "
                                   f"minute {minute}")
            if tv.service is not None and tv.service.poll() is not None:
                raise RuntimeError(f"the AI service ended with status {tv.service.returncode} at virtual "
                                   f"minute {minute}")
            row = {"minute": minute, "hour": minute / 60.0, "rows": reader.rows(),
                   "late_ms": max(0.0, -delay) * 1000.0}
            for name, pid, path in (("daemon", tv.daemon.pid, tv.daemon_log),
                                    ("service", tv.service.pid if tv.service else None, tv.service_log)):
                s = process_sample(pid, path) if pid else {}
                prev = last[name]
                s["log"] = s["log_size"] - prev["log_size"] if prev and "log_size" in s else None
                same = prev is not None and prev.get("pid") == pid and s.get("cpu_ticks") is not None
                s["cpu_ms"] = (s["cpu_ticks"] - prev["cpu_ticks"]) * 1000.0 / sampling.CLK_TCK if same else None
                s["pid"] = pid
                if s.get("log_size") is not None:
                    last[name] = s
                row.update({f"{name}_{k}": v for k, v in s.items()})
            samples.append(row)
            if minute == args.hours * 60:
                break
            if minute % 60 in events:
                text, acts = events[minute % 60]
                for a in acts:
                    tv.act(a)
            if minute % 60 == 0:
                log(f"virtual hour {minute // 60 + 1}/{args.hours} "
                    f"(real {time.monotonic() - t0:.0f} s; daemon Rss {row['daemon_rss']} kB)")
    finally:
        status = tv.stop()
    return samples, status, tv.service_starts


# ---------------------------------------------------------------------------------------------
# Verdicts, table and plot


def steady(samples, hour, key):
    return [s[key] for s in samples if s["minute"] // 60 == hour and s["minute"] % 60 in STEADY
            and s.get(key) is not None]


def hourly(samples, hour, key):
    """Sum of a per-minute series over the hour: a sample counts the minute that it ends."""
    return sum(s.get(key) or 0 for s in samples if 60 * hour < s["minute"] <= 60 * (hour + 1))


def median(values):
    v = sorted(values)
    return v[len(v) // 2] if v else None


def verdicts(samples, hours):
    """(series, first, last, limit, ok) for every judged series: the first hour against the last."""
    first, last = 0, hours - 1
    out = []
    for proc in ("daemon", "service"):
        for key, name in (("rss", "Rss"), ("private", "private dirty")):
            a = median(steady(samples, first, f"{proc}_{key}"))
            b = median(steady(samples, last, f"{proc}_{key}"))
            limit = a * (1 + MEMORY_NOISE) + 8 if a is not None else None
            out.append((f"{proc} {name} (kB, steady median)", a, b, f"<= {limit:.0f}" if limit else "-",
                        a is not None and b is not None and b <= limit))
        for key in ("fds", "threads"):
            a, b = steady(samples, first, f"{proc}_{key}"), steady(samples, last, f"{proc}_{key}")
            out.append((f"{proc} {key} (steady min..max)", f"{min(a)}..{max(a)}" if a else None,
                        f"{min(b)}..{max(b)}" if b else None, "equal",
                        bool(a) and bool(b) and (min(a), max(a)) == (min(b), max(b))))
        a, b = hourly(samples, first, f"{proc}_log"), hourly(samples, last, f"{proc}_log")
        limit = a * (1 + LOG_NOISE)
        out.append((f"{proc} log (bytes per hour)", a, b, f"<= {limit:.0f}", b <= limit))
    rows = [hourly(samples, h, "rows") for h in range(hours)]
    out.append(("rows applied in every hour (min of hours)", rows[0], min(rows), "> 0", min(rows) > 0))
    return out


def write_table(path, samples, hours, args, extra):
    lines = [f"# Soak: {hours} virtual hours at AIPQ_TIME_SCALE={args.scale:g}, a sample every virtual minute",
             "", "| hour | daemon Rss / Pss / private dirty kB | fds | threads | log kB/h | rows/h | cpu s/h "
             "| service Rss / Pss / private dirty kB | fds | threads | log kB/h |",
             "|---:|---|---:|---:|---:|---:|---:|---|---:|---:|---:|"]
    for h in range(hours):
        def med(k):
            return median(steady(samples, h, k))

        def rng(k):
            v = steady(samples, h, k)
            return f"{min(v)}" if v and min(v) == max(v) else (f"{min(v)}..{max(v)}" if v else "-")
        cpu = hourly(samples, h, "daemon_cpu_ms") / 1000.0
        lines.append(f"| {h + 1} | {med('daemon_rss')} / {med('daemon_pss')} / {med('daemon_private')} "
                     f"| {rng('daemon_fds')} | {rng('daemon_threads')} "
                     f"| {hourly(samples, h, 'daemon_log') / 1024:.0f} | {hourly(samples, h, 'rows')} "
                     f"| {cpu:.1f} | {med('service_rss')} / {med('service_pss')} / {med('service_private')} "
                     f"| {rng('service_fds')} | {rng('service_threads')} "
                     f"| {hourly(samples, h, 'service_log') / 1024:.0f} |")
    lines += ["", "Memory, descriptors and threads: medians (ranges) over virtual minutes "
              f"{STEADY.start} to {STEADY.stop - 1} of each hour, the same state every hour.", ""]
    lines += extra
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
    return lines


def write_samples(path, samples):
    keys = ["minute", "hour", "rows", "late_ms"] + [f"{p}_{k}" for p in ("daemon", "service")
                                                   for k in ("pid", "rss", "pss", "private", "fds", "threads",
                                                             "log", "cpu_ms")]
    # Log growth over the virtual hour before each sample: per minute it only follows the script.
    for name in ("daemon_log", "service_log", "rows"):
        for i, s in enumerate(samples):
            s[f"{name}_hour"] = sum(x.get(name) or 0 for x in samples[i - 59:i + 1]) if i >= 60 else None
    keys += ["daemon_log_hour", "service_log_hour", "rows_hour"]
    with open(path, "w") as f:
        f.write("\t".join(keys) + "\n")
        for s in samples:
            f.write("\t".join("NaN" if s.get(k) is None else
                              (f"{s[k]:.4f}" if isinstance(s[k], float) else str(s[k])) for k in keys) + "\n")


def plot(tsv, png, title):
    if shutil.which("gnuplot") is None:
        log("gnuplot not found (scripts/setup.sh installs gnuplot-nox): no plot")
        return False
    script = f"""
set terminal pngcairo size 1400,1300 font ",10" noenhanced
set output "{png}"
set datafile separator "\\t"
set datafile missing "NaN"
set key outside right
set grid
set xlabel "virtual hours"
set lmargin at screen 0.07
set rmargin at screen 0.84
set multiplot layout 4,1 title "{title}"
set ylabel "daemon kB"
plot "{tsv}" using 2:6 with lines title "Rss", "" using 2:7 with lines title "Pss", \\
     "" using 2:8 with lines title "private dirty"
set ylabel "AI service kB"
plot "{tsv}" using 2:14 with lines title "Rss", "" using 2:15 with lines title "Pss", \\
     "" using 2:16 with lines title "private dirty"
set ylabel "count"
set yrange [0:*]
set offsets 0, 0, 1, 0
plot "{tsv}" using 2:9 with steps title "daemon fds", "" using 2:10 with steps title "daemon threads", \\
     "" using 2:17 with steps title "service fds", "" using 2:18 with steps title "service threads"
set ylabel "daemon log, kB in the hour before"
set y2label "AI service log, kB in the hour before"
set y2range [0:*]
set y2tics
plot "{tsv}" using 2:($21/1024) with lines title "daemon log", "" using 2:($22/1024) axes x1y2 \\
     with lines title "service log"
unset multiplot
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    return True


def inside(args):
    if not os.environ.get("AIPQ_SANDBOXED"):
        sys.exit("--inside runs inside scripts/sandbox.sh only")
    for name in ("ai_manager.log", "ai_service.log"):
        if os.path.exists(os.path.join(args.out, name)):
            os.remove(os.path.join(args.out, name))
    started = time.monotonic()
    try:
        samples, status, service_starts = run(args)
    except Exception as e:
        for name in ("ai_manager.log", "ai_manager.out", "ai_service.log"):
            tail = sampling.read_first(os.path.join(args.out, name)).splitlines()[-15:]
            log(f"--- last lines of {name}:\n" + "\n".join(tail))
        log(f"soak FAILED: {e}")
        return 1
    real_s = time.monotonic() - started
    tsv = os.path.join(args.out, "soak.tsv")
    write_samples(tsv, samples)
    checks = verdicts(samples, args.hours)
    late = max(s["late_ms"] for s in samples)
    extra = [f"Real time {real_s / 60:.1f} min for {args.hours} virtual hours; the AI service started "
             f"{service_starts} times; latest sample {late:.0f} ms behind its minute; the daemon's exit "
             f"status on SIGTERM: {status}.", "",
             "| verdict: first hour against last | first | last | limit | |", "|---|---:|---:|---|---|"]
    extra += [f"| {n} | {a} | {b} | {lim} | {'ok' if ok else 'GROWS'} |" for n, a, b, lim, ok in checks]
    lines = write_table(os.path.join(args.out, "soak.md"), samples, args.hours, args, extra)
    print("\n".join(lines))
    plot(tsv, os.path.join(args.out, "soak.png"), f"ai_manager soak: {args.hours} virtual hours at time scale "
         f"{args.scale:g}, sampled every virtual minute")
    failed = [c[0] for c in checks if not c[4]]
    if status != 0:
        failed.append(f"daemon exit status {status}")
    if failed:
        log("soak FAILED: " + "; ".join(failed))
        return 1
    log(f"soak passed: results in {args.out}")
    return 0


def main():
    args = parse_args()
    if args.inside:
        return inside(args)
    for b in ("ai_manager", "ai_service", "tvctl"):
        if not os.access(os.path.join(args.build_dir, "bin", b), os.X_OK):
            sys.exit(f"missing {args.build_dir}/bin/{b}: build it first")
    cache = sampling.read_first(os.path.join(args.build_dir, "CMakeCache.txt"))
    if re.search(r"^AIPQ_SANITIZER:\w+=\S", cache, re.M):
        log(f"warning: {args.build_dir} is a sanitizer build; its memory figures are not the daemon's")
    os.makedirs(args.out, exist_ok=True)
    log(f"soak: {args.hours} virtual hours at time scale {args.scale:g}, about "
        f"{args.hours * 3600 / args.scale / 60:.1f} min; results in {args.out}")
    cmd = [SANDBOX, sys.executable, os.path.abspath(__file__), "--inside", "--build-dir", args.build_dir,
           "--hours", str(args.hours), "--scale", str(args.scale), "--out", args.out]
    if args.source:
        cmd += ["--source", args.source]
    return subprocess.run(cmd).returncode


if __name__ == "__main__":
    sys.exit(main())
