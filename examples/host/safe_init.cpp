#include "safe_init.h"

#include <cstdio>
#include <exception>

StylusLibHandle* initStylusLibOrNull(const StylusPredictionParams* params, char* error, size_t size) {
    try {
        return InitStylusLib(params);
    } catch (const std::exception& e) {
        std::snprintf(error, size, "%s", e.what());
    } catch (...) {
        std::snprintf(error, size, "the library refused to start");
    }
    return nullptr;
}
