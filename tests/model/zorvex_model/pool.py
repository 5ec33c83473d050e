"""The arena pool."""

import ctypes

from .library import BLOCK, POOL
from .world import string_at

HEADER = 24
TOO_MUCH = 2 ** 34


class Pool:
    """blocks is the chain from first_block: [pointer, capacity, used] each."""

    def __init__(self, pointer, block_size):
        self.pointer, self.block_size = pointer, block_size
        self.blocks = []
        self.current = None

    def check(self, w):
        first = self.blocks[0][0] if self.blocks else 0
        wanted = (first, self.current[0] if self.current else 0, self.block_size)
        found = POOL.unpack(string_at(self.pointer, 24))
        if found != wanted:
            w.differ("pool record", found, wanted)
        for i, (pointer, capacity, used) in enumerate(self.blocks):
            following = self.blocks[i + 1][0] if i + 1 < len(self.blocks) else 0
            found = BLOCK.unpack(string_at(pointer, HEADER))
            if found != (following, capacity, used):
                w.differ(f"pool block {i}", found, (following, capacity, used))


def create(w):
    size = w.r.choice([0, 1, 16, 17, 64, 100, 256, 1000, 2 ** 40, 2 ** 63, 2 ** 64 - 1])
    pointer = w.call("zx_pool_create", size)
    if not pointer:
        w.differ("result", pointer, "a pool")
    w.pools.append(Pool(pointer, size or 1048576))


def allocate(w):
    size = w.r.choice([0, 1, 1, 7, 16, 17, 33, 64, 200, 300, 1048577, 2 ** 40, 2 ** 63,
                       2 ** 64 - 16, 2 ** 64 - 15, 2 ** 64 - 1])
    pool = w.pick(w.pools)
    if pool is None or w.chance(0.04):
        w.same(w.call("zx_pool_alloc", None, size), None)
        return
    got = w.call("zx_pool_alloc", pool.pointer, size)
    rounded = (size + 15) // 16 * 16
    current = pool.current
    if size == 0:
        w.same(got, None)
    elif current and current[2] + rounded <= current[1]:
        w.same(got, current[0] + HEADER + current[2])
        current[2] += rounded
        fill(w, got, size)
    elif max(pool.block_size, rounded) >= TOO_MUCH:
        w.same(got, None)
    else:
        added = new_block(w, pool, rounded)
        w.same(got, added[0] + HEADER)
        fill(w, got, size)


def fill(w, pointer, size):
    """What was handed out may be written from end to end."""
    ctypes.memset(pointer, 0xa5, min(size, 1 << 16))
    ctypes.memset(pointer + size - 1, 0x5a, 1)


def new_block(w, pool, rounded):
    """A block was added behind the current one; whatever followed that is no longer the pool's."""
    pointer = POOL.unpack(string_at(pool.pointer, 24))[1]
    if not pointer or pointer % 128 or any(pointer == block[0] for block in pool.blocks):
        w.differ("current block", pointer, "a new aligned block")
    added = [pointer, max(pool.block_size, rounded), rounded]
    if pool.current:
        at = pool.blocks.index(pool.current)
        for dropped in pool.blocks[at + 1:]:
            w.functions["zx_free_aligned"](dropped[0])
        del pool.blocks[at + 1:]
    pool.blocks.append(added)
    pool.current = added
    return added


def reset(w):
    pool = w.pick(w.pools)
    if pool is None or w.chance(0.1):
        w.call("zx_pool_reset", None)
        return
    w.call("zx_pool_reset", pool.pointer)
    for block in pool.blocks:
        block[2] = 0
    pool.current = pool.blocks[0] if pool.blocks else None


def destroy(w):
    if w.chance(0.2) or not w.pools:
        w.call("zx_pool_destroy", None)
        return
    pool = w.pools.pop(w.r.randrange(len(w.pools)))
    w.call("zx_pool_destroy", pool.pointer)


OPERATIONS = [(2, create), (12, allocate), (2, reset), (1, destroy)]
