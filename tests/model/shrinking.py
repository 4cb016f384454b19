"""Makes a failing list of steps shorter: delta debugging."""

import time


def shrink(steps, fails, limit_s):
    """The shortest list found in that time for which `fails` still holds; `fails(steps)` has to."""
    end = time.monotonic() + limit_s
    size = max(1, len(steps) // 2)
    while time.monotonic() < end:
        shorter = without_a_part(steps, fails, size, end)
        if shorter is not None:
            steps = shorter
            size = min(size, max(1, len(steps) // 2))
        elif size == 1:
            break
        else:
            size //= 2
    return steps


def without_a_part(steps, fails, size, end):
    """The steps without one run of them, the last that can go; None when none can."""
    for start in range(max(0, len(steps) - size), -1, -size):
        if time.monotonic() > end:
            return None
        shorter = steps[:start] + steps[start + size:]
        if shorter and fails(shorter):
            return shorter
    return None
