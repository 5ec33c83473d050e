#!/usr/bin/env python3
"""Loads what export_numpy wrote, and computes a user's scores from the tables: load_npy.py FOLDER"""

import pathlib
import sys

import numpy

USER = 3

if len(sys.argv) != 2:
    print("usage: load_npy.py FOLDER", file=sys.stderr)
    sys.exit(2)
folder = pathlib.Path(sys.argv[1])
users = numpy.load(folder / "user_embeddings.npy")
items = numpy.load(folder / "item_embeddings.npy")
expected = numpy.load(folder / "scores.npy")
print(f"users {users.shape}, items {items.shape}, {users.dtype}")

scores = items @ users[USER]
difference = numpy.abs(scores - expected).max()
if difference > 1e-6:
    sys.exit(f"load_npy.py: scores differ from the library's by {difference}")

for item in numpy.argsort(-scores, kind="stable")[:3]:
    print(f"user {USER}, item {item}: score {scores[item]:.4f}")
