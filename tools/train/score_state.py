#!/usr/bin/env python3
"""Validation summary of saved networks (never the evaluation set):

    /usr/bin/python3 tools/train/score_state.py STATE.pt[:KEY=JSON;...] ...

STATE is a --state file of train.py, or a bare state_dict of --select with the candidate's
settings given after the colon; STATE+STATE+... scores the mean of those networks."""

import copy
import json
import sys

import torch

import evaluate
import train


def load(arg):
    path, _, extra = arg.partition(":")
    saved = torch.load(path)
    if "settings" in saved:
        return train.load_state(path)[:2]
    s = copy.deepcopy(train.SETTINGS)
    for kv in filter(None, extra.split(";")):
        k, v = kv.split("=", 1)
        s[k] = json.loads(v)
    model = train.new_model(s)
    model.load_state_dict(saved)
    model.eval()
    return s, model


def load_all(arg):
    loaded = [load(a) for a in arg.split("+")]
    return loaded[0][0], train.as_predictor([m for _, m in loaded])


def main():
    for arg in sys.argv[1:]:
        s, model = load_all(arg)
        cfg, sets = train.validation_sets(s)
        predict = train.torch_predictor(model)
        s["stroke_end_thres"] = train.choose_threshold(s, predict, sets)
        cfg.stroke_end_thres = s["stroke_end_thres"]
        summary = {}
        val = [rec for _, rec in train.default_sources().validation()]
        evaluate.report(predict, cfg, val, train.VAL_RATES, train.VAL_BATCHES, "Validation", summary=summary)
        print("%s: worst %.3f / in range %.3f, losing %d / in range %d, +20 ms pooled %.4f, "
              "threshold %.2f drops %.3f %% caught %.1f %%" % (
                  arg, summary["worst"], summary["worst_in_range"], summary["losing"], summary["losing_in_range"],
                  summary["last_mean"], s["stroke_end_thres"], 100 * summary["drops"], 100 * summary["caught"]),
              flush=True)


if __name__ == "__main__":
    main()
