"""How late one recording is against another, and how far they are apart then.

    compare.py REFERENCE OUT

Both are stereo floats without a header. Prints the delay of OUT in samples and the level of the difference in
decibels relative to REFERENCE, -inf for equal samples, over what both have.
"""

from __future__ import annotations

import math
import sys
from array import array

CHANNELS, PATCH, LONGEST_DELAY = 2, 64, 60000


def read(path: str) -> array[float]:
    samples = array("f")
    with open(path, "rb") as file:
        samples.frombytes(file.read())
    return samples[::CHANNELS]


def find_delay(reference: array[float], out: array[float]) -> int:
    """The shift at which the loudest stretch of the reference is found again with the least error."""
    middle = len(reference) // 2
    start = max(range(middle // 2, middle), key=lambda i: abs(reference[i]))
    patch = reference[start : start + PATCH]
    best, least = 0, math.inf
    for delay in range(min(LONGEST_DELAY, len(out) - start - PATCH)):
        error = 0.0
        for i in range(PATCH):
            error += (patch[i] - out[start + delay + i]) ** 2
            if error >= least:
                break
        else:
            best, least = delay, error
    return best


def main() -> None:
    reference, out = read(sys.argv[1]), read(sys.argv[2])
    delay = find_delay(reference, out)
    length = min(len(reference), len(out) - delay)
    power = sum(x * x for x in reference[:length])
    error = sum((x - y) ** 2 for x, y in zip(reference[:length], out[delay : delay + length]))
    print(delay, f"{10 * math.log10(error / power):.0f}" if error > 0 else "-inf")


if __name__ == "__main__":
    main()
