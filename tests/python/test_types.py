"""The package's types: they are those of what runs, and mypy finds wrong uses by them."""

import ast
import re
import shutil
from pathlib import Path

import pytest

import vantrace
from conftest import BUILD, run_python
from vantrace import _core, host

# The types of the published tree are not written in sanitized builds.
pytestmark = pytest.mark.unsanitized

PACKAGE = Path(vantrace.__file__).parent

RIGHT = """
import asyncio
import logging
import math
from pathlib import Path

import vantrace
from vantrace import client, host, performance, tasks

with vantrace.event("solve", n=512, tol=1e-6) as solving:
    name: str = solving.name

@vantrace.event("assemble")
def assemble(n: int) -> int:
    return n

@vantrace.instrumented
def plain(n: int) -> float:
    return n / 2

@vantrace.instrumented(name="cg", method="plain")
async def solve(n: int) -> str:
    return str(n)

@vantrace.instrumented
class Solver:
    @vantrace.event("fresh")
    @staticmethod
    def fresh() -> "Solver":
        return Solver()

half: float = plain(assemble(3))
text: str = asyncio.run(solve(3))
solver: Solver = Solver.fresh()
root: float = vantrace.wrap(math.sqrt)(4.0)
vantrace.instant("converged", residual=1e-9)
vantrace.counter("residual", 1)
logging.getLogger().addHandler(vantrace.LoggingHandler())

with vantrace.record(Path("trace.json"), functions=True, keep="last") as recording:
    with vantrace.event("solve", n=3):
        pass
    for event in recording.events("solve"):
        if event.duration is not None:
            end: int = event.start + event.duration
total: int = recording.stats()["solve"].total

controls = performance.instrument.controls
controls.enableWithContextEntry("solve", {"n": 3})
controls.enableWithContextEntry("solve", ["n", "3"])
known: bool = controls.has("solve")
now: int = performance.utils.getNanosecondTimer()
modules: list[str] = performance.utils.getModuleList()
performance.cooperativeTaskManager.process(5000)
host.private("performance.productStats.logEventTime")("a", "b")
inputs: list[str] = host.private("performance.utils.getModuleList").inputs
host.root("performance").utils.loadLibrary("libm.so.6")
plugin: host.Plugin = host.load()
tasks.add(lambda: None, name="warm up", session="ppe")

with client.Client("solver") as sender, sender.event("assemble", n=512):
    sender.stop(sender.start("inner", {"n": 1}))

def table(array: vantrace.StructArray) -> float:
    first: object = array[0]["count"]
    return float(array["duration"].sum()) + len(array[1:3])
"""

# Lines with the code of the error that each is.
WRONG = """
import vantrace
from vantrace import host, performance, tasks

vantrace.event(3)  # arg-type
vantrace.instant()  # call-arg
vantrace.counter("residual", "high")  # arg-type
vantrace.record("trace.json", keep="shortest")  # arg-type
vantrace.record("trace.json", function=True)  # call-arg
vantrace.nothing  # attr-defined
vantrace.event("a").name = "b"  # misc
performance.utils.getNanosecondTime()  # attr-defined
performance.utils.loadLibrary(3)  # arg-type
performance.instrument.controls.enable()  # call-arg
performance.instrument.controls.enableWithContextEntry("solve", "n=3")  # arg-type
performance.instrument.instruments.stopEvent("solve", [], 1.5, 2)  # arg-type
performance.productStats.logEventTime("a", "b")  # attr-defined
performance.utils = performance.utils  # misc
count: str = performance.cooperativeTaskManager.getNumPendingTasks()  # assignment
host.private("performance.productStats.logEventTime")("a")  # call-arg
tasks.add(3)  # arg-type
tasks.add(lambda: None, session="other")  # arg-type

@vantrace.instrumented
def plain(n: int) -> float:
    return n / 2

plain("3")  # arg-type
"""

# Of what is checked these are not alike on purpose.
DIFFERENT = r"""
vantrace\._.*             # private modules: their types are of what is public in them
vantrace\.performance     # to a checker a class, with what is published as members
vantrace\.event\.__enter__
vantrace\.event\.__exit__
vantrace\.host\.Method
"""


@pytest.fixture(scope="module", autouse=True)
def fixture_cache(tmp_path_factory):
    """What mypy made of the libraries is the same for all tests."""
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("MYPY_CACHE_DIR", str(tmp_path_factory.mktemp("mypy")))
        yield


def mypy(*arguments, folder, module="mypy"):
    return run_python("-m", module, *arguments, cwd=folder)


def check(program, folder):
    """What mypy says of a program: {line: code}."""
    (folder / "program.py").write_text(program, encoding="utf-8")
    done = mypy("--strict", "--show-error-codes", "--no-pretty", "program.py", folder=folder)
    assert done.returncode in (0, 1), done.stdout + done.stderr
    errors = re.findall(r"^program.py:(\d+): error: .*\[([\w-]+)\]$", done.stdout, re.MULTILINE)
    return {int(line): code for line, code in errors}


@pytest.fixture(name="types")
def fixture_types(tmp_path, monkeypatch):
    """The type files alone, found before those of the package."""
    folder = tmp_path / "types/vantrace"
    folder.mkdir(parents=True)
    for file in PACKAGE.glob("*.pyi"):
        shutil.copy(file, folder)
    (tmp_path / "mypy.ini").write_text("[mypy]\nstrict = True\nignore_missing_imports = True\n")
    (tmp_path / "different").write_text(DIFFERENT, encoding="utf-8")
    monkeypatch.setenv("MYPYPATH", str(tmp_path / "types"))
    return folder


def test_the_package_says_that_it_has_types():
    assert (PACKAGE / "py.typed").exists()


def test_right_uses_pass(tmp_path):
    assert check(RIGHT, tmp_path) == {}


def test_the_right_uses_run(tmp_path):
    done = run_python("-c", RIGHT, cwd=tmp_path)
    assert (done.returncode, done.stderr) == (0, "")


def test_wrong_uses_are_errors(tmp_path):
    expected = {
        number: line.rpartition("  # ")[2]
        for number, line in enumerate(WRONG.splitlines(), 1)
        if "  # " in line
    }
    assert check(WRONG, tmp_path) == expected


def test_the_types_themselves_are_right(types, tmp_path):
    done = mypy(types, folder=tmp_path)
    assert done.stdout.startswith("Success: no issues found"), done.stdout


def test_types_and_running_modules_are_alike(types, tmp_path):
    options = ("--concise", "--allowlist", "different", "--mypy-config-file", "mypy.ini")
    done = mypy("vantrace", *options, folder=tmp_path, module="mypy.stubtest")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def published_names():
    """{full name: number of arguments} of what is an attribute of its namespace."""

    def walk(namespace):
        for child in namespace.namespaces():
            yield child.full_name, None
            yield from walk(child)
        for method in namespace.methods():
            yield method.__qualname__, len(method.inputs)

    host.load()
    return {name: count for root in _core.roots() for name, count in walk(root)}


def typed_names():
    """The same as the types have it."""
    tree = ast.parse((PACKAGE / "_published.pyi").read_text(encoding="utf-8"))
    classes = {node.name: node for node in tree.body if isinstance(node, ast.ClassDef)}

    def walk(name, full_name):
        for member in classes[name].body:
            if not isinstance(member, ast.FunctionDef):
                continue
            member_name = f"{full_name}.{member.name}"
            if member.decorator_list:
                yield member_name, None
                yield from walk(member.returns.id, member_name)
            else:
                yield member_name, len(member.args.posonlyargs) - 1

    return dict(walk("Performance", "performance")) | dict(private_types(tree, classes))


def private_types(tree, classes):
    """Those of the overloads that take one name only, each with a class of its own."""
    for node in tree.body:
        if not isinstance(node, ast.FunctionDef):
            continue
        [argument] = node.args.args
        if isinstance(argument.annotation, ast.Subscript):
            call = classes[node.returns.id].body[0]
            yield argument.annotation.slice.value, len(call.args.posonlyargs) - 1


def test_the_types_have_the_whole_published_tree_and_nothing_else():
    assert typed_names() == published_names()
    assert len(typed_names()) == 11 + 86


def test_an_installation_has_the_types():
    built = BUILD / "python/vantrace"
    names = sorted(path.name for path in built.glob("*.pyi"))
    assert sorted(path.name for path in PACKAGE.glob("*.pyi")) == names
    assert "_published.pyi" in names
