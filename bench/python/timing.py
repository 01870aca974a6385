"""What the programs of Python rows share.

Each is called with names of what to measure, and writes {name: [sample, ..]} as JSON; every sample
is taken in turn with one of each other name. Times are CPU time of the process, with that of helper
threads.
"""

import gc
import json
import sys
import time

SAMPLES = 5


def process_time(work):
    gc.collect()
    gc.disable()
    began = time.process_time_ns()
    work()
    took = time.process_time_ns() - began
    gc.enable()
    return took


def take_turns(measurements, samples=SAMPLES):
    """So many samples of each measurement, by functions that take one."""
    taken = {name: [] for name in measurements}
    for _ in range(samples):
        for name, sample in measurements.items():
            taken[name].append(sample())
    return taken


def main(measurements, samples=SAMPLES):
    """Measurements are functions that prepare one, and give the function that takes a sample."""
    wanted = {name: measurements[name]() for name in sys.argv[1:]}
    json.dump(take_turns(wanted, samples), sys.stdout)
