#!/usr/bin/env python3
"""Live view of a running ai_manager: one block per recognition, read from the daemon's log.

Shows the five predictions, the scene in force, whether the scene's PQ row was applied, and the
PQ offsets the TV now holds, by name. Label texts come from the daemon's own prediction dump and the
offsets from `tvctl show`, so no fact of the protocol is repeated here.

    aipq_live.py DAEMON_LOG TV_DIR TVCTL [--screenshot-cmd CMD]
"""
import argparse
import os
import re
import subprocess
import sys
import time

PRED = re.compile(r"index: (-?\d+), label: (\S+), confidence: ([0-9.]+)")
RESULT = re.compile(r"recognitionPicture ret: (-?\d+)\.")
APPLIED = re.compile(r"setPQPredictLabelResult\(\): \[AI Manager\] predict label : (-?\d+)")
CYCLE = "start AI Recognition."


def follow(path):
    while not os.path.exists(path):
        time.sleep(0.2)
    with open(path, "r", errors="replace") as f:
        buf = ""
        while True:
            chunk = f.readline()
            if not chunk:
                time.sleep(0.1)
                continue
            buf += chunk
            if buf.endswith("\n"):
                yield buf
                buf = ""


def pq_in_force(tvctl, tv_dir):
    shown = subprocess.run([tvctl, "show"], capture_output=True, text=True,
                           env=dict(os.environ, AIPQ_TV_DIR=tv_dir)).stdout
    head, _, offsets = shown.partition("PQ offsets in force:")
    named = [line.split()[:2] for line in offsets.splitlines()
             if len(line.split()) >= 2 and "(colour selector)" not in line]
    if not named:
        return "  PQ offsets in force:" + (offsets.strip() and " " + offsets.strip() or " (unknown)")
    nonzero = ["%s %+d" % (n, int(v)) for n, v in named if v.lstrip("-").isdigit() and int(v) != 0]
    lines = []
    for i in range(0, len(nonzero), 6):
        lines.append("    " + ", ".join(nonzero[i:i + 6]))
    return "  PQ offsets in force (others 0):\n" + ("\n".join(lines) if lines else "    (all 0)")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("log")
    ap.add_argument("tv_dir")
    ap.add_argument("tvctl")
    ap.add_argument("--screenshot-cmd", default="")
    args = ap.parse_args()

    count = 0
    scene = "Invalid"
    preds, result, applied = [], None, None
    texts = {19: "Invalid"}  # label value -> text, as the daemon's prediction dump names them

    def report():
        nonlocal count
        count += 1
        stamp = time.strftime("%H:%M:%S")
        print("\n#%d %s  recognition %s" % (count, stamp, "ok" if result == 0 else "failed (code %s)" % result))
        for label, conf in preds:
            bar = "#" * int(round(conf * 20))
            print("    %-12s %5.3f %s" % (label, conf, bar))
        if result == 0:
            state = "APPLIED (scene changed)" if applied is not None else "not applied (same scene)"
            print("  scene: %-12s %s" % (scene, state))
        print(pq_in_force(args.tvctl, args.tv_dir))
        sys.stdout.flush()

    def screenshot():
        shot = subprocess.run(args.screenshot_cmd + " %d" % count, shell=True,
                              capture_output=True, text=True)
        if shot.stdout.strip():
            print("  overlay screenshot: " + shot.stdout.strip())
            sys.stdout.flush()

    in_cycle = pending = want_shot = False
    for line in follow(args.log):
        # The overlay is drawn after the apply step; shoot once the panel reached the screen.
        if want_shot and "Flip the surface." in line:
            time.sleep(0.3)  # the line is written just before the flip itself
            screenshot()
            want_shot = False
        if CYCLE in line:
            in_cycle, pending, preds, result, applied = True, False, [], None, None
            continue
        if not in_cycle:
            continue
        if pending:
            # The apply decision follows the retry loop: an AIPQ check, then the row if the scene
            # changed, closed by the "call  pq setting interface" line.
            if "getAIPQEnable()" in line:
                continue
            m = APPLIED.search(line)
            if m:
                applied = int(m.group(1))
                scene = texts.get(applied, "label %d" % applied)
                continue
            if applied is not None and "call  pq setting interface" not in line:
                continue
            report()
            in_cycle = False
            want_shot = bool(args.screenshot_cmd)
            continue
        m = PRED.search(line)
        if m:
            texts[int(m.group(1))] = m.group(2)
            preds = (preds + [(m.group(2), float(m.group(3)))])[-5:]
            continue
        m = RESULT.search(line)
        if m:
            result = int(m.group(1))
            continue
        if "do not need to continue recognition process." in line:
            pending = True

if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
