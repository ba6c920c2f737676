// The exported C entry points. Each forwards to the pipeline behind the handle; results of the
// members' bool form map to 0 on success and -1 on failure.
#include <cstdlib>

#include "BatchScan.h"
#include "StylusPointMessage.h"
#include "StylusStrokePredictor.h"
#include "StylusLibHandle.h"
#include "StylusStrokePredictorImpl.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "src/StylusStrokePredictor"

extern "C" {

StylusLibHandle* InitStylusLib(const StylusPredictionParams* params) {
    auto* handle = static_cast<StylusLibHandle*>(std::calloc(1, sizeof(StylusLibHandle)));
    try {
        handle->impl = new styluspipeline::StylusStrokePredictorImpl(*params);
    } catch (...) {
        // The pipeline's storage is already released by the failed new; release the handle too.
        std::free(handle);
        throw;
    }
    return handle;
}

void DeInitStylusLib(StylusLibHandle* handle) {
    if (handle == nullptr) {
        return;
    }
    styluspipeline::StylusStrokePredictorImpl* impl = handle->impl;
    handle->impl = nullptr;
    if (impl != nullptr) {
        delete impl;
    }
    std::free(handle);
}

int sendInputTouchPoints(StylusLibHandle* handle, const StylusTouchPoint* points, int numPoints) {
    static const std::string kInputTag = "StylusPredictorInput";
    if (points == nullptr) {
        VELMAR_LOG_EVERY_N(60, velmar::Error, kInputTag, "Batch without a sample array refused ; numPoints : " << numPoints);
        return -1;
    }
    StylusPointMessage message;
    const std::size_t count = numPoints > 0 ? static_cast<std::size_t>(numPoints) : 0;
    styluspipeline::scanBatch(points, count, message);
    if (handle->impl->recordsInput()) {
        message.sent.assign(points, points + count);
    }
    if (message.hasStrokeBoundary) {
        VELMAR_LOG(velmar::Verbose, kInputTag,
                   (message.strokeBoundaryPoint.tag == STYLUS_TAG_PEN_DOWN ? "Down" : "Up")
                       << " Event detected ; numPoints : " << numPoints);
    }
    VELMAR_LOG(velmar::Verbose, kInputTag, "Sending a batch of " << numPoints << " points");
    return handle->impl->sendInputTouchPoints(message) ? 0 : -1;
}

int areAllInputPointsProcessed(StylusLibHandle* handle) {
    return handle->impl->areAllInputPointsProcessed() ? 1 : 0;
}

int numPredictedPoints(StylusLibHandle* handle) { return handle->impl->numPredictedPoints(); }

int controlDataWriting(StylusLibHandle* handle, int enable) {
    return handle->impl->controlDataWriting(enable != 0) ? 0 : -1;
}

float getMetricsDistanceError(StylusLibHandle* handle) { return handle->impl->getMetricsDistanceError(); }

float getMetricsAngleDevError(StylusLibHandle* handle) { return handle->impl->getMetricsAngleDevError(); }

bool getMetricsAreValid(StylusLibHandle* handle) { return handle->impl->getMetricsAreValid(); }

}  // extern "C"
