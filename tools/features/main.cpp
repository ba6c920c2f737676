// stylus-feature-dump: replays a recording through the library's model predictor, batched as the
// replay host sends it, and writes the model input history of every prediction. The training code's
// rows are checked against this output, so both sides build the same features.
//
// usage: stylus-feature-dump CONFIG RECORDING OUT.csv
//   OUT.csv: one line per prediction: base timestamp, then N rows of the input features, oldest row first.
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <boost/filesystem.hpp>

#include "BatchScan.h"
#include "Batcher.h"
#include "ModelPredictor.h"
#include "PredictorParams.h"
#include "RecordingReader.h"
#include "velmar/Log.h"

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
            StylusPointMessage message;
            styluspipeline::PredictedStylusTouchPointsCpp result;
            for (const replay::Batch& batch : batching.batches) {
                styluspipeline::scanBatch(&recording.samples[batch.first], batch.count, message);
                if (!predictor.predictStylusTouchPoints(message.points, message.hasStrokeBoundary, result)) {
                    continue;
                }
                std::fprintf(out, "%llu", static_cast<unsigned long long>(result.timestamp));
                const auto& history = predictor.history();
                for (uint32_t row = 0; row < history.size(); ++row) {
                    for (float value : styluspipeline::featureValues(history[row])) {
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
