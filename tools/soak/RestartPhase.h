#pragma once

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <filesystem>

#include "StylusDataWriter.h"
#include "StylusStrokePredictor.h"

namespace soak {

struct RestartPhaseReport {
    uint64_t rounds = 0;
    uint64_t badConfigsTried = 0;
    uint64_t badConfigsRefused = 0;  // InitStylusLib threw
    uint64_t goodConfigsRefused = 0;  // a failure of the phase itself
    uint64_t pipelinesRun = 0;
    uint64_t batchesSent = 0;
    uint64_t batchesRefused = 0;
    uint64_t batchesGoingBack = 0;   // first sample before the previous batch's last
    RecorderCounts recorder;         // summed over the pipelines
    uint64_t rowsRecorded = 0;       // read back from the recording files
    bool recorderBalanced = true;    // every pipeline: rows read back = written, written + lost + not numbers = accepted
    bool filesWhole = true;
    bool plantedUntouched = true;    // files planted in every recording directory neither followed nor finished
    double deInitMsMax = 0.0;        // longest DeInitStylusLib, with a 64 GB sparse leftover in the directory
    double rssStartMiB = 0.0;        // after the first round, the warm-up
    double rssEndMiB = 0.0;
};

// Restarts the library again and again. Each round first tries a configuration with one bad key
// (from a fixed table; whatever InitStylusLib accepts is run briefly), then runs a good one whose
// batches keep going back in time. Every pipeline records into a directory of its own, with hostile
// files planted in it (PlantedFiles), which is read back and removed once the pipeline is gone. The configurations are written into dir, beside the model.
class RestartPhase {
public:
    RestartPhase(const boost::property_tree::ptree& goodConfig, const std::filesystem::path& dir,
                 StylusPredictionCallback onPredictions, StylusInputPointsCallback onInputPoints);

    RestartPhaseReport run(int rounds, int batchesPerRun, uint32_t seed);

private:
    // False when InitStylusLib refused the configuration.
    bool runPipeline(const boost::property_tree::ptree& config, const std::string& name, int batches,
                     uint32_t seed, RestartPhaseReport& report);

    boost::property_tree::ptree goodConfig;
    std::filesystem::path dir;
    StylusPredictionCallback onPredictions;
    StylusInputPointsCallback onInputPoints;
};

}  // namespace soak
