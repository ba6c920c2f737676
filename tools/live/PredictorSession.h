// One library handle, owned: InitStylusLib on construction, DeInitStylusLib (which finishes the
// recording) on finish() or destruction. The library's callback carries no context pointer, so only
// one session can exist in a process at a time; a second is refused with SessionBusy.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include "ServerMessages.h"
#include "StylusStrokePredictor.h"

namespace live {

class SessionBusy : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class PredictorSession {
public:
    // Called on the library's inference thread; must be quick and must not throw.
    using Sink = std::function<void(PredictionRecord&&)>;

    // Throws SessionBusy while another session exists, std::runtime_error when the library does not
    // start with this configuration.
    PredictorSession(const std::string& configPath, Sink sink);
    ~PredictorSession();

    // Whether a session exists now (checked before making a directory for one that would be refused).
    static bool inUse();
    static const char* const busyMessage;
    PredictorSession(const PredictorSession&) = delete;
    PredictorSession& operator=(const PredictorSession&) = delete;

    // sendInputTouchPoints: true when queued.
    bool send(const StylusTouchPoint* points, int count);
    // controlDataWriting: true when the library took the switch.
    bool setRecording(bool on);
    int numPredictions() const { return predictions; }
    // Drains, stops the library's threads and finishes the recording; later calls do nothing.
    void finish();

private:
    static void onPredictions(const PredictedStylusTouchPoints* predictions);

    StylusLibHandle* handle = nullptr;
    Sink sink;
    int predictions = 0;
};

}  // namespace live
