#include "CircularBuffer.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <vector>

#include "StylusModelInputFeatures.h"

namespace {

using Buffer = CircularBuffer<StylusModelInputFeatures>;

// Every column of row(v) differs, so that a column moved or dropped shows.
StylusModelInputFeatures row(float v) {
    StylusModelInputFeatures features{};
    for (std::size_t i = 0; i < styluspipeline::kInputFeatureCount; ++i) {
        features.*styluspipeline::kInputFeatureColumns[i] = v + 0.5f * static_cast<float>(i);
    }
    return features;
}

// Row values of the buffer, oldest first; a zero-filled row reads as 0 and row(v) as v.
std::vector<float> contents(const Buffer& buffer) {
    std::vector<float> values;
    for (uint32_t i = 0; i < buffer.size(); ++i) {
        const float v = buffer[i].timestamp;
        EXPECT_EQ(styluspipeline::featureValues(buffer[i]),
                  styluspipeline::featureValues(v == 0 ? StylusModelInputFeatures{} : row(v)))
            << "row " << i;
        values.push_back(v);
    }
    return values;
}

}  // namespace

TEST(CircularBufferTest, InsertShiftsOldestOutKeepsTensorOrderAndRejectsOverlongInserts) {
    Buffer buffer(3);
    EXPECT_EQ(contents(buffer), (std::vector<float>{0, 0, 0}));
    const std::vector<StylusModelInputFeatures> items{row(1), row(2), row(3), row(4), row(7), row(8), row(9), row(5)};
    buffer.insert(&items[0], 2);
    EXPECT_EQ(contents(buffer), (std::vector<float>{0, 1, 2}));
    buffer.insert(&items[2], 2);
    buffer.insert(nullptr, 0);
    EXPECT_EQ(contents(buffer), (std::vector<float>{2, 3, 4}));
    EXPECT_EQ(buffer.begin(), &buffer[0]);
    buffer.insert(&items[4], 3);
    EXPECT_EQ(contents(buffer), (std::vector<float>{7, 8, 9}));

    // Too many or a negative count throws and leaves the rows as they were.
    // Counts read at run time: a constant -1 makes GCC warn about the copy the throw never reaches.
    for (volatile int n : {4, -1}) {
        EXPECT_THROW(buffer.insert(items.data(), n), std::out_of_range) << n;
    }
    EXPECT_EQ(contents(buffer), (std::vector<float>{7, 8, 9}));
    buffer.clear();
    EXPECT_EQ(contents(buffer), (std::vector<float>{0, 0, 0}));
}
