// A parsed JSON document, read by a strict parser with a nesting limit: the page's messages are
// small, and a message that is not exactly JSON is refused rather than guessed at.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace live {

class JsonError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class JsonValue {
public:
    enum class Kind { Null, Bool, Number, String, Array, Object };

    // Throws JsonError naming the byte offset and what was expected there.
    static JsonValue parse(const std::string& text, std::size_t maxDepth = 8);

    Kind kind() const { return kindValue; }
    bool boolean() const { return boolValue; }
    double number() const { return numberValue; }
    const std::string& string() const { return stringValue; }
    const std::vector<JsonValue>& array() const { return items; }
    // The member of an object with that key (the last one when repeated), or nullptr.
    const JsonValue* find(const std::string& key) const;

private:
    friend class JsonParser;

    Kind kindValue = Kind::Null;
    bool boolValue = false;
    double numberValue = 0.0;
    std::string stringValue;
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> members;
};

}  // namespace live
