#!/usr/bin/python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/ (run once; the seeds are
committed). Usage: make_seeds.py [CORPUS_DIR]"""

import os
import struct
import sys

ROOT = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")

FULL_MODEL_KEYS = {
    "model_name": "stylus_predictor.tflite", "stroke_end_thres": 0.5, "num_predictions": 5,
    "prediction_time_delta_ms": 4, "num_historical_points": 25, "min_num_historical_points": 10,
    "mm_per_inch": 25.4, "pixel_per_inch": 213, "feature_timestamp_max": 16, "feature_timestamp_min": 0,
    "feature_xpos_max": 5, "feature_xpos_min": -5, "feature_ypos_max": 5, "feature_ypos_min": -5,
    "feature_tilt_max": 1, "feature_tilt_min": -1, "feature_pressure_max": 1, "feature_pressure_min": -1,
    "feature_orientation_max": 1, "feature_orientation_min": -1, "use_raw_pressure": "false",
    "target_event_count": 50000, "save_metrics_interval": 5000, "predictionErrorWindow": 120,
}
FULL_PIPELINE_KEYS = {
    "QueueFullPolicy": "Reject Newest", "logLevel": "DEBUG", "cpusetFile": "/dev/cpuset/top-app/tasks",
    "coreaffinity": 3, "enableDataWriting": "true", "canControlDataWritingAtRunTime": "true",
    "chunkSizeInRecords": 100, "numChunksInFile": 100000, "dataFileNameSuffix": "stylus_input_events",
    "dataFileDirectory": "/data/stylus", "diskFillPercentTh": 30,
}


def json_value(v):
    if isinstance(v, str):
        return '"%s"' % v
    return str(v)


def json_section(keys):
    return "{\n" + ",\n".join('    "%s": %s' % (k, json_value(v)) for k, v in keys.items()) + "\n  }"


def ini_section(name, keys):
    return "[%s]\n" % name + "".join("%s=%s\n" % (k, v) for k, v in keys.items())


def write(target, name, content):
    directory = os.path.join(ROOT, target)
    os.makedirs(directory, exist_ok=True)
    mode = "wb" if isinstance(content, bytes) else "w"
    with open(os.path.join(directory, name), mode) as f:
        f.write(content)


def configs():
    full = '{\n  "Pipeline": %s,\n  "PredictionModel": %s\n}\n' % (json_section(FULL_PIPELINE_KEYS),
                                                                   json_section(FULL_MODEL_KEYS))
    write("config_json", "full.json", full)
    write("config_json", "empty_object.json", "{}\n")
    write("config_json", "model_only.json", '{"PredictionModel": {"model_name": "m.tflite", "num_historical_points": 40}}\n')
    write("config_json", "wrong_type.json", '{"PredictionModel": {"num_predictions": "five", "mm_per_inch": [1, 2]}}\n')
    write("config_json", "negative.json", '{"PredictionModel": {"num_historical_points": -3, "pixel_per_inch": -1,'
                                          ' "target_event_count": -1}, "Pipeline": {"QueueFullPolicy": "block"}}\n')
    write("config_json", "escapes.json", '{"Pipeline": {"dataFileDirectory": "/tmp/\\u00e9\\n\\"x\\"", "logLevel": "verbose"}}\n')
    full_ini = ini_section("Pipeline", FULL_PIPELINE_KEYS) + "\n" + ini_section("PredictionModel", FULL_MODEL_KEYS)
    write("config_ini", "full.ini", full_ini)
    write("config_ini", "empty.ini", "")
    write("config_ini", "comments.ini", "; comment\n[PredictionModel]\nmodel_name = m.tflite\n# other\nnum_predictions=3\n")
    write("config_ini", "wrong_type.ini", "[PredictionModel]\nnum_predictions=five\nuse_raw_pressure=maybe\n")
    write("config_ini", "top_level_key.ini", "logLevel=DEBUG\n[Pipeline]\nlogLevel=VERBOSE\n")


def metrics():
    write("metrics_file", "typical.txt", "120,1.23457,-0.5,210.7,0.025")
    write("metrics_file", "other_separator.txt", "5;1;2;3;0.4")
    write("metrics_file", "target_reached.txt", "50000,0.8,1.5,30.25,0.001")
    write("metrics_file", "short.txt", "7,2.5")
    write("metrics_file", "empty.txt", "")
    write("metrics_file", "exponent.txt", "3,1e-07,-2.5e+01,6.25e+02,1")
    write("metrics_file", "out_of_range.txt", "4294967296,1e39,-181,nan,2")


def point(t, x, y, pressure=0.5, tilt=0.3, orientation=0.1, tag=2):
    return struct.pack("<Q5fi8x", t, x, y, pressure, tilt, orientation, tag)


def rows():
    # A two-byte length and a leftover of an earlier run (see RecorderRowFuzzer.cpp), then samples.
    nan, inf = float("nan"), float("inf")
    header = b"timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n"
    none = struct.pack(">H", 0)
    torn = header + b"1,1.0000000,2.0000000,0.0000000,0.0000000,0.0000000,0\n2,1.0"
    write("recorder_row", "ordinary.bin", none + point(1700000000123, 512.25, 300.0, 0.453125, 0.7853982, 1.5707964, 0))
    write("recorder_row", "stroke.bin", struct.pack(">H", len(torn)) + torn +
          b"".join(point(1000 + 4 * (i // 2), 100 + 2 * i, 200 - i, tag=2 if i % 5 else 1) for i in range(8)))
    write("recorder_row", "specials.bin", struct.pack(">H", 5) + b"times" +
          point(0, nan, inf, -inf, -0.0, 3.4e38, -1) + point(2**64 - 1, 1e-45, -1e30, 0, 0, 0, -2**31))


# Pipeline command language (see PipelineFuzzer.cpp): a pipeline byte, then op bytes 0 raw, 1 compact,
# 2 large, 3 empty, 4 control, 5 queries, 6 wait.
def compact(samples):
    out = bytes([1, len(samples)])
    for step, tag, special in samples:
        out += struct.pack("<bBB", step, tag, special)
    return out


def pipeline():
    down = [(4, 0, 0)] + [(4, 2, 0)] * 3
    moves = [(4, 2, 0)] * 4
    commands = {
        "stroke": compact(down) + b"".join(compact(moves) for _ in range(8)) + bytes([5, 6]),
        "specials": compact(down) + compact(moves) * 3 +
        compact([(4, 2, 0x80), (4, 2, 0x89), (4, 2, 0x92), (4, 2, 0x9b)]) + compact(moves) * 3 + bytes([5]),
        "backwards": compact(down) + compact(moves) * 3 + compact([(-12, 2, 0), (0, 2, 0), (0, 2, 0), (4, 2, 0)]),
        "pen_storm": compact([(1, i % 2, 0) for i in range(32)]) + compact(down) + compact(moves) * 4,
        "raw": bytes([0, 2]) + point(1000, 10, 10, tag=0) + point(1004, float("nan"), 12, tag=2),
        "large": compact(down) + bytes([2]) + struct.pack("<H", 3000) + bytes([0x80, 7]) + bytes([6]),
        "control": bytes([4, 0, 3, 1, 3, 0, 4, 5]) + compact(down) + compact(moves) * 3 + bytes([4, 0xff]),
    }
    # The first byte picks the pipeline: 0 the copy model, 1 the MLP.
    for name, body in commands.items():
        write("pipeline", name + "_copy.bin", bytes([0]) + body)
        write("pipeline", name + "_mlp.bin", bytes([1]) + body)


configs()
metrics()
rows()
pipeline()
