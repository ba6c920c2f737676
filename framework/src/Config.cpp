// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include "velmar/Config.h"

#include <boost/property_tree/detail/file_parser_error.hpp>
#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <fstream>
#include <iterator>
#include <string>

namespace velmar {

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

Config::Format formatFromExtension(const std::string& path) {
    if (endsWith(path, ".ini")) {
        return Config::FormatIni;
    }
    if (endsWith(path, ".xml")) {
        return Config::FormatXml;
    }
    if (endsWith(path, ".info")) {
        return Config::FormatInfo;
    }
    return Config::FormatJson;
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

// JSON and INFO nest with brackets outside quoted strings; INFO also has ';' comments to the line end.
Depth bracketDepth(const std::string& text, bool info) {
    Depth depth;
    int line = 1;
    bool inString = false;
    bool escaped = false;
    bool inComment = false;
    for (const char c : text) {
        if (c == '\n') {
            ++line;
            inComment = false;
        }
        if (inComment) {
            continue;
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
        } else if (c == '{' || (!info && c == '[')) {
            depth.open(line);
        } else if (c == '}' || (!info && c == ']')) {
            --depth.level;
        } else if (info && c == ';') {
            inComment = true;
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

void refuseDeepNesting(const std::string& path, Config::Format format) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return;  // the parser reports the unreadable file
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const Depth depth = format == Config::FormatXml ? elementDepth(text)
                                                     : bracketDepth(text, format == Config::FormatInfo);
    if (depth.exceeded) {
        throw boost::property_tree::file_parser_error(
            "nested deeper than " + std::to_string(kMaxNesting) + " levels", path,
            static_cast<unsigned long>(depth.line));
    }
}

}  // namespace

Config::Config(const std::string& path, Format format, InputType /*inputType*/) {
    const Format effective = format == FormatByExtension ? formatFromExtension(path) : format;
    if (effective != FormatIni) {  // INI has sections only: nothing to nest
        refuseDeepNesting(path, effective);
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
