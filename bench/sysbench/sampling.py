"""What /proc says about a running process: CPU time, context switches, memory, where its
threads sleep."""

import os
import re
import time

CLK_TCK = os.sysconf("SC_CLK_TCK")


def read_first(path, default=""):
    try:
        with open(path) as f:
            return f.read()
    except (FileNotFoundError, ProcessLookupError, PermissionError):
        return default


def loadavg():
    return read_first("/proc/loadavg").split()[:3]


def tasks(pid):
    try:
        return sorted(int(t) for t in os.listdir(f"/proc/{pid}/task"))
    except FileNotFoundError:
        return []


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
    """Counters between two samples, over the threads alive at both."""
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


def thread_wchans(pid):
    """Where each thread but the main one sleeps, for threads that never log."""
    out = {}
    for tid in tasks(pid):
        wchan = read_first(f"/proc/{pid}/task/{tid}/wchan").strip()
        if str(tid) != str(pid) and wchan and wchan != "0":
            out[str(tid)] = wchan
    return out


def wall_minus_monotonic():
    """time.time() - time.monotonic(), from the tightest of a few bracketed reads: the daemon's
    log has wall-clock times, the service's trace monotonic ones."""
    offsets = []
    for _ in range(5):
        a = time.time()
        m = time.monotonic()
        b = time.time()
        offsets.append(((a + b) / 2 - m, b - a))
    return min(offsets, key=lambda o: o[1])[0]
