// Configuration reader of the velmar framework: a property tree read from a file, with typed lookups
// under '.'-separated keys such as "PredictionModel.mm_per_inch".
#pragma once

#include <boost/property_tree/ptree.hpp>

#include <cstdint>
#include <string>

namespace velmar {

class Config {
public:
    enum Format : int32_t {
        FormatByExtension = 0,  // .ini, .xml, .info by extension, anything else JSON
        FormatJson = 1,
        FormatIni = 2,
        FormatXml = 3,
        FormatInfo = 4,
    };
    enum InputType : int32_t {
        InputFile = 0,
    };

    // Throws boost::property_tree::file_parser_error naming the file (and line where known)
    // when the file cannot be read or parsed, nests deeper than 64 levels, or (INFO) includes
    // files more than 8 deep or more than 64 in all.
    Config(const std::string& path, Format format, InputType inputType);

    // The default when the key is absent; otherwise the value converted by the tree's stream
    // translator, whose ptree_bad_data error passes to the caller.
    template <typename T>
    T get(const std::string& key, const T& defaultValue) const {
        if (!exists(key)) {
            return defaultValue;
        }
        return m_Tree.get<T>(boost::property_tree::ptree::path_type(key, '.'));
    }

    bool exists(const std::string& key) const;

    boost::property_tree::ptree m_Tree;
};

}  // namespace velmar
