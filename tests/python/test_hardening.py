"""How our libraries and programs were built and linked."""

import os
import re
import subprocess

import pytest

from conftest import BUILD, ROOT

pytestmark = [
    pytest.mark.unsanitized,
    pytest.mark.skipif(BUILD.name in ("address", "thread"), reason="sanitizers link otherwise"),
]

LIBRARIES = sorted(
    [path for path in BUILD.glob("lib/*.so") if not path.name.endswith("_test.so")]
    + list(BUILD.glob("python/vantrace/*.so"))
)
PROGRAMS = sorted(path for path in BUILD.glob("bin/*") if os.access(path, os.X_OK))[:3]


def listed(what, path):
    return subprocess.run(
        ["readelf", what, "--wide", path], check=True, capture_output=True, text=True
    ).stdout


def test_all_are_there():
    assert len([path for path in LIBRARIES if path.name.startswith("lib")]) == 5
    assert len(LIBRARIES) >= 11
    assert PROGRAMS


@pytest.mark.parametrize("path", LIBRARIES + PROGRAMS, ids=lambda path: path.name)
def test_no_memory_is_writable_and_executable_and_relocations_are_read_only(path):
    segments = listed("--segments", path)
    flags = re.findall(r"^  (LOAD|GNU_STACK) .* ([R ][W ][E ]) +0x\w+$", segments, re.MULTILINE)
    assert ("GNU_STACK", "RW ") in flags
    assert not [flag for flag in flags if "W" in flag[1] and "E" in flag[1]]
    assert "GNU_RELRO" in segments
    dynamic = listed("--dynamic", path)
    assert "BIND_NOW" in dynamic or "NOW" in dynamic
    assert "TEXTREL" not in dynamic


@pytest.mark.parametrize("path", PROGRAMS, ids=lambda path: path.name)
def test_programs_may_lie_anywhere(path):
    assert re.search(r"Type: +DYN", listed("--file-header", path))


@pytest.mark.parametrize("path", LIBRARIES, ids=lambda path: path.name)
def test_libraries_are_looked_for_beside_ours_alone(path):
    paths = re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", listed("--dynamic", path))
    for entry in ":".join(paths).split(":"):
        assert entry == "" or entry.startswith("$ORIGIN"), entry


@pytest.mark.parametrize("name", ["runtime", "instrument", "performance", "client"])
def test_stacks_are_guarded(name):
    assert "__stack_chk_fail" in listed("--dyn-syms", BUILD / f"lib/libzandor_{name}.so")


def test_bounds_of_the_c_library_s_functions_are_checked():
    symbols = "".join(listed("--dyn-syms", path) for path in LIBRARIES)
    assert re.search(r"__\w+_chk@GLIBC", symbols.replace("__stack_chk", ""))


SHELLS = {
    ".py": r"os\.(system|popen|spawn\w*)\b|shell *= *True|get(status)?output|\bpty\.spawn",
    ".cpp": r"\b(std::)?(system|popen|wordexp)\(|/bin/(ba)?sh\b",
    ".hpp": r"\b(std::)?(system|popen|wordexp)\(|/bin/(ba)?sh\b",
}
SHIPPED = ("python", "vantrace", "zandor", "tools", "examples")


def uses_of_shells(text, ending):
    return re.findall(SHELLS[ending], text)


def test_no_shell_is_ever_started():
    files = [
        path
        for folder in SHIPPED
        for path in (ROOT / folder).rglob("*")
        if path.suffix in SHELLS and not path.stem.endswith("_test")
    ]
    assert len(files) > 300
    found = {
        str(path.relative_to(ROOT))
        for path in files
        if uses_of_shells(path.read_text(encoding="utf-8"), path.suffix)
    }
    assert found == set()


@pytest.mark.parametrize(
    "text, ending",
    [
        ("os.system('ls')", ".py"),
        ("subprocess.run(x, shell=True)", ".py"),
        ("std::system(text);", ".cpp"),
        ('popen("ls", "r")', ".hpp"),
        ('execl("/bin/sh", 0)', ".cpp"),
    ],
)
def test_the_search_for_shells_finds_them(text, ending):
    assert uses_of_shells(text, ending)


@pytest.mark.parametrize("path", LIBRARIES, ids=lambda path: path.name)
def test_libraries_do_not_import_what_starts_a_shell(path):
    imported = set(re.findall(r" UND (\w+)", listed("--dyn-syms", path)))
    assert not imported & {"system", "popen", "wordexp", "posix_spawnp", "execlp", "execvp"}
