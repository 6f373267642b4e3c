#!/usr/bin/env python3
"""Writes the seeds of the target shard: shared segments."""
import struct
from pathlib import Path

here = Path(__file__).parent


# As platform/shard/Layout.h says, for ShardFuzz.cpp's maps: keys of 4 bytes and values of 24, or
# lists of at most 4 of these.
def segment(lists):
    word = 2**64 - 1
    seed, homes, capacity, ring_records, keys = 42, 128, 4, 64, (0, 1, 3)
    unit_bytes = 64 if lists else 40
    units = 9 * 2 + capacity * 2 + 1024 // 64 * 5 // 4 if lists else 9 + capacity
    index, uses, ring = [0] * (homes + 64), [0] * units, [(0, 0)] * ring_records
    heap = bytearray(units * unit_bytes)
    for unit, key in enumerate(keys):
        mixed = (seed ^ key) * 0x9E3779B97F4A7C15 & word
        mixed = (mixed ^ mixed >> 32) * 0xD6E8FEB86659FD93 & word
        mixed ^= mixed >> 32
        slot = mixed % homes
        while index[slot]:
            slot += 1
        index[slot] = 1 << 32 | mixed >> 56 << 24 | unit
        uses[unit] = 1
        lead = 24 if lists else 1
        struct.pack_into("<5Q", heap, unit * unit_bytes, lead, key, 7, 8, 9)
        ring[unit] = (unit + 1, key)
    data = struct.pack("<QIiQ", 0x31454C4254444853, 2, 0, seed)
    data += struct.pack("<4I5I", 8, 96 if lists else 24, 1, lists, capacity, homes, ring_records,
                        unit_bytes, units)
    data += struct.pack("<III", 0, 2, 0) + bytes(56)  # up to the counters; 2: mounted
    data += struct.pack("<3Q", 1, len(keys), len(keys)) + bytes(40)
    data += struct.pack(f"<{len(index)}Q", *index)
    if lists:
        data += struct.pack(f"<{units}I", *uses).ljust((units * 4 + 63) // 64 * 64, b"\0")
    for record in ring:
        data += struct.pack("<2Q", *record)
    data = data.ljust((len(data) + 63) // 64 * 64, b"\0") + heap
    (here / "corpus/shard" / ("lists" if lists else "plain")).write_bytes(data)


segment(0)
segment(1)
