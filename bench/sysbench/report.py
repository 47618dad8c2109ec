"""The table of medians over the runs and the memory explanation, as printed."""

import os
import statistics

from . import binaries


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
    rows.append(("parked: daemon CPU time",
                 fmt(median([p["daemon"]["cpu_ms"] for p in parked]), " ms", 2), ""))
    rows.append(("parked: AI service CPU time / context switches",
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
    groups = binaries.library_groups(daemon)
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
