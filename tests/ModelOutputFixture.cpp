#include "ModelOutputFixture.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace modelfixture {
namespace {

// %.9g gives back the same float when read.
std::string floats(const std::vector<float>& values) {
    std::string text;
    char number[32];
    for (float v : values) {
        std::snprintf(number, sizeof(number), " %.9g", static_cast<double>(v));
        text += number;
    }
    return text;
}

class LineReader {
public:
    explicit LineReader(const std::string& path) : path(path), in(path) {
        if (!in.is_open()) throw std::runtime_error("cannot read " + path);
    }

    // The next line that is not a comment, which must start with the given key.
    std::istringstream expect(const std::string& key) {
        std::string text;
        while (std::getline(in, text)) {
            ++number;
            if (text.empty() || text[0] == '#') continue;
            std::istringstream fields(text);
            std::string found;
            fields >> found;
            if (found != key) fail("expected \"" + key + "\", found \"" + found + "\"");
            return fields;
        }
        fail("ends before \"" + key + "\"");
    }

    std::vector<float> floats(const std::string& key) {
        std::istringstream fields = expect(key);
        std::vector<float> values{std::istream_iterator<float>(fields), std::istream_iterator<float>()};
        if (!fields.eof()) fail("a value of \"" + key + "\" is not a number");
        return values;
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error(path + ":" + std::to_string(number) + ": " + what);
    }

private:
    std::string path;
    std::ifstream in;
    int number = 0;
};

}  // namespace

std::vector<std::vector<float>> runModel(talcflow::TALCModelRunner& runner, const std::vector<float>& input) {
    using talcflow::TALCModelRunner;
    using talcflow::TALCTensorType;
    if (runner.SetInputTensorData(0, TALCTensorType::Float32, input.data(), input.size() * sizeof(float)) !=
            TALCModelRunner::kSuccess ||
        runner.runInference() != TALCModelRunner::kSuccess) {
        throw std::runtime_error("the model refused an input of " + std::to_string(input.size()) + " values");
    }
    std::vector<std::vector<float>> outputs;
    for (int k = 0;; ++k) {
        size_t count = 1;
        try {
            for (uint32_t d : runner.getOutputTensorDetails(k).shape) count *= d;
        } catch (const std::out_of_range&) {
            return outputs;
        }
        std::vector<float> values(count);
        if (runner.GetOutputTensorData(k, TALCTensorType::Float32, values.data(), count * sizeof(float)) !=
            TALCModelRunner::kSuccess) {
            throw std::runtime_error("output " + std::to_string(k) + " cannot be read");
        }
        outputs.push_back(std::move(values));
    }
}

ModelFingerprint fingerprintOf(const std::string& modelPath) {
    std::ifstream in(modelPath, std::ios::binary);
    if (!in.is_open()) throw std::runtime_error("cannot read " + modelPath);
    ModelFingerprint print;
    print.fnv1a64 = 14695981039346656037ull;
    for (std::istreambuf_iterator<char> it(in), end; it != end; ++it) {
        // Through unsigned char: char is signed on x86-64 and unsigned on arm64.
        print.fnv1a64 = (print.fnv1a64 ^ static_cast<unsigned char>(*it)) * 1099511628211ull;
        ++print.bytes;
    }
    return print;
}

ModelOutputFixture readFixture(const std::string& path) {
    LineReader reader(path);
    ModelOutputFixture fixture;
    std::string hash;
    reader.expect("model_bytes") >> fixture.model.bytes;
    reader.expect("model_fnv1a64") >> hash;
    fixture.model.fnv1a64 = std::strtoull(hash.c_str(), nullptr, 16);
    std::getline(reader.expect("made_by") >> std::ws, fixture.madeBy);
    size_t caseCount = 0;
    size_t outputCount = 0;
    reader.expect("cases") >> caseCount >> outputCount;
    if (caseCount == 0 || outputCount == 0) reader.fail("no cases or no outputs");
    for (size_t c = 0; c < caseCount; ++c) {
        OutputCase one;
        one.input = reader.floats("input");
        for (size_t k = 0; k < outputCount; ++k) one.outputs.push_back(reader.floats("output" + std::to_string(k)));
        fixture.cases.push_back(std::move(one));
    }
    return fixture;
}

void writeFixture(const std::string& path, const ModelOutputFixture& fixture, const std::string& regenerateCommand) {
    std::ofstream out(path, std::ios::trunc);
    char hash[24];
    std::snprintf(hash, sizeof(hash), "%016" PRIx64, fixture.model.fnv1a64);
    out << "# Outputs of the shipped model on fixed inputs, the reference for other machines and engines.\n"
        << "# Regenerate after retraining with: " << regenerateCommand << "\n"
        << "model_bytes " << fixture.model.bytes << "\n"
        << "model_fnv1a64 " << hash << "\n"
        << "made_by " << fixture.madeBy << "\n"
        << "cases " << fixture.cases.size() << " " << (fixture.cases.empty() ? 0 : fixture.cases[0].outputs.size())
        << "\n";
    for (const OutputCase& one : fixture.cases) {
        out << "input" << floats(one.input) << "\n";
        for (size_t k = 0; k < one.outputs.size(); ++k) out << "output" << k << floats(one.outputs[k]) << "\n";
    }
    if (!out.good()) throw std::runtime_error("cannot write " + path);
}

}  // namespace modelfixture
