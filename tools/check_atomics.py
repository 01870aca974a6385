#!/usr/bin/python3
"""Checks that every atomic operation weaker than sequentially consistent is argued for.

usage: check_atomics.py ROOT

Either where it stands, in a comment of its own paragraph (the lines without a blank one between) that
says what it pairs with or why relaxed is enough; or where its object is declared, in the same file
or a header that it may see, in a comment that names both sides, the release and the acquire, or says
relaxed. Tests are left out.
"""

import collections
import pathlib
import re
import sys

FOLDERS = ("zandor", "vantrace", "python")
SUFFIXES = {".c", ".h", ".cpp", ".hpp"}
OPERATION = re.compile(
    r"(?:memory_order(?:_|::)|__ATOMIC_)(relaxed|acquire|release|acq_rel|consume)\b", re.I
)
CALL = re.compile(
    r"(\w+)(?:\([^()]*\)|\[[^][]*\])*(?:\.|->)"
    r"(?:load|store|exchange|wait|fetch_\w+|compare_exchange_\w+)\("
)
DECLARED = re.compile(r"\bstd::(?:array<std::)?atomic<.*>\s+(\w+)\s*[;{=\[]")
ARGUED_HERE = re.compile(r"\b(?:pairs with|partner|relaxed)\b", re.I)
RELAXED = re.compile(r"\brelaxed\b", re.I)
BOTH_SIDES = re.compile(r"(?=.*\breleas(e|es|ed)\b)(?=.*\bacquir(e|es|ed)\b)", re.I)


def split(line):
    """The code and the comment of a line."""
    code, _, comment = line.partition("//")
    return code.strip(), comment.strip("/!< ")


def paragraphs(text):
    """The paragraphs of a text, as lists of line number, code and comment."""
    paragraph = []
    for number, line in enumerate([*text.split("\n"), ""], 1):
        if line.strip():
            paragraph.append((number, *split(line)))
        elif paragraph:
            yield paragraph
            paragraph = []


def declarations(text):
    """Each atomic object that is declared in a text, with the comment that it stands below."""
    for paragraph in paragraphs(text):
        above, was_comment = "", False
        for _, code, comment in paragraph:
            if not code:
                above = f"{above} {comment}" if was_comment else comment
            elif match := DECLARED.search(code):
                yield match[1], f"{above} {comment}"
            was_comment = not code


def argued(text):
    """Object and order of what the declarations in a text argue for."""
    for name, comment in declarations(text):
        if RELAXED.search(comment):
            yield name, "relaxed"
        if BOTH_SIDES.search(comment):
            yield from ((name, order) for order in ("acquire", "release", "acq_rel"))


def operations(paragraph):
    """Line, object and order of each operation; its call may begin in a line before."""
    text, lines = "", []
    for number, code, _ in paragraph:
        lines.append((len(text), number))
        text += code + " "
    for match in OPERATION.finditer(text):
        objects = CALL.findall(re.sub(r"\s*(\.|->)\s*", r"\1", text[: match.start()]))
        number = max(number for begin, number in lines if begin <= match.start())
        yield number, objects[-1] if objects else None, match[1].lower()


def problems_of(text, known):
    for paragraph in paragraphs(text):
        if not ARGUED_HERE.search(" ".join(comment for _, _, comment in paragraph)):
            for number, name, order in operations(paragraph):
                if (name, order) not in known:
                    yield number, name, order


def is_product(path):
    is_test = path.stem.endswith("_test") or "testing" in path.parts
    return path.suffix in SUFFIXES and not is_test


def sources(root):
    """Path from the root and text of each source of the product."""
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if is_product(path.relative_to(root)):
                yield path.relative_to(root), path.read_text(encoding="utf-8")


def problems(root):
    texts = dict(sources(root))
    public, private = set(), collections.defaultdict(set)
    for path, text in texts.items():
        if path.suffix in (".h", ".hpp"):
            (public if "include" in path.parts else private[path.parent]).update(argued(text))
    for path, text in texts.items():
        known = public | private[path.parent] | set(argued(text))
        for line, name, order in problems_of(text, known):
            yield f"{path}:{line}: {order} on {name} has no reason or partner"


def main(root):
    found = list(problems(pathlib.Path(root).resolve()))
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
