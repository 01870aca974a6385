"""The rules that exported collapsed stacks keep, checked from their text alone."""

import re
import unicodedata
from collections import Counter


def check_collapsed(lines, thread_names=None):
    """Returns what is wrong with collapsed stacks given as lines, or as a file's bytes or text.

    With thread names given, each stack has to begin with one of them.
    """
    if isinstance(lines, bytes):
        try:
            lines = lines.decode("utf-8")
        except UnicodeDecodeError as error:
            return [f"not UTF-8: {error}"]
    violations = []
    if isinstance(lines, str):
        if lines and not lines.endswith("\n"):
            violations.append("the last line has no end")
        lines = lines.split("\n")[:-1]
    stacks = Counter()
    for line in lines:
        match = re.fullmatch(r"(.*) ([1-9][0-9]*)", line, re.DOTALL)
        if not match:
            violations.append(f"{line!r}: is no stack and whole number of at least 1")
            continue
        stacks[match[1]] += 1
        violations += [f"{line!r}: {fault}" for fault in _stack_faults(match[1], thread_names)]
    violations += [f"{stack!r}: stands {n} times" for stack, n in stacks.items() if n > 1]
    by_bytes = sorted(lines, key=lambda line: line.encode("utf-8", "surrogatepass"))
    if list(lines) != by_bytes:
        violations.append("the lines are not sorted")
    return violations


def _stack_faults(stack, thread_names):
    frames = stack.split(";")
    if len(frames) < 2:
        yield "has no frame below the thread"
    if "" in frames:
        yield "has an empty frame"
    if thread_names is not None and frames[0] not in thread_names:
        yield f"does not begin with a thread's name {sorted(thread_names)}"
    for character in stack:
        if unicodedata.category(character) in ("Cc", "Cs") or character in "\u2028\u2029":
            yield f"has U+{ord(character):04X}"
