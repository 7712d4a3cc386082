# SPDX-License-Identifier: ISC
"""Which serial numbers a step of a rollout reaches: what nginx's split_clients computes,
from the description of its hash (MurmurHash2, seed 0) and of its limits."""
MASK = 0xFFFFFFFF
MULTIPLIER = 0x5BD1E995


def murmur2(data):
    value = len(data)
    whole = len(data) // 4 * 4
    for start in range(0, whole, 4):
        word = int.from_bytes(data[start:start + 4], "little") * MULTIPLIER & MASK
        word = (word ^ word >> 24) * MULTIPLIER & MASK
        value = value * MULTIPLIER & MASK ^ word
    if data[whole:]:
        value = (value ^ int.from_bytes(data[whole:], "little")) * MULTIPLIER & MASK
    value = (value ^ value >> 13) * MULTIPLIER & MASK
    return value ^ value >> 15


def reached(serial, percent, salt="1"):
    """Whether a step of `percent` reaches the router; the key is that of rollout.conf."""
    return murmur2(f"{salt} {serial}".encode()) < int(percent * 100) * MASK // 10000


def serials(count, steps):
    """Serial numbers of which each step reaches its share as nearly as whole routers can."""
    found, number = [], 0
    bounds = [(low, high, round(count * high / 100) - round(count * low / 100))
              for low, high in zip((0, *steps), (*steps, 100))]
    for low, high, wanted in bounds:
        wanted = max(wanted, 1) if low == 0 else wanted
        while wanted and len(found) < count:
            number += 1
            serial = f"SN{number:06d}"
            if reached(serial, high) and not reached(serial, low):
                found.append(serial)
                wanted -= 1
    return found
