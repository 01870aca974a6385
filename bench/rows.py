"""What is measured: one table of rows, from which the command, the files and the pages are made.

A row is measured in turn with its floor and its peers. What is measured is named "PROGRAM NAME", or
"PROGRAM NAME#FIELD" where it is not the time of an iteration; programs.py knows the programs.
"""

from dataclasses import dataclass, field


@dataclass(frozen=True)
class Times:
    """At most so many times the floor."""

    ratio: float

    def __str__(self):
        return f"<= {self.ratio:.3g} x"

    def is_met(self, value, floor):
        return value <= self.ratio * floor


@dataclass(frozen=True)
class AtMost:
    """At most so much, in the row's unit."""

    value: float

    def __str__(self):
        return f"<= {self.value:g}"

    def is_met(self, value, floor):
        return value <= self.value


@dataclass(frozen=True)
class Above:
    """At most so much above the floor, in the row's unit."""

    value: float

    def __str__(self):
        return f"<= floor + {self.value:g}"

    def is_met(self, value, floor):
        return value - floor <= self.value


@dataclass(frozen=True)
class Row:
    name: str
    value: str
    floor: str | None = None
    floor_name: str = ""
    target: Times | AtMost | Above | None = None
    unit: str = "ns"
    peers: dict = field(default_factory=dict)


TICKS = "two readings of the time-stamp counter"
PROTOTYPE = "two edges of 16 bytes in a buffer"


def ticks(name, value, ratio, **more):
    """A row beside two readings of the clock."""
    return Row(name, f"native {value}", "native floorTwoTicks", TICKS, Times(ratio), **more)


NATIVE = [
    Row("inactive scope", "native inactiveScope", "native floorTwoLoads",
        "two relaxed loads and predicted branches", Times(1.6),
        peers={"LTTng-UST": "lttng inactivePair"}),
    Row("inactive scope, while others are recorded", "native inactiveScopeBesideOthers",
        "native floorTwoLoads", "two relaxed loads and predicted branches", Times(1.6)),
    Row("inactive scope, two context entries", "native inactiveScopeWithContext",
        "native floorTwoLoads", "two relaxed loads and predicted branches"),
    Row("inactive pair by the C interface", "native unwantedPair", "native floorTwoCalls",
        "two calls through pointers into a library that looks at a flag", Times(1.15)),
    ticks("recorded pair", "recordedPair", 1.15,
          peers={PROTOTYPE: "native prototypePair", "LTTng-UST": "lttng recordedPair"}),
    Row("recorded pair, 1,000 names, depth 50", "native recordedPairNested",
        "native floorTwoTicksNested", TICKS, Times(1.15)),
    Row("recorded pair, memory growing", "native recordedPairGrowing", "native floorGrowing",
        PROTOTYPE + " that grows", Times(1.2)),
    ticks("recorded pair, a number as context", "recordedPairWithNumber", 1.8),
    ticks("recorded pair, two texts of the program as context", "recordedPairWithTwoTexts", 1.8),
    ticks("recorded pair, two literal texts as context", "recordedPairWithTwoLiterals", 1.25),
    Row("recorded pair, through context sets", "native recordedPairByContextSets",
        target=AtMost(120)),
    ticks("recorded, counted and profiled pair", "heardByAll", 1.5),
    Row("recorded, counted and profiled pair, 1,000 names, depth 50", "native heardByAllNested",
        "native floorTwoTicksNested", TICKS, Times(1.5)),
    Row("recorded pair, each of two threads", "native recordedPairOfThreads/threads:2",
        "native recordedPairOfThreads/threads:1", "one thread alone", Times(1.05)),
    Row("pair delivered to a listener that does nothing", "native deliveredPair",
        "native floorCounted", "two calls into a library and of a listener that adds one"),
    Row("counted pair", "native countedPair", "native floorCounted",
        "two calls into a library and of a listener that adds one", Times(1.4)),
    Row("counted pair, by context", "native countedPairByContext", "native floorCountedByContext",
        "the same, in a table by name and text", Times(2.2)),
    Row("counted pair, 1,000 names, depth 50", "native countedPairNested", target=AtMost(6)),
    ticks("profiled pair", "profiledPair", 1.5),
    Row("profiled pair, 1,000 names, depth 50", "native profiledPairNested",
        "native floorTwoTicksNested", TICKS, Times(1.5)),
    Row("memory of a recorded pair", "growth recording 10000000#bytes", target=AtMost(32),
        unit="bytes"),
    Row("memory of a recorded pair with two literal texts", "native recordedTextsGrowing#bytes",
        target=AtMost(48), unit="bytes"),
    Row("size of a trace file, an event", "growth trace-file 10000000#bytes", unit="bytes"),
    Row("trace-event JSON to memory, an event", "native jsonToMemory", "native floorJsonToMemory",
        "a writer by hand", Times(1.4)),
    Row("trace-event JSON to a file, an event", "native jsonToFile", "native floorJsonToFile",
        "a writer by hand, in pieces of 256 KiB", Times(1.4)),
    Row("trace-event JSON to a file, memory beyond the recording",
        "native jsonToFile#megabytes", target=AtMost(4), unit="MB"),
    Row("record of seven fields in a struct array", "native structRecord",
        "native floorStructRecord", "seven blocks and a copy into each", AtMost(400)),
    Row("record of seven fields in a struct array, destroyed",
        "native structRecordDestroyed", target=AtMost(100)),
    Row("record of seven fields in a struct array, memory",
        "growth struct-arrays 1000000#bytes", target=AtMost(500),
        unit="bytes"),
    Row("statistics by name, an event of 10^7", "native statisticsByName",
        "native floorStatistics", "one pass that adds up by name", AtMost(10)),
    Row("statistics by context, an event", "native statisticsByContext"),
    Row("logger line to /dev/null", "native loggerLine", "native floorOneWrite", "one write",
        Times(2)),
    Row("external client: producing a pair", "native producedPair",
        "native floorTwoTicksAndACopy", "two readings and a copy of 64 bytes", Times(1.5),
        peers={"LTTng-UST": "lttng recordedPair"}),
    Row("external client: producing a pair with two texts", "native producedPairWithContext",
        "native floorTwoTicksAndACopy", "two readings and a copy of 64 bytes"),
    Row("external client: collecting an event into the recorder",
        "native collectedIntoTheRecorder", target=AtMost(100)),
]

COLD = [
    Row("cold: inactive scope", "native coldInactivePair"),
    Row("cold: recorded pair", "native coldRecordedPair", "native coldPrototypePair", PROTOTYPE,
        Times(1.2)),
    Row("cold: counted pair", "native coldCountedPair", "native coldPrototypePair", PROTOTYPE),
    Row("cold: profiled pair", "native coldProfiledPair", "native coldPrototypePair", PROTOTYPE),
]

CLASS = "a prototype in C"

PYTHON = [
    Row("`with vantrace.event(\"n\")`, recorded", "events event", "events floor_event", CLASS,
        Times(60 / 46), peers={"a class in Python": "events peer_class"}),
    Row("`vantrace.event`, recorded, a hundred names",
        "events event_names", "events floor_event_names", CLASS,
        Times(60 / 46)),
    Row("`vantrace.event`, recorded, a number as context",
        "events event_number", "events floor_event_number",
        CLASS, Times(75 / 54)),
    Row("`vantrace.event`, recorded, two numbers as context",
        "events event_numbers", "events floor_event_numbers", CLASS,
        Times(75 / 57)),
    Row("`with vantrace.event(\"n\")`, inactive",
        "events event_inactive", "events floor_event_inactive", CLASS,
        Times(40 / 32), peers={"logging.debug, off": "events peer_logging"}),
    Row("decorator, over the plain call, recorded", "events decorated", "events floor_decorated",
        TICKS, Times(25 / 19)),
    Row("decorator, over the plain call, off at import", "events decorated_off",
        target=AtMost(1)),
    Row("`vantrace.instant`, recorded", "events instant", "events floor_instant", CLASS,
        Times(25 / 18)),
    Row("`vantrace.counter`, recorded", "events counter", "events floor_counter", CLASS,
        Times(18 / 12)),
    Row("published method without arguments", "events method", "events floor_method",
        "a C function that reads the clock", Times(50 / 34)),
    Row("published method with a text", "events method_text", "events floor_method_text",
        "a C function that looks a text up", AtMost(150)),
    Row("Python function traced, a call of fib(27)", "functions fib.warm#call",
        "functions fib.floor_frame#call", "a frame hook that stores 16 bytes", Times(1.35),
        peers={"cProfile": "functions fib.cprofile#call", "yappi": "functions fib.yappi#call"}),
    Row("Python function not recorded, under the hook", "functions fib.hook#call",
        "functions fib.floor_frame_empty#call", "an empty frame hook"),
    Row("Python function traced, with exact totals", "functions fib.totals#call",
        "functions fib.floor_frame#call", "a frame hook that stores 16 bytes", Times(1.35)),
    Row("Python function traced, memory growing", "functions fib.cold#call",
        "functions fib.floor_frame_growing#call", "the same hook in memory that grows",
        Times(1.4)),
    Row("Python function traced, with C calls", "functions fib.c_calls#call",
        "functions fib.floor_profile#call", "an empty profile hook", Times(95 / 80),
        peers={"cProfile": "functions fib.cprofile#call"}),
    Row("fib(27), traced", "functions fib.warm", "functions fib.untraced", "untraced",
        Times(1.75), unit="ms", peers={"cProfile": "functions fib.cprofile"}),
    Row("pure-Python JSON coder, traced", "functions json.warm", "functions json.untraced",
        "untraced", Times(1.25), unit="ms", peers={"cProfile": "functions json.cprofile"}),
    Row("`ast.unparse`, traced", "functions unparse.warm", "functions unparse.untraced",
        "untraced", Times(1.25), unit="ms", peers={"cProfile": "functions unparse.cprofile"}),
    Row("NumPy, solving 300 x 300, traced", "functions numpy.warm", "functions numpy.untraced",
        "untraced", Times(1.02), unit="ms", peers={"cProfile": "functions numpy.cprofile"}),
    Row("memory of a traced call", "functions fib.memory", target=AtMost(24), unit="bytes"),
    Row("1,000,000 events to JSON", "exports json", "exports floor_json",
        "a writer by hand in C", Times(0.12 / 0.065), unit="ms"),
    Row("1,000,000 events to .json.gz", "exports json_gz", "exports floor_json_gz",
        "that JSON and libdeflate alone, level 1", Times(1.3), unit="ms"),
    Row("`import vantrace`", "processes import", "processes bare", "the bare interpreter",
        Above(25), unit="ms"),
    Row("`./dev run` of an empty script", "processes dev_run", "processes bare_script",
        "python script.py", unit="ms"),
]

GROWTH = [
    Row("recording, 10^7 events over 10^5", "growth recording 10000000#each",
        "growth recording 100000#each", "an event of 10^5", Times(1.25)),
    Row("statistics by name, 10^7 over 10^5", "growth statistics 10000000#each",
        "growth statistics 100000#each", "an event of 10^5", Times(1.25)),
    Row("trace-event JSON, 10^7 over 10^5", "growth json 10000000#each",
        "growth json 100000#each", "an event of 10^5", Times(1.25)),
    Row("trace file, 10^7 over 10^5", "growth trace-file 10000000#each",
        "growth trace-file 100000#each", "an event of 10^5", Times(1.25)),
    Row("struct array, 10^6 over 10^4", "growth struct-arrays 1000000#each",
        "growth struct-arrays 10000#each", "a record of 10^4", Times(1.25)),
    Row("query for a name in 1 % of the chunks, an event of all", "growth rare-name 20000000#each",
        "growth statistics 10000000#each", "statistics of all names"),
    Row("query for a name in 1 % of the chunks, recorded bytes that it reads",
        "growth rare-name 20000000#bytes", target=AtMost(2), unit="%"),
]

# Of the pairs of eight threads. The longest ones waited for the turn of another thread.
DELAYS = [
    ("half of the pairs take at most", "p50", None),
    ("99.99 % of the pairs take at most", "p9999", Above(1000)),
    ("longest pair", "longest", None),
]

SWITCHING = [
    Row(f"an instrument switched: {what}", f"switching instrument#{field}",
        f"switching nothing#{field}", "nothing switched", target, unit="us")
    for what, field, target in DELAYS
] + [
    Row(f"a listener added and removed: {what}", f"switching listener#{field}",
        f"switching nothing#{field}", "nothing switched", target, unit="us")
    for what, field, target in DELAYS
]

SECTIONS = {
    "Native code": NATIVE,
    "Cold caches": COLD,
    "From Python": PYTHON,
    "Growth": GROWTH,
    "Switching while eight threads record": SWITCHING,
}
ROWS = [row for rows in SECTIONS.values() for row in rows]
