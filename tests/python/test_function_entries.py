"""Each way in which the interpreter enters a Python function is seen, specialised or not."""

import functools

import pytest

import vantrace

ROUNDS = 200


class Target:
    """Special methods that the interpreter calls by itself."""

    items = (1, 2)

    def __init__(self):
        self.kept = 1

    def __getitem__(self, key):
        return key

    def __setitem__(self, key, value):
        pass

    def __delitem__(self, key):
        pass

    def __contains__(self, key):
        return True

    def __iter__(self):
        return iter(self.items)

    def __len__(self):
        return 1

    def __bool__(self):
        return True

    def __hash__(self):
        return 3

    def __eq__(self, other):
        return True

    def __lt__(self, other):
        return True

    def __add__(self, other):
        return 1

    def __call__(self, *arguments):
        return 4

    def __getattr__(self, name):
        return 5

    def __enter__(self):
        return self

    def __exit__(self, *error):
        return None

    @property
    def size(self):
        return 6

    def method(self):
        return 7

    @classmethod
    def of_class(cls):
        return 8

    @staticmethod
    def of_none():
        return 9


def plain(number=0):
    return number


def named(*, number=0):
    return number


def endless():
    while True:
        yield 1


def decorated(function):
    @functools.wraps(function)
    def wrapper(*arguments):
        return function(*arguments)

    return wrapper


wrapped = decorated(plain)
t, steps = Target(), endless()

BODIES = {
    "t[1]": "__getitem__",
    "t[1] = 2": "__setitem__",
    "del t[1]": "__delitem__",
    "1 in t": "__contains__",
    "iter(t)": "__iter__",
    "a, b = t": "__iter__",
    "for _ in t: pass": "__iter__",
    "len(t)": "__len__",
    "not t": "__bool__",
    "hash(t)": "__hash__",
    "t == 1": "__eq__",
    "t < 1": "__lt__",
    "t + 1": "__add__",
    "t()": "__call__",
    "t(*(1, 2))": "__call__",
    "t.missing": "__getattr__",
    "t.size": "size",
    "t.method()": "method",
    "Target.of_class()": "of_class",
    "t.of_none()": "of_none",
    "Target()": "__init__",
    "with t: pass": "__exit__",
    "plain()": "plain",
    "plain(1)": "plain",
    "plain(number=1)": "plain",
    "plain(*(1,))": "plain",
    "plain(**{'number': 1})": "plain",
    "named(number=1)": "named",
    "wrapped(1)": "plain",
    "list(map(plain, (1,)))": "plain",
    "sorted((1,), key=plain)": "plain",
    "next(steps)": "endless (resumed)",
    "[n for n in (1,)]": "<listcomp>",
    "(lambda: 1)()": "<lambda>",
}


def loop_of(body):
    names = dict(globals(), __name__="loop")
    exec(f"def loop():\n for _ in range({ROUNDS}):\n  {body}\n", names)
    return names["loop"]


@pytest.mark.parametrize("runs_before", [0, 1, 3])
@pytest.mark.parametrize("body", BODIES)
def test_a_function_is_seen_each_time(body, runs_before):
    loop = loop_of(body)
    for _ in range(runs_before):
        loop()
    with vantrace.record(functions=True) as recording:
        loop()
        loop()
    last = BODIES[body]
    counts = [row.count for row in recording.summary() if row.name.rpartition(".")[2] == last]
    assert counts == [2 * ROUNDS]
