#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them all, then writes one JSON summary.
# Usage: bench/run-benchmarks.sh [--batches N] [--out FILE]
#   --batches  batches per end-to-end latency run (default 10000; each of the paced runs, four end to
#              end and the step-by-step one, takes N x 16.7 ms)
#   --out      summary file (default bench/results.json)
# Timings live here only; no pass/fail test depends on them.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

batches=10000
out="$root/bench/results.json"
while [ $# -gt 0 ]; do
  case "$1" in
    --batches) batches=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh

build="$root/build/bench"
benches=(InferenceEngineBench WakeUpBench ModelPredictorBench DataQueueBench LogBench StylusDataWriterBench
         PipelineLatencyBench PathBreakdownBench)
echo "=== bench: configure and build in $build" >&2
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSTYLUS_BUILD_BENCH=ON -DSTYLUS_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "${JOBS:-$(nproc)}" --target "${benches[@]}"

raw="$build/results"
mkdir -p "$raw"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
for bench in "${benches[@]}"; do
  args=()
  if [ "$bench" = PipelineLatencyBench ] || [ "$bench" = PathBreakdownBench ]; then
    args=(--batches="$batches")
  fi
  echo "=== bench: $bench" >&2
  # The library logs to stderr; keep it out of the way.
  "$build/bench/$bench" "${args[@]}" --benchmark_out="$raw/$bench.json" --benchmark_out_format=json \
    2>"$raw/$bench.log"
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

/usr/bin/python3 - "$raw" "$out" "$load_before" "$load_after" "$batches" "${benches[@]}" <<'PY'
import datetime
import json
import os
import sys

raw, out, load_before, load_after, batches = sys.argv[1:6]
benches = sys.argv[6:]
SKIP = {"name", "run_name", "run_type", "repetitions", "repetition_index", "threads", "family_index",
        "per_family_instance_index", "aggregate_name", "error_occurred"}


def entries(bench):
    with open(os.path.join(raw, bench + ".json")) as f:
        data = json.load(f)
    result = {}
    for b in data["benchmarks"]:
        if b.get("error_occurred"):
            result[b["name"]] = {"error": b.get("error_message", "")}
            continue
        result[b["name"]] = {k: v for k, v in b.items() if k not in SKIP}
    return data["context"], result


summary = {
    "generated_utc": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
    "command": "bench/run-benchmarks.sh --batches %s" % batches,
    "load_average_before": load_before,
    "load_average_after": load_after,
}
results = {}
for bench in benches:
    context, results[bench] = entries(bench)
    summary.setdefault("machine", {k: context.get(k) for k in ("host_name", "num_cpus", "mhz_per_cpu")})
summary["build_type"] = "Release"
summary["models"] = {"inference": "models/stylus_predictor.tflite (InferenceEngineBench: floor, XNNPACK, Arm NN)",
                     "prediction_call": "generated ops_n10_p5.tflite (ModelPredictorBench; XNNPACK)",
                     "minimal": "generated const_n10_p5.tflite (zero weights: the runtime's least work; XNNPACK)",
                     "shipped": "models/stylus_predictor.tflite with models/stylus_predictor.json (XNNPACK)",
                     "shipped_armnn": "the same, forced onto Arm NN with PredictionModel.inference_engine"}


def figure(bench, name, key="real_time"):
    entry = results.get(bench, {}).get(name, {})
    return entry.get(key)


# The figures quoted most, in one place; nanoseconds unless the name says otherwise.
inference = {}
for name, b in results.get("InferenceEngineBench", {}).items():
    parts = name.split("/")
    if len(parts) < 3 or "error" in b:
        continue
    entry = inference.setdefault(parts[1], {})
    if parts[2] == "warm":
        entry["warm_cpu_ns"] = b.get("cpu_time")
        entry["warm_real_ns"] = b.get("real_time")
        entry["max_abs_diff_vs_floor"] = b.get("max_abs_diff_vs_floor")
    else:
        entry["paced_p50_us"] = b.get("p50_us")
        entry["paced_p99_us"] = b.get("p99_us")
summary["inference_shipped_model"] = inference
summary["thread_wake_up_at_pen_rate"] = {
    name.split("/")[0]: {k: b.get(k) for k in ("p50_us", "p99_us", "max_us", "consumer_cpu_percent")}
    for name, b in results.get("WakeUpBench", {}).items() if "error" not in b}
summary["headline"] = {
    "prediction_call_total_ns": figure("ModelPredictorBench", "BM_PredictTotal"),
    "prediction_call_inference_ns": figure("ModelPredictorBench", "BM_RunInferenceWithTensorCopies"),
    "prediction_call_own_share_ns": figure("ModelPredictorBench", "BM_PredictOwnShare/manual_time"),
    "queue_push_pop_same_thread_ns": figure("DataQueueBench", "BM_QueuePushPopSameThread"),
    "queue_hand_off_to_waiting_thread_us": figure("DataQueueBench", "BM_QueueHandOffRoundTrip/real_time",
                                                  "handoff_us"),
    "filtered_log_statement_ns": figure("LogBench", "BM_FilteredLogStatement"),
    "recorder_rows_per_second": figure("StylusDataWriterBench", "BM_RecorderRowsPerSecond/200000/real_time",
                                       "rows_per_second"),
}

# The end-to-end figures, flattened: model -> mode -> percentiles in microseconds.
latency = {}
for name, b in results["PipelineLatencyBench"].items():
    parts = name.split("/")
    if len(parts) < 3 or "error" in b:
        continue
    latency.setdefault(parts[1], {})[parts[2]] = {
        k: b[k] for k in ("p50_us", "p99_us", "max_us", "mean_us", "from_call_p50_us", "from_call_p99_us", "batches",
                          "predicted", "callback_before_return", "inference_thread_cpu_percent")
        if k in b}
summary["end_to_end_latency_us"] = latency
# The same hand-off step by step (shipped model, 240 Hz, batches awaited by the busy-wait).
steps = {}
for name, b in results.get("PathBreakdownBench", {}).items():
    if "error" in b:
        continue
    steps = {k: v for k, v in b.items() if k.endswith("_us") or k.endswith("_per_batch") or k in
             ("spun_batches", "same_cpu_percent")}
summary["hand_off_steps_shipped_240hz"] = steps
summary["benchmarks"] = results
with open(out, "w") as f:
    json.dump(summary, f, indent=2, sort_keys=False)
    f.write("\n")
print("wrote", out)
PY
