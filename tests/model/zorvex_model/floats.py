"""Single-precision arithmetic in the groupings of the contract, and the comparison of floats.

Loading the library sets flush-to-zero and denormals-are-zero in this very thread, so NumPy's
results follow the same mode.
"""

import struct

import numpy as np

F = np.float32
SMALLEST_NORMAL = F(2.0 ** -126)


def bits(value):
    """The 32 bits of a float."""
    return struct.unpack("<I", struct.pack("<f", value))[0]


def dots(left, right):
    """The dot products of the rows of two matrices: four interleaved partial sums, combined as
    ((s0 + s2) + (s1 + s3)), then the tail one by one; below four elements one running sum."""
    products = left * right
    count, d = products.shape
    if d < 4:
        total = np.zeros(count, F)
        for k in range(d):
            total = total + products[:, k]
        return total
    whole = d // 4 * 4
    sums = np.zeros((count, 4), F)
    for k in range(0, whole, 4):
        sums = sums + products[:, k:k + 4]
    total = (sums[:, 0] + sums[:, 2]) + (sums[:, 1] + sums[:, 3])
    for k in range(whole, d):
        total = total + products[:, k]
    return total


def close(actual, wanted, relative=0.0, absolute=0.0):
    """Which elements agree: the same bits, both NaN, both denormal or zero (where results
    differ from strict arithmetic by design), or near enough. Zeros of both signs differ when no
    nearness is allowed."""
    same = actual.view(np.uint32) == wanted.view(np.uint32)
    if same.all():
        return same
    same |= np.isnan(actual) & np.isnan(wanted)
    exponent = np.uint32(0x7f800000)
    a, b = actual.view(np.uint32), wanted.view(np.uint32)
    tiny = ((a & exponent) == 0) & ((b & exponent) == 0)
    if relative or np.any(absolute):
        same |= tiny
        finite = np.isfinite(actual) & np.isfinite(wanted)
        difference = np.abs(actual.astype(np.float64) - wanted.astype(np.float64))
        same |= finite & (difference <= absolute + relative * np.abs(wanted.astype(np.float64)))
    else:
        denormal = ((a << np.uint32(1)) != 0) | ((b << np.uint32(1)) != 0)
        same |= tiny & denormal & ((a >> np.uint32(31)) == (b >> np.uint32(31)))
    return same


# Numbers that look for edges: zeros of both signs, the denormal edge, the cut-offs of training,
# what overflows when multiplied, and what is no number.
SPECIAL = [0.0, -0.0, 1.0, -1.0, 0.5, 2.0, 35.0, -35.0, 36.0, -36.0, 40.0, -40.0, 100.0, -100.0,
           1e-30, -1e-30, 1e10, -1e10, 3e38, -3e38, 1e-45, -1e-42, float("inf"), float("-inf"),
           float("nan")]
SPECIAL_BITS = np.array([0x00000001, 0x80000001, 0x007fffff, 0x00800000, 0x80800000, 0x7f7fffff,
                         0x7f800000, 0xff800000, 0x7fc00000, 0x80000000, 0, 0x3f800000, 0xbf800000,
                         0x420c0000, 0xc20c0000, 0x42200000, 0xc2200000],
                        np.uint32).view(F)
