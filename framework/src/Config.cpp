// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include "velmar/Config.h"

#include <boost/property_tree/detail/file_parser_error.hpp>
#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <string>

namespace velmar {

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The parsers, and the tree's destructor, recurse once per level: a deeply nested file would exhaust
// the stack of the thread that reads it. A configuration is a few levels deep; deeper files are refused
// like unparsable ones, before any parser sees them.
constexpr int kMaxNesting = 64;

struct Depth {
    int level = 0;
    int line = 1;  // where the limit was first passed; 0 when it never was
    bool exceeded = false;

    void open(int currentLine) {
        if (++level > kMaxNesting && !exceeded) {
            exceeded = true;
            line = currentLine;
        }
    }
};

// JSON nests with brackets outside quoted strings.
Depth bracketDepth(const std::string& text) {
    Depth depth;
    int line = 1;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (c == '\n') {
            ++line;
        }
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            depth.open(line);
        } else if (c == '}' || c == ']') {
            --depth.level;
        }
    }
    return depth;
}

// XML nests by elements: an opening tag that does not close itself goes one level down. Comments,
// CDATA sections, declarations and processing instructions do not nest.
Depth elementDepth(const std::string& text) {
    Depth depth;
    int line = 1;
    const auto skipTo = [&](size_t from, const char* end) {
        const size_t found = text.find(end, from);
        const size_t stop = found == std::string::npos ? text.size() : found + std::char_traits<char>::length(end);
        for (size_t i = from; i < stop; ++i) {
            line += text[i] == '\n' ? 1 : 0;
        }
        return stop;
    };
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] != '<') {
            line += text[i] == '\n' ? 1 : 0;
            ++i;
        } else if (text.compare(i, 4, "<!--") == 0) {
            i = skipTo(i, "-->");
        } else if (text.compare(i, 9, "<![CDATA[") == 0) {
            i = skipTo(i, "]]>");
        } else if (text.compare(i, 2, "<?") == 0) {
            i = skipTo(i, "?>");
        } else if (text.compare(i, 2, "<!") == 0 || text.compare(i, 2, "</") == 0) {
            if (text[i + 1] == '/') {
                --depth.level;
            }
            i = skipTo(i, ">");
        } else {
            // An opening tag ends at the first '>' outside its quoted attribute values.
            const int tagLine = line;
            char quote = 0;
            size_t end = i + 1;
            for (; end < text.size() && (quote != 0 || text[end] != '>'); ++end) {
                line += text[end] == '\n' ? 1 : 0;
                if (quote != 0 && text[end] == quote) {
                    quote = 0;
                } else if (quote == 0 && (text[end] == '"' || text[end] == '\'')) {
                    quote = text[end];
                }
            }
            if (end >= text.size() || text[end - 1] != '/') {
                depth.open(tagLine);
            }
            i = end + 1;
        }
    }
    return depth;
}

bool readText(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;  // the parser reports the unreadable file
    }
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

[[noreturn]] void refuseNesting(const std::string& path, int line) {
    throw boost::property_tree::file_parser_error("nested deeper than " + std::to_string(kMaxNesting) + " levels",
                                                  path, static_cast<unsigned long>(line));
}

void refuseDeepNesting(const std::string& path, Config::Format format) {
    std::string text;
    if (!readText(path, text)) {
        return;
    }
    const Depth depth = format == Config::FormatXml ? elementDepth(text) : bracketDepth(text);
    if (depth.exceeded) {
        refuseNesting(path, depth.line);
    }
}

// An INFO file may include others, each parsed by a further recursion of the parser into the level
// where the directive stands; a file that includes itself would recurse until the stack runs out.
constexpr int kMaxIncludeDepth = 8;
constexpr int kMaxIncludedFiles = 64;

// Blanks as the INFO parser sees them: ASCII white space only.
bool isBlank(char c) {
    return static_cast<unsigned char>(c) <= 127 && std::isspace(static_cast<unsigned char>(c)) != 0;
}

// The file name of an include directive, read as the INFO parser reads it: blanks are allowed before
// the '#' and between it and "include" (`# include "name"`), and the name's escapes are expanded.
// Empty for any other line, and for a malformed directive, which the parser reports.
std::string includedName(const std::string& line) {
    const char* text = line.c_str();
    const auto skipBlanks = [&] {
        while (isBlank(*text)) {
            ++text;
        }
    };
    skipBlanks();
    if (*text != '#') {
        return "";
    }
    ++text;
    skipBlanks();
    const char* word = text;
    while (*text != '\0' && *text != ';' && !isBlank(*text)) {
        ++text;
    }
    if (std::string(word, text) != "include") {
        return "";
    }
    skipBlanks();
    if (*text != '"') {
        return "";
    }
    static const std::string escapes = "0abfnrtv\"'\\";
    static const std::string expanded("\0\a\b\f\n\r\t\v\"'\\", 11);
    std::string name;
    for (++text; *text != '\0' && *text != '"'; ++text) {
        if (*text != '\\') {
            name += *text;
            continue;
        }
        const size_t escape = text[1] == '\0' ? std::string::npos : escapes.find(text[1]);
        if (escape == std::string::npos) {
            return "";
        }
        name += expanded[escape];
        ++text;
    }
    return *text == '"' ? name : "";
}

struct IncludeWalk {
    int filesRead = 0;

    // Checks the nesting of path, starting at baseLevel, and of every file it includes.
    void check(const std::string& path, int includeDepth, int baseLevel) {
        std::string text;
        if (!readText(path, text)) {
            return;
        }
        int level = baseLevel;
        int lineNumber = 0;
        size_t start = 0;
        while (start <= text.size()) {
            const size_t end = std::min(text.find('\n', start), text.size());
            const std::string line = text.substr(start, end - start);
            start = end + 1;
            ++lineNumber;
            const std::string name = includedName(line);
            if (!name.empty()) {
                if (includeDepth >= kMaxIncludeDepth || ++filesRead > kMaxIncludedFiles) {
                    throw boost::property_tree::file_parser_error(
                        "includes nested deeper than " + std::to_string(kMaxIncludeDepth) + " files or more than " +
                            std::to_string(kMaxIncludedFiles) + " in all (a file including itself?)",
                        path, static_cast<unsigned long>(lineNumber));
                }
                check(name, includeDepth + 1, level);
                continue;
            }
            bool inString = false;
            bool escaped = false;
            for (const char c : line) {
                if (inString) {
                    inString = escaped || c != '"';
                    escaped = !escaped && c == '\\';
                } else if (c == '"') {
                    inString = true;
                } else if (c == ';') {
                    break;
                } else if (c == '{' && ++level > kMaxNesting) {
                    refuseNesting(path, lineNumber);
                } else if (c == '}') {
                    --level;
                }
            }
        }
    }
};

}  // namespace

Config::Format Config::formatOf(const std::string& path) {
    if (endsWith(path, ".ini")) {
        return FormatIni;
    }
    if (endsWith(path, ".xml")) {
        return FormatXml;
    }
    if (endsWith(path, ".info")) {
        return FormatInfo;
    }
    return FormatJson;
}

Config::Config(const std::string& path, Format format, InputType /*inputType*/) {
    const Format effective = format == FormatByExtension ? formatOf(path) : format;
    if (effective == FormatInfo) {
        IncludeWalk().check(path, 0, 0);
    } else if (effective != FormatIni) {  // INI has sections only: nothing to nest
        refuseDeepNesting(path, effective);  // JSON or XML
    }
    switch (effective) {
        case FormatIni:
            boost::property_tree::read_ini(path, m_Tree);
            break;
        case FormatXml:
            boost::property_tree::read_xml(path, m_Tree);
            break;
        case FormatInfo:
            boost::property_tree::read_info(path, m_Tree);
            break;
        case FormatJson:
        case FormatByExtension:
        default:
            boost::property_tree::read_json(path, m_Tree);
            break;
    }
}

bool Config::exists(const std::string& key) const {
    return static_cast<bool>(m_Tree.get_child_optional(boost::property_tree::ptree::path_type(key, '.')));
}

}  // namespace velmar
