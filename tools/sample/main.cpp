// stylus-sample-gen: writes a deterministic handwriting-like recording in the recorder's CSV form.
#include <cstdlib>
#include <iostream>
#include <string>

#include "HandwritingGenerator.h"
#include "RecordingWriter.h"
#include "ReplayError.h"

namespace {

const char* const usage =
    "usage: stylus-sample-gen [--seed N] [--words N] OUTPUT.csv\n"
    "Writes handwriting-like pen input sampled at 240 Hz; '-' as OUTPUT writes to standard output.\n";

bool parseCount(const std::string& text, unsigned long long& value) {
    char* end = nullptr;
    value = std::strtoull(text.c_str(), &end, 10);
    return !text.empty() && text[0] != '-' && end != nullptr && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
    replay::GeneratorSettings settings;
    std::string output;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        unsigned long long value = 0;
        if ((arg == "--seed" || arg == "--words") && i + 1 < argc && parseCount(argv[i + 1], value)) {
            if (arg == "--seed") {
                settings.seed = value;
            } else {
                settings.words = static_cast<int>(std::min<unsigned long long>(value, 100000));
            }
            ++i;
        } else if (arg == "-h" || arg == "--help") {
            std::cout << usage;
            return 0;
        } else if (output.empty() && (arg == "-" || arg[0] != '-')) {
            output = arg;
        } else {
            std::cerr << "stylus-sample-gen: bad argument " << arg << "\n" << usage;
            return 2;
        }
    }
    if (output.empty()) {
        std::cerr << usage;
        return 2;
    }
    const auto samples = replay::HandwritingGenerator(settings).generate();
    try {
        if (output == "-") {
            replay::RecordingWriter::write(std::cout, samples);
        } else {
            replay::RecordingWriter::write(output, samples);
        }
    } catch (const replay::ReplayError& error) {
        std::cerr << "stylus-sample-gen: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
