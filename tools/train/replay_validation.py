#!/usr/bin/python3
"""Replays the validation writers through stylus-replay at many rates and batch sizes.

The recordings are resampled the way the training code does (cubic Hermite positions per stroke,
timestamps rounded to ms) and written to a temporary directory; each rate x batch size is one
`stylus-replay --json` run there. The tables come from card_tables.py.

    tools/train/replay_validation.py --replay build/tools/stylus-replay [--config models/stylus_predictor.json]
"""
import argparse
import os
import subprocess
import sys
import tempfile

import card_tables
from features import Recording, at_rate, parse_rates, rate_label
from train import DEFAULT_VALIDATION, VAL_BATCHES, VAL_RATES

HEADER = "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n"


def write_csv(path, rec):
    # %.9g round-trips the float32 channels, so the library reads the training code's samples.
    with open(path, "w") as f:
        f.write(HEADER)
        for row in zip(rec.t, rec.x, rec.y, rec.pressure, rec.tilt, rec.orientation, rec.tag):
            f.write("%d,%.9g,%.9g,%.9g,%.9g,%.9g,%d\n" % row)


def recordings_at(rate, sources, out_dir):
    paths = []
    for src in sources:
        rec = Recording.load(src)
        name = os.path.splitext(os.path.basename(src))[0]
        rec = at_rate(rec, parse_rates(rate)[0])
        path = os.path.join(out_dir, "%s_%s.csv" % (name, rate_label(rate).replace(" ", "_")))
        write_csv(path, rec)
        paths.append(path)
    return paths


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--replay", required=True, help="the stylus-replay binary")
    ap.add_argument("--config", default=os.path.join(os.path.dirname(__file__), "..", "..", "models",
                                                     "stylus_predictor.json"))
    ap.add_argument("--rates", default=",".join(str(r) for r in VAL_RATES))
    ap.add_argument("--batches", default=",".join(str(b) for b in VAL_BATCHES))
    ap.add_argument("--keep", metavar="DIR", help="write the recordings and summaries here instead of a temporary directory")
    args = ap.parse_args(argv)
    sources = DEFAULT_VALIDATION
    replay, config = os.path.abspath(args.replay), os.path.abspath(args.config)
    with tempfile.TemporaryDirectory() as tmp:
        work = os.path.abspath(args.keep) if args.keep else tmp
        os.makedirs(work, exist_ok=True)
        summaries, labels = [], []
        for rate in args.rates.split(","):
            paths = recordings_at(rate, sources, work)
            for b in args.batches.split(","):
                label = "%s, batch %s" % (rate_label(rate), b)
                out = os.path.join(work, "replay_%s_b%s.json" % (rate, b))
                subprocess.run([replay, "--config", config, "--batch-size", b, "--json", out, "--quiet",
                                "--log", os.path.join(work, "stylus-replay.log")] + paths,
                               cwd=work, check=True, stdout=subprocess.DEVNULL)
                summaries.append(out)
                labels.append(label)
                print("replayed %s" % label, file=sys.stderr, flush=True)
        argv = [a for s, l in zip(summaries, labels) for a in ("--label", l)] + summaries
        card_tables.main(["--title", "Validation", "--sweep-only"] + argv)


if __name__ == "__main__":
    sys.exit(main())
