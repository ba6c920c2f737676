#include "BatchMix.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "CirclingPen.h"

namespace soak {

namespace {

// Weights of the batch kinds, in the order of BatchKind.
constexpr int kWeights[] = {70, 5, 4, 4, 4, 4, 1, 8, 4};
constexpr int kStrokeLength = 150;  // batches between pen-down and pen-up of a good stroke
constexpr uint64_t kSampleStepMs = 4;

}  // namespace

const char* kindName(BatchKind kind) {
    switch (kind) {
        case BatchKind::Good: return "good";
        case BatchKind::NonFinite: return "non_finite";
        case BatchKind::Backwards: return "backwards";
        case BatchKind::Duplicates: return "duplicates";
        case BatchKind::Empty: return "empty";
        case BatchKind::PenStorm: return "pen_storm";
        case BatchKind::Large: return "large";
        case BatchKind::Single: return "single";
        case BatchKind::Glitch: return "glitch";
        case BatchKind::Count: break;
    }
    return "?";
}

BatchMix::BatchMix(uint32_t seed) : random(seed), pick(std::begin(kWeights), std::end(kWeights)) {}

StylusTouchPoint BatchMix::move() {
    clock += kSampleStepMs;
    angle += 0.02f;
    return testkit::circlingPen(clock, angle, 0.2f);
}

void BatchMix::good(Batch& batch) {
    for (int i = 0; i < 4; ++i) {
        batch.points.push_back(move());
    }
    if (batchesInStroke == 0) {
        batch.points.front().tag = STYLUS_TAG_PEN_DOWN;
    } else if (batchesInStroke == kStrokeLength - 1) {
        batch.points.back().tag = STYLUS_TAG_PEN_UP;
    }
    batchesInStroke = (batchesInStroke + 1) % kStrokeLength;
}

void BatchMix::next(Batch& batch) {
    batch.points.clear();
    batch.kind = static_cast<BatchKind>(pick(random));
    switch (batch.kind) {
        case BatchKind::Good:
            good(batch);
            break;
        case BatchKind::NonFinite: {
            good(batch);
            const float values[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity()};
            for (auto& point : batch.points) {
                if (random() % 2 == 0) {
                    float* fields[] = {&point.x_pos, &point.y_pos, &point.pressure, &point.tilt, &point.orientation};
                    *fields[random() % 5] = values[random() % 3];
                }
            }
            break;
        }
        case BatchKind::Backwards: {
            const uint64_t back = 1 + random() % 400;
            clock = clock > back ? clock - back : 0;
            good(batch);
            std::shuffle(batch.points.begin(), batch.points.end(), random);
            break;
        }
        case BatchKind::Duplicates:
            good(batch);
            batch.points[1].timestamp = batch.points[0].timestamp;
            batch.points[3].timestamp = batch.points[2].timestamp;
            batch.points[3].x_pos += 1.0f;
            break;
        case BatchKind::Empty:
            batch.count = random() % 2 == 0 ? 0 : -static_cast<int>(1 + random() % 100);
            return;
        case BatchKind::PenStorm: {
            const int n = 8 + static_cast<int>(random() % 57);
            for (int i = 0; i < n; ++i) {
                StylusTouchPoint point = move();
                const uint32_t r = random() % 3;
                point.tag = r == 0 ? STYLUS_TAG_PEN_DOWN : (r == 1 ? STYLUS_TAG_PEN_UP : STYLUS_TAG_MOVE);
                batch.points.push_back(point);
            }
            break;
        }
        case BatchKind::Large: {
            const int n = 64 + static_cast<int>(random() % 1985);
            for (int i = 0; i < n; ++i) {
                batch.points.push_back(move());
            }
            break;
        }
        case BatchKind::Single:
            batch.points.push_back(move());
            break;
        case BatchKind::Glitch: {
            good(batch);
            StylusTouchPoint& point = batch.points[random() % batch.points.size()];
            const float direction = static_cast<float>(random() % 628) / 100.0f;
            point.x_pos += kGlitchPx * std::cos(direction);
            point.y_pos += kGlitchPx * std::sin(direction);
            break;
        }
        case BatchKind::Count:
            break;
    }
    batch.count = static_cast<int>(batch.points.size());
}

uint64_t BatchMix::recorderSamples(const Batch& batch) { return batch.count > 0 ? static_cast<uint64_t>(batch.count) : 0; }

}  // namespace soak
