// The messages a page sends, decoded from JSON text and checked field by field:
//   {"type":"samples","seq":N,"samples":[[timestamp,x,y,pressure,tilt,orientation,tag],...]}
//   {"type":"record","on":true|false}
//   {"type":"finish"}
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "StylusStrokePredictor.h"

namespace live {

struct SamplesMessage {
    uint64_t seq = 0;
    std::vector<StylusTouchPoint> samples;
};

struct RecordMessage {
    bool on = false;
};

struct FinishMessage {};

using ClientMessage = std::variant<SamplesMessage, RecordMessage, FinishMessage>;

struct MessageLimits {
    std::size_t maxSamples = 256;
};

// Throws ProtocolError with a text the page can show: what was wrong and where.
ClientMessage decodeClientMessage(const std::string& text, const MessageLimits& limits);

}  // namespace live
