// sendInputTouchPoints on arbitrary batches through a live pipeline (generated model, recording on,
// run-time recording control allowed). The first byte of the input picks one of two pipelines (two
// models); the rest is a small command language:
//
//   op % 7 == 0  raw batch: n = next % 17 samples, 40 raw bytes each (any tag, timestamp, NaN, ...)
//   op % 7 == 1  compact batch: n = next byte samples of 3 bytes: signed timestamp step (backwards
//                and duplicate timestamps included), tag selector, special-value selector
//   op % 7 == 2  large batch: n = next 16 bits modulo 4097 synthesized samples, every k-th special,
//                and with bit 6 of the selector one sample 500 px off the stroke
//   op % 7 == 3  empty batch: a null array with a zero or negative count
//   op % 7 == 4  controlDataWriting with any value
//   op % 7 == 5  every query
//   op % 7 == 6  wait until the pipeline is idle
//
// Each input starts with a pen-up batch, so that the model state of earlier inputs is reset, and
// ends by waiting until everything queued has been handled; the running distance error must then be
// finite. Every row recorded must read back as numbers. Callbacks read every element they are given
// and check the counts.
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "FuzzSupport.h"
#include "GeneratedModel.h"
#include "RecordingParse.h"
#include "StylusStrokePredictor.h"

namespace {

namespace fs = std::filesystem;

constexpr int kNumPredictions = 5;
constexpr int kCleanupEvery = 1000;
// Far beyond the history and the recorder's queue; larger only slows every run down.
constexpr int kLargestBatch = 4096;

StylusLibHandle* g_handle = nullptr;  // the pipeline the current input drives
std::atomic<int> g_largestBatch{0};  // only grows, so it bounds every batch sent so far
std::atomic<float> g_sink{0.0f};  // keeps the reads of callback data and queries alive

void onPredictions(const PredictedStylusTouchPoints* predictions) {
    if (predictions == nullptr || predictions->numCoordinates < 0 || predictions->numCoordinates > kNumPredictions ||
        (predictions->numCoordinates > 0 && predictions->coordinates == nullptr)) {
        __builtin_trap();
    }
    float sum = 0.0f;
    for (int i = 0; i < predictions->numCoordinates; ++i) {
        const PredictedStylusCoordinate& c = predictions->coordinates[i];
        // Whatever the samples, a delivered point is finite and on some screen.
        if (!(std::fabs(c.x) <= 1.0e6f && std::fabs(c.y) <= 1.0e6f) || c.timestamp < predictions->timestamp) {
            __builtin_trap();
        }
        sum += c.x + c.y;
    }
    g_sink.store(sum, std::memory_order_relaxed);
}

void onInputPoints(const StylusTouchPoint* points, int numPoints) {
    if (numPoints < 0 || numPoints > g_largestBatch || (numPoints > 0 && points == nullptr)) {
        __builtin_trap();
    }
    float sum = 0.0f;
    for (int i = 0; i < numPoints; ++i) {
        sum += points[i].x_pos;
    }
    g_sink.store(sum, std::memory_order_relaxed);
}

class Input {
public:
    Input(const uint8_t* data, size_t size) : data(data), left(size) {}
    bool empty() const { return left == 0; }
    uint8_t byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *data++;
    }
    uint16_t u16() { return static_cast<uint16_t>(byte() | (byte() << 8)); }
    void raw(void* out, size_t size) {
        std::memset(out, 0, size);
        const size_t n = size < left ? size : left;
        std::memcpy(out, data, n);
        data += n;
        left -= n;
    }

private:
    const uint8_t* data;
    size_t left;
};

float special(uint8_t selector) {
    switch (selector % 8) {
        case 0: return std::numeric_limits<float>::quiet_NaN();
        case 1: return std::numeric_limits<float>::infinity();
        case 2: return -std::numeric_limits<float>::infinity();
        case 3: return FLT_MAX;
        case 4: return -FLT_MAX;
        case 5: return std::numeric_limits<float>::denorm_min();
        case 6: return -0.0f;
        default: return 1e30f;
    }
}

// Puts a special value into one field chosen by the selector's upper bits; selectors below 128 leave
// the sample as it is.
void applySpecial(StylusTouchPoint& point, uint8_t selector) {
    if (selector < 128) {
        return;
    }
    float* fields[] = {&point.x_pos, &point.y_pos, &point.pressure, &point.tilt, &point.orientation};
    *fields[(selector >> 3) % 5] = special(selector);
}

int32_t tagFor(uint8_t selector) {
    switch (selector % 4) {
        case 0: return STYLUS_TAG_PEN_DOWN;
        case 1: return STYLUS_TAG_PEN_UP;
        case 2: return STYLUS_TAG_MOVE;
        default: return static_cast<int32_t>(selector * 16777259u);  // any other value, negative ones too
    }
}

class Driver {
public:
    void run(Input& in) {
        resetStroke();
        while (!in.empty()) {
            const uint8_t op = in.byte();
            switch (op % 7) {
                case 0: rawBatch(in); break;
                case 1: compactBatch(in); break;
                case 2: largeBatch(in); break;
                case 3: emptyBatch(in); break;
                case 4: controlDataWriting(g_handle, static_cast<int8_t>(in.byte())); break;
                case 5: queries(); break;
                default: waitIdle(); break;
            }
        }
        waitIdle();
        // Whatever the input, a bad sample must not stay in the running accuracy statistics.
        if (!std::isfinite(getMetricsDistanceError(g_handle))) {
            __builtin_trap();
        }
    }

private:
    void send(const std::vector<StylusTouchPoint>& batch) {
        if (static_cast<int>(batch.size()) > g_largestBatch.load()) {
            g_largestBatch.store(static_cast<int>(batch.size()));
        }
        sendInputTouchPoints(g_handle, batch.empty() ? nullptr : batch.data(), static_cast<int>(batch.size()));
    }

    void resetStroke() {
        StylusTouchPoint up{};
        up.timestamp = clock;
        up.tag = STYLUS_TAG_PEN_UP;
        send({up});
        controlDataWriting(g_handle, 1);
    }

    void rawBatch(Input& in) {
        batch.resize(in.byte() % 17);
        for (auto& point : batch) {
            in.raw(&point, sizeof(point));
        }
        send(batch);
    }

    void compactBatch(Input& in) {
        batch.resize(in.byte());
        for (auto& point : batch) {
            clock += static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(in.byte())));
            point = StylusTouchPoint{};
            point.timestamp = clock;
            x += 1.5f;
            y += 0.75f;
            point.x_pos = x;
            point.y_pos = y;
            point.pressure = 0.5f;
            point.tilt = 0.3f;
            point.orientation = 0.1f;
            point.tag = tagFor(in.byte());
            applySpecial(point, in.byte());
        }
        send(batch);
    }

    void largeBatch(Input& in) {
        batch.resize(in.u16() % (kLargestBatch + 1));
        const uint8_t selector = in.byte();
        const size_t every = 1 + in.byte();
        for (size_t i = 0; i < batch.size(); ++i) {
            StylusTouchPoint& point = batch[i];
            clock += 4;
            point = StylusTouchPoint{};
            point.timestamp = clock;
            point.x_pos = x + static_cast<float>(i);
            point.y_pos = y + 0.5f * static_cast<float>(i);
            point.pressure = 0.5f;
            point.tag = STYLUS_TAG_MOVE;
            if (i % every == 0) {
                applySpecial(point, static_cast<uint8_t>(selector | 0x80));
            }
        }
        if ((selector & 0x40) != 0 && !batch.empty()) {
            StylusTouchPoint& glitch = batch[(every * 7) % batch.size()];
            glitch.x_pos += (selector & 1) != 0 ? 500.0f : -300.0f;
            glitch.y_pos += (selector & 2) != 0 ? 400.0f : 0.0f;
        }
        send(batch);
    }

    // A count of zero or below with an array queues an empty batch; without one it is refused.
    void emptyBatch(Input& in) {
        const uint8_t b = in.byte();
        const StylusTouchPoint unread{};
        sendInputTouchPoints(g_handle, (b & 2) != 0 ? nullptr : &unread, (b & 1) != 0 ? 0 : -static_cast<int>(b));
    }

    void queries() {
        g_sink.store(getMetricsDistanceError(g_handle) + getMetricsAngleDevError(g_handle) +
                         static_cast<float>(getMetricsAreValid(g_handle)) +
                         static_cast<float>(numPredictedPoints(g_handle)) +
                         static_cast<float>(areAllInputPointsProcessed(g_handle)),
                     std::memory_order_relaxed);
    }

    static void waitIdle() {
        while (areAllInputPointsProcessed(g_handle) == 0) {
            std::this_thread::yield();
        }
    }

    std::vector<StylusTouchPoint> batch;
    uint64_t clock = 1000;
    float x = 100.0f;
    float y = 200.0f;
};

// One pipeline per model: the copy model always predicts five points from the newest sample, so
// every prediction is measured by the accuracy statistics; the MLP mixes all inputs.
const char* const kModels[] = {"copy_n10_p5.tflite", "mlp_n10_p5.tflite"};
StylusLibHandle* g_pipelines[2] = {};

StylusLibHandle* startPipeline(const std::string& model) {
    const fs::path dir = fs::path(fuzzsupport::scratchDir()) / fs::path(model).stem();
    fs::create_directories(dir / "rec");
    fs::copy_file(testkit::generatedModel(model), dir / model);
    const std::string config = (dir / "predictor.json").string();
    const std::string text =
        R"({"Pipeline": {"logLevel": "INFO", "QueueFullPolicy": "Block", "enableDataWriting": true,
            "canControlDataWritingAtRunTime": true, "chunkSizeInRecords": 50, "numChunksInFile": 8,
            "diskFillPercentTh": 100, "dataFileDirectory": ")" + (dir / "rec").string() + R"("},
          "PredictionModel": {"model_name": ")" + model + R"(", "num_historical_points": 10,
            "min_num_historical_points": 10, "feature_timestamp_min": 0, "feature_timestamp_max": 10,
            "feature_xpos_min": -5, "feature_xpos_max": 5, "feature_ypos_min": -5, "feature_ypos_max": 5,
            "feature_pressure_min": -1, "feature_pressure_max": 1, "feature_tilt_min": -1,
            "feature_tilt_max": 1, "feature_orientation_min": -1, "feature_orientation_max": 1}})";
    fuzzsupport::writeFile(config, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    const StylusPredictionParams params{config.c_str(), &onPredictions, &onInputPoints};
    StylusLibHandle* handle = InitStylusLib(&params);
    // An empty batch, so that "all processed" holds from the first input on.
    const StylusTouchPoint unread{};
    sendInputTouchPoints(handle, &unread, 0);
    while (areAllInputPointsProcessed(handle) == 0) {
        std::this_thread::yield();
    }
    return handle;
}

// Every row the recorder wrote reads back as numbers: it counts, rather than writes, the others.
void checkRows(const fs::path& file) {
    const std::string content = fuzzsupport::readFile(file.string());
    const std::string header = recordingformat::kHeaderLine;
    if (content.compare(0, header.size(), header) != 0) {
        __builtin_trap();
    }
    for (size_t start = header.size(); start < content.size();) {
        const size_t end = content.find('\n', start);
        if (end == std::string::npos ||
            !recordingformat::parseRow(std::string_view(content).substr(start, end - start)).ok()) {
            __builtin_trap();
        }
        start = end + 1;
    }
}

void removeFinishedRecordings() {
    std::error_code ignored;
    for (const char* model : kModels) {
        const fs::path rec = fs::path(fuzzsupport::scratchDir()) / fs::path(model).stem() / "rec";
        for (const auto& entry : fs::directory_iterator(rec, ignored)) {
            if (entry.path().extension() == ".dat") {
                checkRows(entry.path());
                fs::remove(entry.path(), ignored);
            }
        }
    }
}

void shutdown() {
    for (StylusLibHandle*& handle : g_pipelines) {
        DeInitStylusLib(handle);
        handle = nullptr;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::silenceLog();
    for (size_t i = 0; i < 2; ++i) {
        g_pipelines[i] = startPipeline(kModels[i]);
    }
    fuzzsupport::silenceLog();  // the configurations have just set the priority; logging stays off
    std::atexit(shutdown);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static int inputs = 0;
    if (size == 0) {
        return 0;
    }
    g_handle = g_pipelines[data[0] % 2];
    Input in(data + 1, size - 1);
    Driver driver;
    driver.run(in);
    // Finished recordings pile up over a long run; the one being written is a .tmp file and stays.
    if (++inputs % kCleanupEvery == 0) {
        removeFinishedRecordings();
    }
    return 0;
}
