"""Texts that recordings hold and what exports make of them, shared by the tests of exports."""

import re
import unicodedata

from hypothesis import strategies as st

ODD_TEXTS = [
    "",
    " ",
    ";",
    "a;b",
    "%s%n%d",
    'quo"te',
    "back\\slash",
    "tab\there",
    "line\nend",
    "return\rend",
    "\x01\x1f\x7f\x85",
    "\u2028\u2029",
    "\U0001f600",
    "e\u0301",
    "\ufeffmark",
    "\ufffe",
    "\U0010ffff",
    "Profile",
    "process_name",
    "a 1",
    "</script>",
    "x" * 300,
]

# Any text but for NUL, which no name may hold.
texts = st.sampled_from(ODD_TEXTS) | st.text(
    st.characters(blacklist_categories=("Cs",), blacklist_characters="\0"), max_size=8
)
# Mostly few names, so that events of equal names meet.
names = st.sampled_from(["a", "b", "solve"]) | texts


def is_replaced(character, also=""):
    return (
        unicodedata.category(character) == "Cc" or character in "\u2028\u2029" or character in also
    )


def stands_for(exported, original, also=""):
    """Whether an export shows this name for the original: what it must not hold may be anything."""
    if original == "":
        return exported == "(unnamed)"
    pattern = "".join(".*" if is_replaced(c, also) else re.escape(c) for c in original)
    return re.fullmatch(pattern, exported, re.DOTALL) is not None
