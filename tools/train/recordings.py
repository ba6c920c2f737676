"""Recordings for training, from the directories a device's recorder fills.

The recorder writes `<prefix>_<time>.dat` files (the same CSV form as the training folder's `.csv`
files) and leaves a `.dat.tmp` behind when it dies mid-file. A directory is read as it is: `.csv`
and `.dat` files in name order (sub-directories too), leftovers and rows the library's reader would
refuse skipped and counted, each with its file and line, so a bad file costs its bad rows only.
"""

import math
import os

from features import Recording

HEADER = "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag"
SUFFIXES = (".csv", ".dat")
LEFTOVER = ".dat.tmp"
FIELD_NAMES = HEADER.split(",")


class Skipped:
    """What reading left out: leftover files, unreadable files and bad rows (file:line, reason)."""

    SHOWN = 8  # problems named one by one in the report; the rest are counted

    def __init__(self):
        self.leftovers = []
        self.files = []  # (path, reason)
        self.rows = []   # (path, line number, reason)

    def __bool__(self):
        return bool(self.leftovers or self.files or self.rows)

    def report(self, listing=True):
        """Lines for the user; empty when nothing was skipped. Without `listing`, only what reading
        the files found (the leftovers are found when listing the directories)."""
        out = []
        if self.leftovers and listing:
            out.append("skipped %d unfinished recorder file%s (%s): %s" % (
                len(self.leftovers), "" if len(self.leftovers) == 1 else "s", LEFTOVER,
                _listed(self.leftovers, self.SHOWN)))
        for path, reason in self.files[:self.SHOWN]:
            out.append("skipped file %s: %s" % (path, reason))
        if len(self.files) > self.SHOWN:
            out.append("... and %d more files skipped" % (len(self.files) - self.SHOWN))
        if self.rows:
            files = len({p for p, _, _ in self.rows})
            out.append("skipped %d bad row%s in %d file%s:" % (
                len(self.rows), "" if len(self.rows) == 1 else "s", files, "" if files == 1 else "s"))
            out += ["  %s:%d: %s" % row for row in self.rows[:self.SHOWN]]
            if len(self.rows) > self.SHOWN:
                out.append("  ... and %d more" % (len(self.rows) - self.SHOWN))
        return out


def _listed(items, shown):
    text = ", ".join(items[:shown])
    return text + (", ... (%d more)" % (len(items) - shown) if len(items) > shown else "")


def find(paths, skipped):
    """Recording files under the given files and directories, in name order per directory; a file
    named twice counts once. Missing paths raise (a typo should not train on less data)."""
    found = []
    for p in paths:
        if os.path.isfile(p):
            if p.endswith(LEFTOVER):
                skipped.leftovers.append(p)
            else:
                found.append(p)
            continue
        if not os.path.isdir(p):
            raise FileNotFoundError("%s: no such file or directory" % p)
        for root, dirs, files in os.walk(p):
            dirs.sort()
            for name in sorted(files):
                path = os.path.join(root, name)
                if name.endswith(LEFTOVER):
                    skipped.leftovers.append(path)
                elif name.endswith(SUFFIXES):
                    found.append(path)
    seen, unique = set(), []
    for f in found:
        key = os.path.realpath(f)
        if key not in seen:
            seen.add(key)
            unique.append(f)
    return unique


def parse_row(line):
    """(timestamp, x, y, pressure, tilt, orientation, tag) of one row, or raises ValueError with the
    reason, with the library reader's rules: 7 fields, a whole non-negative ms timestamp, finite
    channels, an integer tag."""
    fields = line.split(",")
    if len(fields) != len(FIELD_NAMES):
        raise ValueError("expected 7 fields, found %d" % len(fields))
    t = fields[0].strip()
    if not t.isdigit():
        raise ValueError("timestamp %r is not a whole non-negative number of milliseconds" % t)
    values = []
    for name, text in zip(FIELD_NAMES[1:6], fields[1:6]):
        try:
            v = float(text)
        except ValueError:
            v = math.nan
        if not math.isfinite(v):
            raise ValueError("%s %r is not a finite number" % (name, text.strip()))
        values.append(v)
    try:
        tag = int(fields[6])
    except ValueError:
        raise ValueError("tag %r is not an integer" % fields[6].strip()) from None
    return (int(t), *values, tag)


def read(path, skipped):
    """The recording in `path` without its bad rows (noted in `skipped`), or None when the file
    cannot be used at all (no header, nothing readable)."""
    try:
        with open(path, "rb") as f:
            text = f.read().decode("utf-8", errors="replace")
    except OSError as e:
        skipped.files.append((path, e.strerror or str(e)))
        return None
    lines = text.split("\n")
    head = lines[0].rstrip("\r").lstrip("\ufeff")
    if head != HEADER:
        skipped.files.append((path, "first line is not the header %r" % HEADER))
        return None
    rows = []
    for number, line in enumerate(lines[1:], start=2):
        line = line.rstrip("\r")
        if not line.strip():
            continue
        try:
            row = parse_row(line)
        except ValueError as e:
            skipped.rows.append((path, number, str(e)))
            continue
        if rows and row[0] < rows[-1][0]:
            skipped.rows.append((path, number, "timestamp %d goes backwards (previous row %d)" % (row[0], rows[-1][0])))
            continue
        rows.append(row)
    if not rows:
        skipped.files.append((path, "no sample rows"))
        return None
    cols = list(zip(*rows))
    return Recording(*cols, name=path)


def load(paths, skipped):
    """[(path, Recording)] of every usable recording under the given files and directories."""
    out = []
    for f in find(paths, skipped):
        rec = read(f, skipped)
        if rec is not None:
            out.append((f, rec))
    return out
