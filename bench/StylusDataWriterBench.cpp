// The recorder's throughput in rows per second: samples go through its queue as fast as its thread
// takes them (a refused push is retried, so the producer never loses one), into one recording file in
// a temporary directory, including the finish of the file at shutdown. Every row is counted back.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "StylusDataWriter.h"
#include "velmar/Log.h"
#include "TempDir.h"

namespace {

namespace fs = boost::filesystem;

// Rows of every finished recording file, headers excluded; -1 when a temporary file was left.
int64_t recordedRows(const std::string& dir) {
    int64_t rows = 0;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().extension() != ".dat") {
            return -1;
        }
        std::ifstream in(entry.path().string());
        std::string line;
        std::getline(in, line);
        while (std::getline(in, line)) {
            ++rows;
        }
    }
    return rows;
}

void BM_RecorderRowsPerSecond(benchmark::State& state) {
    velmar::Log::init();
    velmar::Log::m_GlobalPriority.store(velmar::Error);
    const int64_t rows = state.range(0);
    int64_t retries = 0;
    for (auto _ : state) {
        state.PauseTiming();
        testkit::TempDir dir;
        StylusDataWriterParams params;
        params.dataFileDirectory = dir.path();
        params.chunkSizeInRecords = 100;
        params.numChunksInFile = 1 << 30;  // one file
        params.diskFillPercentTh = 100;
        params.diskCheckPath = dir.path();
        StylusTouchPoint sample{};
        sample.x_pos = 1234.5678f;
        sample.y_pos = 987.654f;
        sample.pressure = 0.4321f;
        sample.tilt = 0.7853982f;
        sample.orientation = -1.5707964f;
        sample.tag = STYLUS_TAG_MOVE;
        state.ResumeTiming();
        {
            StylusDataWriter writer(params);
            for (int64_t i = 0; i < rows; ++i) {
                sample.timestamp = 1700000000000ull + static_cast<uint64_t>(i);
                while (!writer.writeStrokeBoundary(sample)) {  // one push, refused only when full
                    ++retries;
                    std::this_thread::yield();
                }
            }
        }  // the destructor drains the queue and finishes the file
        state.PauseTiming();
        const int64_t written = recordedRows(dir.path());
        if (written != rows) {
            state.SkipWithError("rows recorded differ from rows accepted");
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * rows);
    state.counters["rows_per_second"] =
        benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["producer_retries_per_row"] =
        static_cast<double>(retries) / static_cast<double>(state.iterations() * rows);
}
BENCHMARK(BM_RecorderRowsPerSecond)->Arg(200000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
