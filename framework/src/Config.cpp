// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include "velmar/Config.h"

#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/xml_parser.hpp>

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

}  // namespace

Config::Config(const std::string& path, Format format, InputType /*inputType*/) {
    const Format effective = format == FormatByExtension ? formatFromExtension(path) : format;
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
