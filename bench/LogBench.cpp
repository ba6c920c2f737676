// What a log statement costs on the hot path. A statement below the global priority must cost a few
// nanoseconds and evaluate none of its arguments; the reported case (into a sink that drops the
// line) is there for contrast.
#include <benchmark/benchmark.h>

#include <string>

#define VELMAR_LOG_SOURCE "bench/LogBench"
#include "velmar/Log.h"

namespace {

const std::string kTag = "StylusPredictor";
int g_evaluations = 0;

// Stands for an expensive argument; a filtered statement must never call it.
int64_t observedArgument() {
    ++g_evaluations;
    return 42;
}

class LogSettings {
public:
    LogSettings(bool enabled, velmar::LogPriority priority)
        : savedEnabled(velmar::Log::m_LoggingEnabled.load()), savedPriority(velmar::Log::m_GlobalPriority.load()) {
        velmar::Log::init();
        velmar::Log::m_LoggingEnabled.store(enabled);
        velmar::Log::m_GlobalPriority.store(priority);
        g_evaluations = 0;
    }
    ~LogSettings() {
        velmar::Log::m_LoggingEnabled.store(savedEnabled);
        velmar::Log::m_GlobalPriority.store(savedPriority);
    }

private:
    bool savedEnabled;
    int32_t savedPriority;
};

void BM_FilteredLogStatement(benchmark::State& state) {
    LogSettings settings(true, velmar::Info);
    for (auto _ : state) {
        VELMAR_LOG(velmar::Verbose, kTag, "ModelLatency in us : " << observedArgument());
    }
    if (g_evaluations != 0) {
        state.SkipWithError("a filtered statement evaluated its arguments");
    }
    state.counters["arguments_evaluated"] = g_evaluations;
}
BENCHMARK(BM_FilteredLogStatement);

void BM_LoggingDisabledStatement(benchmark::State& state) {
    LogSettings settings(false, velmar::Verbose);
    for (auto _ : state) {
        VELMAR_LOG(velmar::Error, kTag, "Data dropped for writing stylus touch data" << observedArgument());
    }
    if (g_evaluations != 0) {
        state.SkipWithError("a disabled statement evaluated its arguments");
    }
    state.counters["arguments_evaluated"] = g_evaluations;
}
BENCHMARK(BM_LoggingDisabledStatement);

void BM_ReportedLogStatementToDiscardingSink(benchmark::State& state) {
    LogSettings settings(true, velmar::Verbose);
    velmar::Log::setSink([](const velmar::LogEntry& entry) { benchmark::DoNotOptimize(entry.message.size()); });
    for (auto _ : state) {
        VELMAR_LOG(velmar::Verbose, kTag, "ModelLatency in us : " << observedArgument());
    }
    velmar::Log::setSink(nullptr);
}
BENCHMARK(BM_ReportedLogStatementToDiscardingSink);

}  // namespace

BENCHMARK_MAIN();
