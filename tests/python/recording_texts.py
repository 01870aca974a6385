"""Texts that recordings hold and what exports make of them, shared by the tests of exports."""

import re

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


def shown(name):
    """The name as exports show it: what breaks lines or files in some viewer is a space."""
    return re.sub("[\x00-\x1f\x7f-\x9f\u2028\u2029]", " ", name) or "(unnamed)"


def as_frame(name):
    """The same in a stack, where ';' parts frames."""
    return shown(name).replace(";", ",")
