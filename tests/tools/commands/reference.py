"""Figures of rankings by their definitions, written down without the tool."""

import math
import struct

MASK = (1 << 64) - 1


def single(value):
    """The nearest 32-bit number."""
    return struct.unpack("f", struct.pack("f", value))[0]


def ranking(scores, excluded=()):
    """Items but the excluded ones, best first, the lower number first among equals."""
    items = [item for item in range(len(scores)) if item not in excluded]
    return sorted(items, key=lambda item: (-scores[item], item))


def figures(ranked, relevant, k):
    """One user's figures at K."""
    hits = [place for place, item in enumerate(ranked[:k], 1) if item in relevant]
    best = min(k, len(relevant))
    return {
        "hit_rate": 1.0 if hits else 0.0,
        "precision": len(hits) / k,
        "recall": len(hits) / len(relevant),
        "map": sum(sum(other <= place for other in hits) / place for place in hits) / best,
        "ndcg": sum(1 / math.log2(place + 1) for place in hits)
        / sum(1 / math.log2(place + 1) for place in range(1, best + 1)),
    }


def auc(scores, excluded, relevant):
    """The share of pairs in the right order; None where there is no pair."""
    others = [item for item in range(len(scores)) if item not in excluded | relevant]
    if not others:
        return None
    total = 0.0
    for item in relevant:
        for other in others:
            total += (scores[item] > scores[other]) + 0.5 * (scores[item] == scores[other])
    return total / (len(relevant) * len(others))


def average(values):
    values = [value for value in values if value is not None]
    return sum(values) / len(values)


class Generator:
    """xoshiro256** seeded by SplitMix64 (Blackman, Vigna, 2021)."""

    def __init__(self, seed):
        self.state = []
        for i in range(1, 5):
            z = (seed + i * 0x9e3779b97f4a7c15) & MASK
            z = ((z ^ z >> 30) * 0xbf58476d1ce4e5b9) & MASK
            z = ((z ^ z >> 27) * 0x94d049bb133111eb) & MASK
            self.state.append(z ^ z >> 31)

    @staticmethod
    def rotated(x, k):
        return (x << k | x >> (64 - k)) & MASK

    def next(self):
        s = self.state
        result = self.rotated(s[1] * 5 & MASK, 7) * 9 & MASK
        t = s[1] << 17 & MASK
        s[2] ^= s[0]
        s[3] ^= s[1]
        s[1] ^= s[2]
        s[0] ^= s[3]
        s[2] ^= t
        s[3] = self.rotated(s[3], 45)
        return result

    def uniform(self):
        return single((self.next() >> 11) * 2.0 ** -53)


def sampled_hit_rate(scores_of, pairs, num_items, k, seed):
    """A pair is a hit if fewer than K of 10 K random items have a higher score than its item."""
    random = Generator(seed)
    hits = 0
    for user, held_out in pairs:
        scores = scores_of(user)
        better = 0
        for _ in range(10 * k):
            if better == k:
                break
            item = int(single(random.uniform() * num_items))
            # Rounding can give the number of items, which is none of them.
            better += item < num_items and scores[item] > scores[held_out]
        hits += better < k
    return single(hits / len(pairs))
