#include "RecordingFormat.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <string>

#include "RecordingParse.h"

using recordingformat::parseRow;

TEST(RecordingFormatTest, HeaderIsTheFieldNamesInRowOrder) {
    std::string joined;
    for (const char* name : recordingformat::kFieldNames) {
        joined += (joined.empty() ? "" : ",") + std::string(name);
    }
    EXPECT_EQ(joined, recordingformat::kHeader);
    EXPECT_EQ(joined + "\n", recordingformat::kHeaderLine);
}

// The widest row there is still fits the fixed row buffer whole.
TEST(RecordingFormatTest, WidestRowIsNotCut) {
    const StylusTouchPoint widest{UINT64_MAX, -FLT_MAX, -FLT_MAX, -FLT_MAX, -FLT_MAX, -FLT_MAX, INT_MIN, {}};
    const std::string lowest = ",-340282346638528859811704183484516925440.0000000";
    const std::string expected = "18446744073709551615" + lowest + lowest + lowest + lowest + lowest + ",-2147483648\n";
    EXPECT_EQ(recordingformat::row(widest), expected);
    EXPECT_LT(expected.size(), recordingformat::kMaxRowLength);
}

TEST(RecordingFormatTest, RowsReadBackOrNameTheirFirstBadField) {
    const StylusTouchPoint exact{1700000000123ULL, 512.25f, -3.5f, 0.5f, 0.0f, 1.5f, -1, {}};
    const std::string written = recordingformat::row(exact);
    const recordingformat::ParsedRow back = parseRow(written.substr(0, written.size() - 1));
    ASSERT_TRUE(back.ok());
    EXPECT_EQ(recordingformat::row(back.point), written);
    const auto spaced = parseRow(" 5 ,\t1, 2,0,0,0, 2 ");
    ASSERT_TRUE(spaced.ok());
    EXPECT_EQ(spaced.point.timestamp, 5u);
    EXPECT_EQ(spaced.point.tag, 2);

    struct Case {
        const char* row;
        size_t fields;
        int badField;
        const char* badText;
    };
    const Case cases[] = {
        {"4,1,2,0,0,0", 6, -1, ""},       {"4,1,2,0,0,0,2,", 8, -1, ""},      {"", 1, -1, ""},
        {"-4,1,2,0,0,0,0", 7, 0, "-4"},   {"4.0,1,2,0,0,0,0", 7, 0, "4.0"},   {"4,1,abc,0,0,0,2", 7, 2, "abc"},
        {"4,1,2,0,0,nan,0", 7, 5, "nan"}, {"4,inf,2,0,0,0,0", 7, 1, "inf"},   {"4,1,2,0,0,0,2.5", 7, 6, "2.5"},
        {"4,1,2,0,,0,2", 7, 4, ""},       {"4,1,2,0,0,0,99999999999", 7, 6, "99999999999"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        const recordingformat::ParsedRow row = parseRow(c.row);
        EXPECT_FALSE(row.ok());
        EXPECT_EQ(row.fieldsFound, c.fields);
        EXPECT_EQ(row.badField, c.badField);
        EXPECT_EQ(std::string(row.badText), c.badText);
    }
}
