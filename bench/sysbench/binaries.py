"""What the build's binaries weigh: stripped size, shared libraries, and which library brought in
which others."""

import os
import re
import shutil
import subprocess
import tempfile


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
