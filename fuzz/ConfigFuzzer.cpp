// The configuration reader behind PredictorParams on arbitrary file contents. Built twice: as a
// JSON file and as an INI file (the reader picks the format by extension). A file that does not
// parse, or a value that does not convert or lies outside its range, must be refused with the
// reader's exception; anything else leaving the constructor, or any memory or undefined-behaviour
// error, is a finding.
#include <boost/property_tree/exceptions.hpp>
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "PredictorParams.h"

#ifndef STYLUS_CONFIG_EXTENSION
#error "STYLUS_CONFIG_EXTENSION must name the configuration file's extension"
#endif

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzzsupport::scratchDir() + "/predictor" STYLUS_CONFIG_EXTENSION;
    fuzzsupport::writeFile(path, data, size);
    try {
        const styluspipeline::PredictorParams params(path);
        // The model always lies beside the configuration file.
        if (params.modelParams.model_path.rfind(fuzzsupport::scratchDir() + "/", 0) != 0) {
            __builtin_trap();
        }
    } catch (const boost::property_tree::ptree_error&) {
        // An unreadable file or a value of the wrong type: refused, as for the host.
    }
    return 0;
}
