// stylus-feature-dump: replays a recording through the library's model predictor, batched as the
// replay host sends it, and writes the model input history of every prediction. The training code's
// rows are checked against this output, so both sides build the same features.
//
// usage: stylus-feature-dump CONFIG RECORDING OUT.csv
//   OUT.csv: one line per prediction: base timestamp, then N*6 floats, oldest row first.
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <string>

#include <boost/filesystem.hpp>

#include "Batcher.h"
#include "ModelPredictor.h"
#include "PredictorParams.h"
#include "RecordingReader.h"
#include "velmar/Log.h"

namespace {

// The library's exported input function keeps only the move samples after a batch's last pen-down
// or pen-up sample; the same scan here makes the predictor see what the library would.
bool scanBatch(const StylusTouchPoint* points, size_t count, std::map<unsigned long, StylusTouchPoint>& moves) {
    moves.clear();
    for (size_t i = count; i-- > 0;) {
        if (points[i].tag == STYLUS_TAG_PEN_DOWN || points[i].tag == STYLUS_TAG_PEN_UP) {
            return true;
        }
        moves.emplace(points[i].timestamp, points[i]);
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: stylus-feature-dump CONFIG RECORDING OUT.csv\n";
        return 2;
    }
    try {
        velmar::Log::m_LoggingEnabled.store(false);
        velmar::Log::m_InitDone.store(true);
        const styluspipeline::PredictorParams params(argv[1]);
        const boost::filesystem::path metrics =
            boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("stylus-metrics-%%%%%%%%.txt");
        const replay::Recording recording = replay::RecordingReader::read(argv[2]);
        const replay::Batching batching = replay::Batcher().cut(recording.samples);

        FILE* out = std::fopen(argv[3], "w");
        if (out == nullptr) {
            std::cerr << "stylus-feature-dump: cannot write " << argv[3] << "\n";
            return 1;
        }
        {
            styluspipeline::ModelPredictor predictor(params.modelParams, metrics.string());
            std::map<unsigned long, StylusTouchPoint> moves;
            styluspipeline::PredictedStylusTouchPointsCpp result;
            for (const replay::Batch& batch : batching.batches) {
                const bool boundary = scanBatch(&recording.samples[batch.first], batch.count, moves);
                if (!predictor.predictStylusTouchPoints(moves, boundary, result)) {
                    continue;
                }
                std::fprintf(out, "%llu", static_cast<unsigned long long>(result.timestamp));
                const auto& history = predictor.history();
                for (uint32_t row = 0; row < history.size(); ++row) {
                    const StylusModelInputFeatures& f = history[row];
                    for (float value : {f.timestamp, f.xpos, f.ypos, f.pressure, f.tilt, f.orientation}) {
                        std::fprintf(out, ",%.9g", static_cast<double>(value));
                    }
                }
                std::fputc('\n', out);
            }
        }
        std::fclose(out);
        boost::system::error_code ignored;
        boost::filesystem::remove(metrics, ignored);
    } catch (const std::exception& error) {
        std::cerr << "stylus-feature-dump: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
