#include "JsonValue.h"

#include <cmath>
#include <cstdlib>

namespace live {

class JsonParser {
public:
    JsonParser(const std::string& text, std::size_t maxDepth) : text(text), maxDepth(maxDepth) {}

    JsonValue document() {
        JsonValue value = parseValue(0);
        skipSpace();
        if (pos != text.size()) {
            fail("end of input");
        }
        return value;
    }

private:
    [[noreturn]] void fail(const std::string& expected) const {
        throw JsonError("invalid JSON at byte " + std::to_string(pos) + ": expected " + expected);
    }

    void skipSpace() {
        while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t' || text[pos] == '\n' || text[pos] == '\r')) {
            ++pos;
        }
    }

    bool consume(char c) {
        skipSpace();
        if (pos < text.size() && text[pos] == c) {
            ++pos;
            return true;
        }
        return false;
    }

    void literal(const char* word) {
        const std::string expected(word);
        if (text.compare(pos, expected.size(), expected) != 0) {
            fail("a value");
        }
        pos += expected.size();
    }

    JsonValue parseValue(std::size_t depth) {
        skipSpace();
        if (pos >= text.size()) {
            fail("a value");
        }
        JsonValue value;
        const char c = text[pos];
        if (c == '{' || c == '[') {
            if (depth >= maxDepth) {
                fail("at most " + std::to_string(maxDepth) + " levels of nesting");
            }
            ++pos;
            if (c == '{') {
                parseObject(value, depth + 1);
            } else {
                parseArray(value, depth + 1);
            }
        } else if (c == '"') {
            value.kindValue = JsonValue::Kind::String;
            value.stringValue = parseString();
        } else if (c == 't') {
            literal("true");
            value.kindValue = JsonValue::Kind::Bool;
            value.boolValue = true;
        } else if (c == 'f') {
            literal("false");
            value.kindValue = JsonValue::Kind::Bool;
        } else if (c == 'n') {
            literal("null");
        } else {
            value.kindValue = JsonValue::Kind::Number;
            value.numberValue = parseNumber();
        }
        return value;
    }

    void parseObject(JsonValue& value, std::size_t depth) {
        value.kindValue = JsonValue::Kind::Object;
        if (consume('}')) {
            return;
        }
        do {
            skipSpace();
            if (pos >= text.size() || text[pos] != '"') {
                fail("a member name in double quotes");
            }
            std::string key = parseString();
            if (!consume(':')) {
                fail("':'");
            }
            value.members.emplace_back(std::move(key), parseValue(depth));
        } while (consume(','));
        if (!consume('}')) {
            fail("',' or '}'");
        }
    }

    void parseArray(JsonValue& value, std::size_t depth) {
        value.kindValue = JsonValue::Kind::Array;
        if (consume(']')) {
            return;
        }
        do {
            value.items.push_back(parseValue(depth));
        } while (consume(','));
        if (!consume(']')) {
            fail("',' or ']'");
        }
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    double parseNumber() {
        const std::size_t start = pos;
        if (pos < text.size() && text[pos] == '-') {
            ++pos;
        }
        if (pos < text.size() && text[pos] == '0') {
            ++pos;
        } else if (pos < text.size() && isDigit(text[pos])) {
            while (pos < text.size() && isDigit(text[pos])) {
                ++pos;
            }
        } else {
            fail("a value");
        }
        if (pos < text.size() && text[pos] == '.') {
            ++pos;
            if (pos >= text.size() || !isDigit(text[pos])) {
                fail("a digit after the decimal point");
            }
            while (pos < text.size() && isDigit(text[pos])) {
                ++pos;
            }
        }
        if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
            ++pos;
            if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
                ++pos;
            }
            if (pos >= text.size() || !isDigit(text[pos])) {
                fail("a digit in the exponent");
            }
            while (pos < text.size() && isDigit(text[pos])) {
                ++pos;
            }
        }
        const std::string token = text.substr(start, pos - start);
        const double number = std::strtod(token.c_str(), nullptr);
        if (!std::isfinite(number)) {
            pos = start;
            fail("a number within the range of a double");
        }
        return number;
    }

    unsigned hexQuad() {
        if (pos + 4 > text.size()) {
            fail("four hex digits");
        }
        unsigned code = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = text[pos++];
            code <<= 4;
            if (isDigit(c)) {
                code |= static_cast<unsigned>(c - '0');
            } else if (c >= 'a' && c <= 'f') {
                code |= static_cast<unsigned>(c - 'a' + 10);
            } else if (c >= 'A' && c <= 'F') {
                code |= static_cast<unsigned>(c - 'A' + 10);
            } else {
                --pos;
                fail("a hex digit");
            }
        }
        return code;
    }

    static void appendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    std::string parseString() {
        ++pos;  // the opening quote
        std::string out;
        while (true) {
            if (pos >= text.size()) {
                fail("a closing '\"'");
            }
            const char c = text[pos++];
            if (c == '"') {
                return out;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                --pos;
                fail("no control character inside a string");
            }
            if (c != '\\') {
                out += c;
                continue;
            }
            if (pos >= text.size()) {
                fail("an escape");
            }
            const char e = text[pos++];
            switch (e) {
                case '"': out += '"'; break;
                case '\\': out += '\\'; break;
                case '/': out += '/'; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'u': {
                    unsigned code = hexQuad();
                    if (code >= 0xD800 && code <= 0xDBFF) {
                        if (text.compare(pos, 2, "\\u") != 0) {
                            fail("the low half of a surrogate pair");
                        }
                        pos += 2;
                        const unsigned low = hexQuad();
                        if (low < 0xDC00 || low > 0xDFFF) {
                            fail("the low half of a surrogate pair");
                        }
                        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                    } else if (code >= 0xDC00 && code <= 0xDFFF) {
                        fail("no lone low surrogate");
                    }
                    appendUtf8(out, code);
                    break;
                }
                default:
                    --pos;
                    fail("a valid escape");
            }
        }
    }

    const std::string& text;
    const std::size_t maxDepth;
    std::size_t pos = 0;
};

JsonValue JsonValue::parse(const std::string& text, std::size_t maxDepth) {
    return JsonParser(text, maxDepth).document();
}

const JsonValue* JsonValue::find(const std::string& key) const {
    const JsonValue* found = nullptr;
    for (const auto& member : members) {
        if (member.first == key) {
            found = &member.second;
        }
    }
    return found;
}

}  // namespace live
