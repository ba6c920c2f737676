#pragma once

#include <cstdint>

namespace soak {

// Counts what the pipeline hands to the recorder and what the recorder's queue accepts, sample by
// sample. The soak is linked with the linker's symbol wrapping for the recorder's two producer calls
// (see CMakeLists.txt): every call from the pipeline comes here first. A batch is passed on to the
// real writeData one sample at a time, so that each push's result is seen; the recorder itself only
// reports the result of a batch's last push.
struct RecorderTap {
    static uint64_t offered();   // samples handed to the recorder
    static uint64_t accepted();  // samples its queue took
    static uint64_t calls();     // producer calls from the pipeline
};

}  // namespace soak
