// JSON string contents for the tools' hand-written JSON files (the replay summary and report, the
// soak's result file).
#pragma once

#include <cmath>
#include <cstdio>
#include <string>

inline std::string jsonEscape(const std::string& value) {
    std::string escaped;
    for (const char c : value) {
        switch (c) {
            case '"':
                escaped += "\\\"";
                break;
            case '\\':
                escaped += "\\\\";
                break;
            case '\n':
                escaped += "\\n";
                break;
            case '\r':
                escaped += "\\r";
                break;
            case '\t':
                escaped += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char code[8];
                    std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(c));
                    escaped += code;
                } else {
                    escaped += c;
                }
        }
    }
    return escaped;
}

inline std::string jsonString(const std::string& value) { return "\"" + jsonEscape(value) + "\""; }

// JSON has no NaN or infinity: an unknown figure is null.
inline std::string jsonNumber(double value, int significantDigits) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%.*g", significantDigits, value);
    return text;
}
