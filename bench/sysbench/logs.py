"""The daemon's log and the service's trace turned into times and figures."""

import re
import time

LINE = re.compile(r"^(\d\d):(\d\d):(\d\d)\.(\d{3}) \[(\d+)\] (.*)$")


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


def first_time(records, match):
    """Time of the first record whose text matches, else None."""
    return next((t for t, _, text in records if match(text)), None)


def first_trace_command(path):
    """(monotonic seconds, command) of the first line of the service's --trace file."""
    with open(path) as f:
        fields = f.readline().split()
    return float(fields[0]), fields[1]


def cycles(records, window_start, window_end):
    """Cycle latency: end of getPicture to the platform's setVideoPQParameters returning (its
    "applied" line is its last act), same worker thread, warm cycles only (the first is cold)."""
    latencies, count, in_window, unapplied = [], 0, 0, 0
    open_cycle = None
    for t, tid, text in records:
        if "getPicture, ret: 1." in text:
            if open_cycle is not None:
                unapplied += 1
            count += 1
            open_cycle = (t, tid, count)
            if window_start <= t <= window_end:
                in_window += 1
        elif "PQ parameters applied:" in text and open_cycle is not None and tid == open_cycle[1]:
            if open_cycle[2] > 1:
                latencies.append((t - open_cycle[0]) * 1000.0)
            open_cycle = None
    return {"cycle_latency_ms": latencies, "cycles": count, "cycles_in_window": in_window,
            "cycles_without_row": unapplied}


def thread_roles(records, pid, wchans):
    """A name for each daemon thread: from what it logs, else from where it sleeps."""
    roles = {str(pid): "main"}
    for tid, wchan in wchans.items():
        if "sigtimedwait" in wchan:
            roles[tid] = "thread in sigwait (signal watcher)"
        elif "poll" in wchan:
            roles[tid] = "thread in poll (tv-directory watcher)"
        else:
            roles[tid] = f"thread in {wchan}"
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
