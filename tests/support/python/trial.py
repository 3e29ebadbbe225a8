"""What tests that are scripts have in common: leave out, wait, expect."""

import sys
import time


def skip(why):
    """Ends the test as skipped; the CMake lists name 77 as the code for that."""
    print("skipped:", why)
    sys.exit(77)


def fail(what):
    sys.exit(f"FAILED: {what}")


def expect(condition, what):
    if not condition:
        fail(what)


def wait_until(what, condition, seconds):
    """The first value of CONDITION that is true; fails the test after SECONDS."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            fail(f"this did not come within {seconds} s: {what}")
        time.sleep(0.1)
    return value
