"""How tests wait on a machine that others use too."""
import pathlib
import time

# Seconds that a test waits for what must happen. It says nothing of how fast that should be: a busy machine takes long for
# anything, and only what never happens takes longer than this.
PATIENCE = 100


def until(condition, what):
    """Waits for `condition()` to be true and returns it; an AssertionError that names `what` when it never is."""
    end = time.monotonic() + PATIENCE
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {PATIENCE} s: {what}")
        time.sleep(0.02)


def schedule(task):
    """Seconds that a thread (`PID`, `PID/task/TID`, `thread-self`) has had a CPU, and has waited for one that others had."""
    ran, waited, _ = pathlib.Path(f"/proc/{task}/schedstat").read_text().split()
    return int(ran) / 1e9, int(waited) / 1e9
