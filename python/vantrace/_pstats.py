"""Trace files as the statistics that `pstats.Stats` reads, `.prof`."""

import marshal
from collections import defaultdict

from ._whole_file import write_whole

_SECOND = 1e9


def save_pstats(trace, path):
    """Writes calls, times and callers by name; what a thread calls first has no caller."""
    write_whole(path, marshal.dumps(statistics_of(trace.stacks())))


def statistics_of(stacks):
    """{(file, line, name): (primitive calls, calls, self, total, callers)}, in seconds."""
    totals = _totals(stacks)
    is_outermost, is_first_edge = _outermost(stacks)
    functions = defaultdict(_Sums)
    callers = defaultdict(lambda: defaultdict(_Sums))
    for i, (parent, name, calls, own) in enumerate(stacks):
        if parent < 0:
            continue
        functions[name].add(calls, own, totals[i], is_outermost[i])
        if stacks[parent][0] >= 0:
            callers[name][stacks[parent][1]].add(calls, own, totals[i], is_first_edge[i])
    return {
        _key(name): (*sums.result(), {_key(c): s.result() for c, s in callers[name].items()})
        for name, sums in functions.items()
    }


class _Sums:
    def __init__(self):
        self.calls = self.primitive_calls = self.own = self.total = 0

    def add(self, calls, own, total, is_outermost):
        self.calls += calls
        self.own += own
        if is_outermost:
            self.primitive_calls += calls
            self.total += total

    def result(self):
        return self.primitive_calls, self.calls, self.own / _SECOND, self.total / _SECOND


def _key(name):
    return ("~", 0, name)


def _totals(stacks):
    totals = [own for *_, own in stacks]
    for i in range(len(stacks) - 1, -1, -1):
        if stacks[i][0] >= 0:
            totals[stacks[i][0]] += totals[i]
    return totals


def _function(stacks, i):
    """The name of a stack's innermost call; None for a thread."""
    return stacks[i][1] if i >= 0 and stacks[i][0] >= 0 else None


def _outermost(stacks):
    """Of each stack: whether its name is in it once, and whether the call of it by its caller is."""
    children = defaultdict(list)
    for i, (parent, *_) in enumerate(stacks):
        children[parent].append(i)
    names, edges = defaultdict(int), defaultdict(int)
    has_name, has_edge = [False] * len(stacks), [False] * len(stacks)
    waiting = [(i, True) for i in children[-1]]
    while waiting:
        i, enters = waiting.pop()
        name = _function(stacks, i)
        edge = (_function(stacks, stacks[i][0]), name)
        if not enters:
            names[name] -= 1
            edges[edge] -= 1
            continue
        has_name[i], has_edge[i] = names[name] == 0, edges[edge] == 0
        names[name] += 1
        edges[edge] += 1
        waiting.append((i, False))
        waiting += ((child, True) for child in children[i])
    return has_name, has_edge
