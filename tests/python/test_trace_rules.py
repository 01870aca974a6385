"""The checker of exports accepts a good file and catches each way of breaking one."""

import re

import pytest

from stack_rules import check_collapsed
from trace_rules import check_trace

GOOD = """\
{"displayTimeUnit":"ns","metadata":{"origin-monotonic-ns":"81000000000",
"origin-utc-ns":"1700000000000000123","clock":"tsc","dropped-memory":"0",
"zandor_version":"1.0"},"traceEvents":[
{"ph":"M","name":"process_name","pid":1,"tid":1,"args":{"name":"python3","pid":"4711"}},
{"ph":"M","name":"process_sort_index","pid":1,"tid":1,"args":{"sort_index":1}},
{"ph":"M","name":"thread_name","pid":1,"tid":1,"args":{"name":"MainThread","source":"1"}},
{"ph":"M","name":"thread_sort_index","pid":1,"tid":1,"args":{"sort_index":1}},
{"ph":"M","name":"thread_name","pid":1,"tid":2,"args":{"name":"worker","source":"2"}},
{"ph":"M","name":"thread_sort_index","pid":1,"tid":2,"args":{"sort_index":2}},
{"ph":"X","name":"solve","cat":"event","pid":1,"tid":1,"ts":1.000,"dur":100.000,"args":{"n":"3"}},
{"ph":"X","name":"first","cat":"event","pid":1,"tid":1,"ts":1.000,"dur":49.999},
{"ph":"X","name":"(unnamed)","cat":"event","pid":1,"tid":1,"ts":51.000,"dur":49.999},
{"ph":"i","name":"tick","cat":"event","pid":1,"tid":1,"ts":60.000,"s":"t"},
{"ph":"C","name":"memory","cat":"counter","pid":1,"tid":1,"ts":65.000,"args":{"value":7.5}},
{"ph":"b","name":"load","cat":"async","id":"0x1","pid":1,"tid":1,"ts":70.000},
{"ph":"s","name":"load","cat":"flow","id":"0x1","pid":1,"tid":1,"ts":70.000},
{"ph":"e","name":"load","cat":"async","id":"0x1","pid":1,"tid":2,"ts":80.000},
{"ph":"f","bp":"e","name":"load","cat":"flow","id":"0x1","pid":1,"tid":2,"ts":80.000},
{"ph":"X","name":"open","cat":"event","pid":1,"tid":2,"ts":90.000,"dur":11.000,"args":{"unfinished":true}}
]}
"""

EMPTY = re.sub(r'(?s)("traceEvents":\[).*(\]\})', r"\1\2", GOOD)


def later(text, microseconds):
    return re.sub(r'"ts":(\d+)\.', lambda m: f'"ts":{microseconds + int(m[1])}.', text)


GOOD_UTC = later(GOOD.replace("49.999", "49.750"), 1700000000000000)


BREACHES = [
    # the document
    ('{"displayTimeUnit"', '{ "displayTimeUnit"', r"does not begin with"),
    ('{"displayTimeUnit"', '\ufeff{"displayTimeUnit"', r"does not begin with"),
    ("]}\n", "],}\n", "not JSON"),
    ('"dur":100.000', '"dur":NaN', "not JSON"),
    ('"dur":100.000', '"dur":100.000,"dur":100.000', "member 'dur' twice"),
    ('"first"', '"fi\trst"', "not JSON"),
    ('"displayTimeUnit":"ns"', '"displayTimeUnit":"ms"', "displayTimeUnit is 'ms'"),
    ('{"displayTimeUnit":"ns",', '{"samples":[],"displayTimeUnit":"ns",', "'samples' beside"),
    ('"clock":"tsc"', '"clock":1', "metadata 'clock' is 1, not a text"),
    ('"clock":"tsc",', "", "does not tell the clock"),
    ('"origin-monotonic-ns":"81000000000",', "", "does not tell the origin in monotonic"),
    ('"origin-utc-ns":"1700000000000000123",', "", "does not tell the origin in UTC"),
    ('"1700000000000000123"', '"1.7e18"', r"origin in UTC nanoseconds as '1.7e18'"),
    ('"dropped-memory":"0",', "", "does not tell what was dropped"),
    ('"zandor_version"', '"v"', "does not tell a version"),
    ('"n":"3"', '"n":9007199254740993', "which a double does not hold"),
    ('"n":"3"', '"n":"\\ud83d"', "lone surrogate"),
    ('"n":"3"', '"\\udc00":"3"', "lone surrogate"),
    # members
    ('"ph":"i"', '"ph":"Q"', "unknown phase"),
    ('"value":7.5', '"value":"7.5"', "without one number"),
    ('"value":7.5', '"value":7.5,"more":1', "without one number"),
    ('"cat":"event","pid":1,"tid":1,"ts":60', '"pid":1,"tid":1,"ts":60', "has no cat"),
    ('"name":"first",', "", "has no name"),
    ('"name":"first"', '"name":5', "name is 5, not a text"),
    ('"name":"first","cat":"event"', '"name":"first","cat":""', "empty cat"),
    ('"tid":1,"ts":60.000', '"tid":"1","ts":60.000', "tid is '1', not an integer"),
    ('"dur":49.999}', '"dur":49.999,"args":{}}', "args with nothing"),
    ('"dur":100.000', '"dur":100.000,"cname":"good"', "has cname"),
    ('"s":"t"', '"s":"g"', "more than its thread"),
    ('"bp":"e"', '"bp":"s"', "does not bind"),
    # metadata events and tracks
    ('{"ph":"M","name":"process_name"', '{"ph":"M","cat":"__metadata","name":"process_name"', "has cat"),
    ('"ts":60.000,"s":"t"},', '"ts":60.000,"s":"t"},\n{"ph":"M","name":"thread_name","pid":1,"tid":1,'
     '"args":{"name":"late"}},', "metadata event after"),
    ('"thread_sort_index","pid":1,"tid":2', '"thread_colour","pid":1,"tid":2', "unknown metadata event"),
    ('"source":"2"', '"source":2', "source is 2, not str"),
    ('"sort_index":2', '"sort_index":"2"', "sort_index is '2', not int"),
    ('"tid":2', '"tid":3', r"tids are \[1, 3\]"),
    ('"tid":1', '"tid":0', r"tids are \[0, 2\]"),
    ('"pid":1', '"pid":4711', r"pids are \[4711\]"),
    ('"pid":1,"tid":2', '"pid":2,"tid":1', "tid 1 stands for 2 threads"),
    ('{"ph":"M","name":"thread_name","pid":1,"tid":2', '{"ph":"M","name":"thread_name","pid":1,"tid":1',
     "is told 2 times"),
    ('"thread_sort_index","pid":1,"tid":2', '"thread_name","pid":1,"tid":2', "no thread_sort_index"),
    ('"process_name"', '"thread_name"', "pid 1 has no process_name"),
    # texts
    ('"(unnamed)"', '""', "empty name"),
    ('"MainThread"', '""', "empty name"),
    ('"first"', '"fi\\u0001rst"', r"name with U\+0001"),
    ('"first"', '"fi\x7frst"', r"name with U\+007F"),
    ('"first"', '"fi\x85rst"', r"name with U\+0085"),
    ('"first"', '"fi\u2028rst"', r"name with U\+2028"),
    ('"worker"', '"wor\\u2029ker"', r"name with U\+2029"),
    # times
    ('"ts":60.000', '"ts":60', "three decimals"),
    ('"ts":60.000', '"ts":60.0', "three decimals"),
    ('"ts":60.000', '"ts":6.0000e1', "has an exponent"),
    ('"ts":60.000', '"ts":"60.000"', "not a number"),
    ('"ts":1.000,"dur":100.000', '"ts":0.999,"dur":100.000', "ts is below 1"),
    ('"dur":11.000', '"dur":0.000', "without a duration"),
    ('"dur":11.000', '"dur":-1.000', "without a duration"),
    # order and nesting
    ('"ts":90.000', '"ts":50.000', "comes after the later"),
    ('"ts":1.000,"dur":49.999', '"ts":1.000,"dur":100.001', "comes after the shorter"),
    ('"ts":51.000,"dur":49.999', '"ts":51.000,"dur":50.000', "ends on the end of"),
    ('"ts":51.000,"dur":49.999', '"ts":51.000,"dur":50.001', "leaves"),
    ('"ts":1.000,"dur":49.999', '"ts":1.000,"dur":50.000', "starts on the end of"),
    ('"ts":1.000,"dur":49.999', '"ts":1.000,"dur":50.001', "leaves"),
    # pairs and flows
    ('"id":"0x1","pid":1,"tid":1,"ts":70.000},\n{"ph":"s"', '"id":"1","pid":1,"tid":1,"ts":70.000},\n{"ph":"s"',
     "id is not a hexadecimal text"),
    ('{"ph":"e","name":"load"', '{"ph":"e","name":"lead"', "async begin has the name 'load'"),
    ('{"ph":"e","name":"load","cat":"async"', '{"ph":"e","name":"load","cat":"other"',
     "async end without a begin"),
    ('{"ph":"e"', '{"ph":"b"', "async id is used twice"),
    ('{"ph":"e"', '{"ph":"b"', "async begin without an end"),
    ('"tid":2,"ts":80.000},\n{"ph":"f"', '"tid":2,"ts":69.000},\n{"ph":"f"', "async end is earlier"),
    ('{"ph":"f","bp":"e","name":"load","cat":"flow","id":"0x1","pid":1,"tid":2,"ts":80.000},\n', "",
     "flow begin without an end"),
    ('{"ph":"s","name":"load","cat":"flow","id":"0x1","pid":1,"tid":1,"ts":70.000},\n', "",
     "flow end without a begin"),
    ('"pid":1,"tid":2,"ts":80.000', '"pid":1,"tid":1,"ts":80.000', "stays on its thread"),
    ('"cat":"flow","id":"0x1","pid":1,"tid":1,"ts":70.000', '"cat":"flow","id":"0x1","pid":1,"tid":1,'
     '"ts":71.000', "goes with no async pair"),
    ('"cat":"flow","id":"0x1","pid":1,"tid":1,"ts":70.000', '"cat":"flow","id":"0x1","pid":1,"tid":1,'
     '"ts":71.000', "ends on another thread without a flow"),
    ('"ts":90.000,"dur":11.000', '"ts":90.000,"dur":10.998', "ends before the last time"),
]

UTC_BREACHES = [
    ('"dur":11.000', '"dur":11.125', "dur is not a multiple"),
    ('"ts":1700000000000060.000', '"ts":1700000000000060.125', "ts is not a multiple"),
    ('"ts":1700000000000060.000', '"ts":4700000000000060.250', "not exact as a double"),
    ('"ts":1700000000000060.000', '"ts":60.000', "no time of this century"),
    ('"dur":100.000', '"dur":99.750', "ends on the end of"),
    ('"dur":100.000', '"dur":99.500', "leaves"),
    ('"dur":100.000', '"dur":50.000', "starts on the end of"),
]


ONLY_A_PROCESS = re.sub(r'(?s)(sort_index":1\}\}),.*(\n\]\})', r"\1\2", GOOD)


@pytest.mark.parametrize("text", [GOOD, GOOD.encode(), EMPTY, ONLY_A_PROCESS])
def test_a_good_trace_has_no_violation(text):
    assert check_trace(text) == []


def test_arguments_may_have_exponents():
    assert check_trace(GOOD.replace('"n":"3"', '"n":1e-06')) == []


def test_a_good_trace_in_utc_has_no_violation():
    assert check_trace(GOOD_UTC, utc=True) == []


@pytest.mark.parametrize("old, new, told", BREACHES)
def test_a_broken_trace_is_caught(old, new, told):
    assert old in GOOD
    assert any(re.search(told, violation) for violation in check_trace(GOOD.replace(old, new)))


@pytest.mark.parametrize("old, new, told", UTC_BREACHES)
def test_a_broken_trace_in_utc_is_caught(old, new, told):
    assert old in GOOD_UTC
    broken = GOOD_UTC.replace(old, new)
    assert any(re.search(told, violation) for violation in check_trace(broken, utc=True))


def test_ill_formed_utf8_is_caught():
    broken = GOOD.encode().replace(b"first", b"fi\xffrst")
    assert "not UTF-8" in check_trace(broken)[0]


def test_doubles_count_not_decimals():
    """A child inside its parent by the decimals leaves it once the times are doubles."""
    violations = check_trace(later(GOOD, 90000000000000))
    assert any("ends on the end of" in violation for violation in violations)
    assert any("starts on the end of" in violation for violation in violations)


STACKS = ["MainThread;solve 1001", "MainThread;solve;step [n=3] 98998", "worker;io 1"]


@pytest.mark.parametrize(
    "lines", [[], STACKS, "\n".join(STACKS) + "\n", ("\n".join(STACKS) + "\n").encode()]
)
def test_good_stacks_have_no_violation(lines):
    assert check_collapsed(lines, {"MainThread", "worker"}) == []


@pytest.mark.parametrize(
    "lines, told",
    [
        (["MainThread;solve 0"], "whole number of at least 1"),
        (["MainThread;solve -4"], "whole number of at least 1"),
        (["MainThread;solve 1.5"], "whole number of at least 1"),
        (["MainThread;solve 01"], "whole number of at least 1"),
        (["MainThread;solve"], "whole number of at least 1"),
        (["MainThread;;solve 1"], "empty frame"),
        (["MainThread; 1"], "empty frame"),
        ([";solve 1"], "empty frame"),
        (["MainThread 1"], "no frame below the thread"),
        (["stranger;solve 1"], "does not begin with a thread's name"),
        (["MainThread;so\tlve 1"], r"has U\+0009"),
        (["MainThread;so\nlve 1"], r"has U\+000A"),
        (["MainThread;so\rlve 1"], r"has U\+000D"),
        (["MainThread;so\u2028lve 1"], r"has U\+2028"),
        (["MainThread;so\u2029lve 1"], r"has U\+2029"),
        (["MainThread;so\ud800lve 1"], r"has U\+D800"),
        (["MainThread;a 1", "MainThread;a 2"], "stands 2 times"),
        (["worker;a 1", "MainThread;a 2"], "not sorted"),
        ("MainThread;a 1\nworker;a 2", "last line has no end"),
        ("MainThread;a 1\r\nworker;a 2\r\n", "whole number of at least 1"),
        (b"MainThread;\xff 1\n", "not UTF-8"),
    ],
)
def test_broken_stacks_are_caught(lines, told):
    violations = check_collapsed(lines, {"MainThread", "worker"})
    assert any(re.search(told, violation) for violation in violations)
