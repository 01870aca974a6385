"""What `pip install .` builds with: a wheel of the package and the libraries that it loads.

The libraries come to stand in the environment's lib folder, where the compiled modules look for them.
`--config-settings build-folder=DIR` takes a configured build folder instead of build/wheel.
"""

import base64
import hashlib
import os
import re
import subprocess
import sys
import sysconfig
import tempfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
NAME = "vantrace"
METADATA = """\
Metadata-Version: 2.1
Name: {name}
Version: {version}
Summary: Shows where the time of numerical programs goes
Requires-Python: >=3.11,<3.12
Requires-Dist: numpy
"""
WHEEL = """\
Wheel-Version: 1.0
Generator: wheel_backend
Root-Is-Purelib: false
Tag: {tag}
"""
ENTRY_POINTS = """\
[console_scripts]
vantrace = vantrace._cli:console
"""


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    """Builds what is not up to date and packs it; gives the wheel's name."""
    version = _version()
    tag = _tag()
    name = f"{NAME}-{version}-{tag}.whl"
    with tempfile.TemporaryDirectory() as prefix:
        _install((config_settings or {}).get("build-folder"), Path(prefix))
        with _Wheel(Path(wheel_directory) / name, f"{NAME}-{version}") as wheel:
            wheel.add_package(Path(prefix) / "lib/python3/dist-packages")
            wheel.add_libraries(Path(prefix) / "lib")
            wheel.add_information(version, tag)
    return name


def _version():
    text = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.search(r"project\(vantrace VERSION ([\d.]+)", text)[1]


def _tag():
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    return f"{python}-{python}-{platform}"


def _install(build_folder, prefix):
    if not build_folder:
        build_folder = ROOT / "build/wheel"
        settings = ["-DCMAKE_BUILD_TYPE=Release", "-DBUILD_TESTING=OFF"]
        _run("cmake", "-S", ROOT, "-B", build_folder, *settings)
    jobs = str(len(os.sched_getaffinity(0)))
    _run("cmake", "--build", build_folder, "--target", "product", "--parallel", jobs)
    _run("cmake", "--install", build_folder, "--prefix", prefix, "--strip")


def _run(*command):
    subprocess.run([os.fspath(part) for part in command], check=True, stdout=sys.stderr)


class _Wheel:
    """A zip file whose last entry lists the others with their checksums."""

    def __init__(self, path, stem):
        self._zip = zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED)
        self._stem = stem
        self._record = []

    def __enter__(self):
        return self

    def __exit__(self, kind, error, traceback):
        if kind is None:
            record = f"{self._stem}.dist-info/RECORD"
            self._zip.writestr(record, "".join(self._record) + f"{record},,\n")
        self._zip.close()

    def add_package(self, folder):
        for path in sorted(folder.rglob("*")):
            if path.is_file() and path.suffix != ".pyc":  # pip makes those where it installs
                self._add(path.relative_to(folder).as_posix(), path.read_bytes())

    def add_libraries(self, folder):
        """Under the names by which they are loaded; a wheel has no links."""
        for path in sorted(folder.glob("lib*.so*")):
            if re.search(r"\.so(\.\d+)?$", path.name) and not (
                path.is_symlink() and path.suffix == ".so"
            ):
                self._add(f"{self._stem}.data/data/lib/{path.name}", path.read_bytes())

    def add_information(self, version, tag):
        texts = {
            "METADATA": METADATA.format(name=NAME, version=version),
            "WHEEL": WHEEL.format(tag=tag),
            "entry_points.txt": ENTRY_POINTS,
        }
        for name, text in texts.items():
            self._add(f"{self._stem}.dist-info/{name}", text.encode())

    def _add(self, name, content):
        self._zip.writestr(name, content)
        digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=")
        self._record.append(f"{name},sha256={digest.decode()},{len(content)}\n")
