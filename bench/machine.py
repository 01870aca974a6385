"""What the figures were measured on."""

import os
import pathlib
import platform
import re
import subprocess

SYSTEM = pathlib.Path("/sys/devices/system")


def _read(path, otherwise="not told"):
    try:
        return pathlib.Path(path).read_text().strip()
    except OSError:
        return otherwise


def _cpu(key):
    found = re.search(rf"^{key}\s*: (.*)$", _read("/proc/cpuinfo"), re.MULTILINE)
    return found[1] if found else "not told"


def _caches():
    for index in sorted((SYSTEM / "cpu/cpu0/cache").glob("index*")):
        kind = {"Data": "d", "Instruction": "i"}.get(_read(index / "type"), "")
        shared = _read(index / "shared_cpu_list")
        yield f"L{_read(index / 'level')}{kind} {_read(index / 'size')} (cores {shared})"


def _chosen(path):
    """The one in brackets."""
    found = re.search(r"\[(.*?)\]", _read(path))
    return found[1] if found else "not told"


def _compiler():
    done = subprocess.run(["g++", "--version"], capture_output=True, text=True, check=False)
    return done.stdout.partition("\n")[0]


def topology():
    """(what, value) of everything that moves the figures."""
    flags = _cpu("flags").split()
    invariant = "yes" if {"constant_tsc", "nonstop_tsc"} <= set(flags) else "no"
    megahertz = float(_cpu("cpu MHz")) if _cpu("cpu MHz") != "not told" else 0
    return [
        ("processor", f"{_cpu('model name')}, {megahertz / 1000:.1f} GHz"),
        ("cores", f"{os.cpu_count()}" + (", virtual" if "hypervisor" in flags else "")),
        ("caches", ", ".join(_caches())),
        ("clock source", _read(SYSTEM / "clocksource/clocksource0/current_clocksource")),
        ("invariant TSC", invariant),
        ("frequency governor", _read(SYSTEM / "cpu/cpu0/cpufreq/scaling_governor", "none")),
        ("page size", f"{os.sysconf('SC_PAGESIZE')} bytes; huge pages: "
                      f"{_chosen('/sys/kernel/mm/transparent_hugepage/enabled')}"),
        ("memory", f"{os.sysconf('SC_PAGESIZE') * os.sysconf('SC_PHYS_PAGES') / 2**30:.0f} GiB"),
        ("load", _read("/proc/loadavg").split()[0]),
        ("kernel", platform.release()),
        ("compiler and interpreter", f"{_compiler()}; Python {platform.python_version()}"),
    ]  # fmt: skip
