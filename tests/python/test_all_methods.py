"""Each published method, called through the tree."""

import ast
import json
import os

import pytest

import vantrace
from conftest import run_python

# What the methods take, by their declared types.
BY_TYPE = {
    "char": "all.methods",
    "KobsFactoryString scalar": "all.methods",
    "KobsFactoryString vector": ["n", "3"],
    "logical scalar": False,
    "int32 scalar": 1,
    "uint64 scalar": 1,
    "double scalar": 0.0,
}


def tree():
    """The description of the root, hidden methods and all."""
    done = run_python("-m", "vantrace", "tree", "--json", "--all")
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def methods_of(namespace, prefix=""):
    path = f"{prefix}{namespace['name']}"
    for method in namespace["methods"]:
        yield f"{path}.{method['name']}", method
    for inner in namespace["namespaces"]:
        yield from methods_of(inner, f"{path}.")


@pytest.fixture(name="published", scope="module")
def fixture_published():
    roots = tree()
    found = {}
    for root in roots if isinstance(roots, list) else [roots]:
        found.update(methods_of(root))
    return found


PRIVATE = [f"performance.productStats.logEvent{kind}Time" for kind in ("", "Begin", "End")]


def test_there_are_86_of_them(published):
    assert len(set(published) | set(PRIVATE)) == 86


def test_none_lacks_its_service(published, tmp_path):
    """In a process of its own, which ends well."""
    calls = {
        name: [BY_TYPE[kind] for kind in method["inputs"]]
        for name, method in published.items()
        if name not in PRIVATE
    }
    calls.update({name: ["all.methods", "3"] for name in PRIVATE})
    code = f"""
import gc, vantrace
from vantrace import _core, performance
gc.collect()
before = _core.live_array_count()
results = {{}}
for name, arguments in {calls!r}.items():
    try:
        result = vantrace.host.private(name)(*arguments)
    except Exception as error:
        results[name] = f"{{type(error).__name__}}: {{error}}"
del result
gc.collect()
print(results)
print(_core.live_array_count() - before)
"""
    environment = os.environ | {"XDG_STATE_HOME": str(tmp_path)}
    done = run_python("-c", code, cwd=tmp_path, env=environment)
    assert (done.returncode, done.stderr) == (0, "")
    *_, errors, leaked = done.stdout.splitlines()
    assert leaked == "0"
    # A file that is not there has no release to read.
    assert list(ast.literal_eval(errors)) == ["performance.utils.getReleseFromXMLFile"], errors


def test_the_aggregator_does_nothing_where_there_is_no_client():
    aggregator = vantrace.performance.instrument.externalEventsAggregator
    for _ in range(2):
        aggregator.start()
        aggregator.start()
        aggregator.refreshActiveClients()
        aggregator.collectEvents()
        aggregator.stop()
        aggregator.stop()


def test_a_stop_of_an_id_that_nobody_was_given_is_recorded(recorder):
    instruments = vantrace.performance.instrument.instruments
    for source, serial in [(0, 0), (7, 0), (0, 7)]:
        instruments.stopEvent("nobody's", ["n", "1"], source, serial)
    recorder.stop()
    assert len(recorder.getAllEventPoints()) == 3
