"""docs/dependencies.md names what is linked, and nothing else."""

import re
import subprocess

import pytest

from conftest import BUILD, ROOT

pytestmark = [
    pytest.mark.unsanitized,
    pytest.mark.skipif(BUILD.name != "release", reason="other builds link other things"),
]

TEXT = (ROOT / "docs/dependencies.md").read_text(encoding="utf-8")
ROWS = re.findall(r"^\| `([^`]+)` \| `([^`]+)` \| ([^|]+) \| ([^|]+) \|", TEXT, re.MULTILINE)
HEADERS = re.findall(r"\(`([a-z0-9-]+)`, ([0-9.]+), ", TEXT)
# What the copyright file of a package says where it has the licence.
SAID = {
    "LGPL-2.1-or-later": "GNU Lesser General Public",
    "GPL-3.0-or-later with the runtime exception": "GCC RUNTIME LIBRARY EXCEPTION",
    "BSD-3-Clause": "BSD-3-clause",
    "MIT": "Permission is hereby granted, free of charge",
    "public domain": "public.domain",
    "Apache-2.0": "Apache",
}


def needed():
    libraries = [*BUILD.glob("lib/lib*.so"), *BUILD.glob("python/vantrace/*.so")]
    text = "".join(
        subprocess.run(
            ["readelf", "--dynamic", "--wide", path], check=True, capture_output=True, text=True
        ).stdout
        for path in libraries
    )
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", text))


def installed(package):
    return subprocess.run(
        ["dpkg-query", "-W", "-f=${Version}", package], check=True, capture_output=True, text=True
    ).stdout


def test_each_library_that_is_linked_is_named_and_no_other():
    foreign = {name for name in needed() if not name.startswith("libzandor_")}
    assert foreign == {library for library, *_ in ROWS}


@pytest.mark.parametrize("library, package", [row[:2] for row in ROWS])
def test_a_library_is_of_the_package(library, package):
    files = subprocess.run(
        ["dpkg-query", "-L", package], check=True, capture_output=True, text=True
    ).stdout
    assert re.search(rf"/{re.escape(library)}$", files, re.MULTILINE)


@pytest.mark.parametrize("package, version", [(row[1], row[2].strip()) for row in ROWS] + HEADERS)
def test_a_version_is_the_one_that_the_system_has(package, version):
    assert re.match(rf"(\d+:)?{re.escape(version)}(?!\d)", installed(package))


@pytest.mark.parametrize("package, licence", {(row[1], row[3].strip()) for row in ROWS})
def test_a_licence_is_the_package_s(package, licence):
    with open(f"/usr/share/doc/{package}/copyright", encoding="utf-8") as file:
        assert re.search(SAID[licence], file.read(), re.IGNORECASE)
