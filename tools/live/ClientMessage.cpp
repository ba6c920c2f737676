#include "ClientMessage.h"

#include <cmath>

#include "JsonValue.h"
#include "ProtocolError.h"

namespace live {

namespace {

// Integers a double holds exactly; browser timestamps are far below.
constexpr double maxExactInteger = 9007199254740992.0;
// Positions beyond this are no screen's.
constexpr double maxCoordinate = 1.0e6;
constexpr double pi = 3.14159265358979323846;

const JsonValue& member(const JsonValue& object, const std::string& key, JsonValue::Kind kind, const char* what) {
    const JsonValue* value = object.find(key);
    if (value == nullptr || value->kind() != kind) {
        throw ProtocolError("\"" + key + "\" must be " + what);
    }
    return *value;
}

double fieldInRange(const JsonValue& value, std::size_t row, const char* name, double low, double high) {
    if (value.kind() != JsonValue::Kind::Number || value.number() < low || value.number() > high) {
        throw ProtocolError("sample " + std::to_string(row) + ": " + name + " must be a number from " +
                            std::to_string(low) + " to " + std::to_string(high));
    }
    return value.number();
}

StylusTouchPoint decodeSample(const JsonValue& row, std::size_t index) {
    if (row.kind() != JsonValue::Kind::Array || row.array().size() != 7) {
        throw ProtocolError("sample " + std::to_string(index) +
                            ": expected [timestamp, x, y, pressure, tilt, orientation, tag]");
    }
    const auto& f = row.array();
    const double timestamp = fieldInRange(f[0], index, "timestamp (ms)", 0.0, maxExactInteger);
    if (timestamp != std::floor(timestamp)) {
        throw ProtocolError("sample " + std::to_string(index) + ": timestamp (ms) must be a whole number");
    }
    StylusTouchPoint point{};
    point.timestamp = static_cast<uint64_t>(timestamp);
    point.x_pos = static_cast<float>(fieldInRange(f[1], index, "x (pixels)", -maxCoordinate, maxCoordinate));
    point.y_pos = static_cast<float>(fieldInRange(f[2], index, "y (pixels)", -maxCoordinate, maxCoordinate));
    point.pressure = static_cast<float>(fieldInRange(f[3], index, "pressure", 0.0, 1.0));
    point.tilt = static_cast<float>(fieldInRange(f[4], index, "tilt (radians)", 0.0, pi / 2));
    point.orientation = static_cast<float>(fieldInRange(f[5], index, "orientation (radians)", -pi, pi));
    const double tag = fieldInRange(f[6], index, "tag", 0.0, 2.0);
    if (tag != std::floor(tag)) {
        throw ProtocolError("sample " + std::to_string(index) + ": tag must be 0 (pen down), 1 (pen up) or 2 (move)");
    }
    point.tag = static_cast<int32_t>(tag);
    return point;
}

}  // namespace

ClientMessage decodeClientMessage(const std::string& text, const MessageLimits& limits) {
    JsonValue document;
    try {
        document = JsonValue::parse(text);
    } catch (const JsonError& error) {
        throw ProtocolError(error.what());
    }
    if (document.kind() != JsonValue::Kind::Object) {
        throw ProtocolError("a message must be a JSON object");
    }
    const std::string& type = member(document, "type", JsonValue::Kind::String, "a string").string();
    if (type == "samples") {
        SamplesMessage message;
        const double seq = member(document, "seq", JsonValue::Kind::Number, "a number").number();
        if (seq < 1 || seq > maxExactInteger || seq != std::floor(seq)) {
            throw ProtocolError("\"seq\" must be a whole number from 1");
        }
        message.seq = static_cast<uint64_t>(seq);
        const auto& rows = member(document, "samples", JsonValue::Kind::Array, "an array").array();
        if (rows.empty() || rows.size() > limits.maxSamples) {
            throw ProtocolError("\"samples\" must hold 1 to " + std::to_string(limits.maxSamples) + " samples, not " +
                                std::to_string(rows.size()));
        }
        message.samples.reserve(rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            message.samples.push_back(decodeSample(rows[i], i));
        }
        return message;
    }
    if (type == "record") {
        return RecordMessage{member(document, "on", JsonValue::Kind::Bool, "true or false").boolean()};
    }
    if (type == "finish") {
        return FinishMessage{};
    }
    throw ProtocolError("unknown message type \"" + type + "\" (expected samples, record or finish)");
}

}  // namespace live
