"""The generator of a thread: xoshiro256** seeded through SplitMix64 (operations and model)."""

import math

import numpy as np

from .floats import F

MASK = 0xffffffffffffffff
INITIAL = (0x75c31992e62e41b5, 0x72e5b1f4a9d5c913, 0x8c7ea7d897f0b2a1, 0x3d5e8f6c2b1a9047)
TURN = F(6.2831855)
TO_UNIT = 2.0 ** -53

# logf and cosf may be a unit in the last place off each, and their product is rounded once more.
NORMAL_ERROR = 4 * 2.0 ** -23


def mix(z):
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9 & MASK
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb & MASK
    return z ^ (z >> 31)


class Generator:
    def __init__(self):
        self.state = INITIAL

    def seed(self, seed):
        self.state = tuple(mix((seed + (i + 1) * 0x9e3779b97f4a7c15) & MASK) for i in range(4))

    def top_bits(self, count):
        """The top 53 bits of the next outputs."""
        s0, s1, s2, s3 = self.state
        found = []
        for _ in range(count):
            x = s1 * 5 & MASK
            x = (x << 7 | x >> 57) & MASK
            found.append((x * 9 & MASK) >> 11)
            t = s1 << 17 & MASK
            s2 ^= s0
            s3 ^= s1
            s1 ^= s2
            s0 ^= s3
            s2 ^= t
            s3 = (s3 << 45 | s3 >> 19) & MASK
        self.state = s0, s1, s2, s3
        return found

    def uniforms(self, count):
        return (np.array(self.top_bits(count), np.float64) * TO_UNIT).astype(F)

    def uniform(self):
        return F(self.top_bits(1)[0] * TO_UNIT)

    def normals(self, count):
        """Normal variates, near to NORMAL_ERROR of themselves."""
        found = np.empty(count, F)
        for i in range(count):
            u1, u2 = self.uniforms(2)
            while u1 == 0:
                u1 = self.uniform()
            found[i] = F(math.cos(float(u2 * TURN))) * F(math.sqrt(-2.0 * math.log(float(u1))))
        return found


def seed(w):
    value = w.r.choice([0, 1, MASK, w.r.getrandbits(64)])
    w.call("zx_rng_seed", value)
    w.generator.seed(value)


def uniform(w):
    w.same_float(w.call("zx_rng_uniform"), w.generator.uniform())


def uniform_range(w):
    low, high = F(w.number()), F(w.number())
    if w.r.random() < 0.1:
        high = low
    got = w.call("zx_rng_uniform_range", low, high)
    w.same_float(got, (high - low) * w.generator.uniform() + low)


def normal(w):
    w.same_float(w.call("zx_rng_normal"), w.generator.normals(1)[0], NORMAL_ERROR)


OPERATIONS = [(2, seed), (3, uniform), (3, uniform_range), (3, normal)]
