#include "PredictorSession.h"

#include <mutex>

namespace live {

namespace {

// Where onPredictions delivers: the one live session, set before its handle starts and cleared
// after its threads have stopped.
std::mutex slotMutex;
PredictorSession::Sink* activeSink = nullptr;
bool sessionExists = false;

}  // namespace

const char* const PredictorSession::busyMessage =
    "another page is drawing: the library's prediction callback carries no context, so stylus-live serves one "
    "drawing page at a time; close the other page and reload this one";

bool PredictorSession::inUse() {
    const std::lock_guard<std::mutex> lock(slotMutex);
    return sessionExists;
}

void PredictorSession::onPredictions(const PredictedStylusTouchPoints* predictions) {
    PredictionRecord record;
    record.base = predictions->timestamp;
    record.modelLatencyUs = predictions->modelLatencyUs;
    if (predictions->coordinates != nullptr && predictions->numCoordinates > 0) {
        record.points.assign(predictions->coordinates, predictions->coordinates + predictions->numCoordinates);
    }
    const std::lock_guard<std::mutex> lock(slotMutex);
    if (activeSink != nullptr) {
        (*activeSink)(std::move(record));
    }
}

PredictorSession::PredictorSession(const std::string& configPath, Sink sink) : sink(std::move(sink)) {
    {
        const std::lock_guard<std::mutex> lock(slotMutex);
        if (sessionExists) {
            throw SessionBusy(busyMessage);
        }
        sessionExists = true;
        activeSink = &this->sink;
    }
    const StylusPredictionParams params{configPath.c_str(), &PredictorSession::onPredictions, nullptr};
    try {
        handle = InitStylusLib(&params);
    } catch (const std::exception& error) {
        const std::lock_guard<std::mutex> lock(slotMutex);
        activeSink = nullptr;
        sessionExists = false;
        throw std::runtime_error(configPath + ": the predictor did not start: " + error.what());
    }
    predictions = numPredictedPoints(handle);
}

PredictorSession::~PredictorSession() { finish(); }

bool PredictorSession::send(const StylusTouchPoint* points, int count) {
    return handle != nullptr && sendInputTouchPoints(handle, points, count) == 0;
}

bool PredictorSession::setRecording(bool on) { return handle != nullptr && controlDataWriting(handle, on ? 1 : 0) == 0; }

void PredictorSession::finish() {
    if (handle == nullptr) {
        return;
    }
    DeInitStylusLib(handle);  // joins the inference thread: no callback runs after this
    handle = nullptr;
    const std::lock_guard<std::mutex> lock(slotMutex);
    activeSink = nullptr;
    sessionExists = false;
}

}  // namespace live
