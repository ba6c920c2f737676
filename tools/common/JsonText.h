// JSON string contents for the tools' hand-written JSON files (the replay summary and report, the
// soak's result file).
#pragma once

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
