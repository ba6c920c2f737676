#include "ConfigCheck.h"

#include <exception>
#include <string>
#include <vector>

#include "PredictorParams.h"
#include "talcflow/TALCModelRunner.h"
#include "velmar/Log.h"

namespace replay {

namespace {

// Collects the lines of warning priority or above for its lifetime.
class WarningLines {
public:
    WarningLines() {
        velmar::Log::setSink([this](const velmar::LogEntry& entry) {
            if (entry.priority >= velmar::Warning) {
                lines.push_back(entry.message);
            }
        });
    }
    ~WarningLines() { velmar::Log::setSink(nullptr); }
    WarningLines(const WarningLines&) = delete;
    WarningLines& operator=(const WarningLines&) = delete;

    std::vector<std::string> lines;
};

}  // namespace

int ConfigCheck::run(const std::string& configPath, std::ostream& out) {
    std::vector<std::string> problems;
    {
        WarningLines warnings;
        try {
            const styluspipeline::PredictorParams params(configPath);
            const auto& model = params.modelParams;
            talcflow::TALCModelRunner runner(model.model_path,
                                             talcflow::TALCModelRunner::engineFromName(model.inference_engine));
        } catch (const std::exception& error) {
            // A refusal is logged as an error too; the exception's text says it once more otherwise.
            if (warnings.lines.empty() || warnings.lines.back() != error.what()) {
                warnings.lines.push_back(error.what());
            }
        }
        problems = warnings.lines;
    }
    for (const std::string& problem : problems) {
        out << problem << "\n";
    }
    if (problems.empty()) {
        out << configPath << ": configuration OK\n";
    } else {
        out << configPath << ": " << problems.size() << (problems.size() == 1 ? " problem" : " problems") << "\n";
    }
    return static_cast<int>(problems.size());
}

}  // namespace replay
