#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Scores the deep analysis on an image of make_deep_volume.py, kind by kind.

    deep_recall.py CLI IMAGE

Columns: files of the kind; listed under the right type; under another one; of the listed: exact (the SHA-256 of
what `recover` wrote agrees), longer (the file and something behind it), cut (its first part).
"""
import collections
import json
import pathlib
import subprocess
import sys
import tempfile


def main():
    cli, image = sys.argv[1:3]
    with tempfile.TemporaryDirectory(dir=pathlib.Path(image).parent) as folder:
        out = subprocess.run([cli, "recover", image, "--deep", "--fast-off", "--json", "--out", folder + "/out", "--report", folder + "/report"],
                             check=True, capture_output=True, text=True).stdout
        found = {r["first_cluster"]: r for r in map(json.loads, out.splitlines())}
        with open(folder + "/report") as report:
            digests = {r["path"]: r["sha256"] for r in map(json.loads, report)}
    with open(image + ".truth") as truth:
        files = [json.loads(line) for line in truth]
    table = collections.defaultdict(collections.Counter)
    for file in files:
        row = table[file["kind"]]
        row["files"] += 1
        listed = found.get(file["sector"])
        if listed is None:
            continue
        row["listed" if listed["name"].endswith("." + file["ext"]) else "other type"] += 1
        if digests[listed["path"]] == file["sha256"]:
            row["exact"] += 1
        else:
            row["longer" if listed["size"] > file["size"] else "cut"] += 1
    columns = ["files", "listed", "other type", "exact", "longer", "cut"]
    print("%-12s" % "kind" + "".join("%12s" % c for c in columns))
    for kind in sorted(table):
        print("%-12s" % kind + "".join("%12d" % table[kind][c] for c in columns))
    starts = {f["sector"] for f in files}
    print("rows that begin where no file does: %d of %d" % (sum(s not in starts for s in found), len(found)))


if __name__ == "__main__":
    main()
