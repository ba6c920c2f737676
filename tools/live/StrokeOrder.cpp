#include "StrokeOrder.h"

#include <string>

#include "ProtocolError.h"

namespace live {

void StrokeOrder::check(const SamplesMessage& message) {
    if (message.seq != lastSeq + 1) {
        throw ProtocolError("batch " + std::to_string(message.seq) + " arrived after batch " + std::to_string(lastSeq) +
                            " (expected " + std::to_string(lastSeq + 1) + ")");
    }
    lastSeq = message.seq;
    for (std::size_t i = 0; i < message.samples.size(); ++i) {
        const StylusTouchPoint& p = message.samples[i];
        const std::string where = "batch " + std::to_string(message.seq) + ", sample " + std::to_string(i);
        if (anySample && p.timestamp < lastTimestamp) {
            throw ProtocolError(where + ": timestamp " + std::to_string(p.timestamp) + " ms is older than " +
                                std::to_string(lastTimestamp) + " ms");
        }
        anySample = true;
        lastTimestamp = p.timestamp;
        if (p.tag == STYLUS_TAG_PEN_DOWN) {
            if (inStroke) {
                throw ProtocolError(where + ": pen down inside a stroke (no pen up before it)");
            }
            inStroke = true;
        } else if (!inStroke) {
            throw ProtocolError(where + (p.tag == STYLUS_TAG_PEN_UP ? ": pen up" : ": move") +
                                " outside a stroke (no pen down before it)");
        } else if (p.tag == STYLUS_TAG_PEN_UP) {
            inStroke = false;
        }
    }
}

}  // namespace live
