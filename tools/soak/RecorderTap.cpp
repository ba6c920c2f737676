#include "RecorderTap.h"

#include <atomic>
#include <map>

#include "StylusDataWriter.h"

namespace {

using Batch = std::map<unsigned long, StylusTouchPoint>;

std::atomic<uint64_t> g_offered{0};
std::atomic<uint64_t> g_accepted{0};
std::atomic<uint64_t> g_calls{0};

}  // namespace

// The real members, reached under the names the linker gives them when wrapping; a non-virtual
// member takes the object as its first argument.
extern "C" bool soakRealWriteStrokeBoundary(StylusDataWriter* writer, const StylusTouchPoint& point) __asm__(
    "__real__ZN16StylusDataWriter19writeStrokeBoundaryERK16StylusTouchPoint");
extern "C" bool soakRealWriteData(StylusDataWriter* writer, const Batch& points) __asm__(
    "__real__ZN16StylusDataWriter9writeDataERKSt3mapIm16StylusTouchPointSt4lessImESaISt4pairIKmS1_EEE");

extern "C" bool soakWrapWriteStrokeBoundary(StylusDataWriter* writer, const StylusTouchPoint& point) __asm__(
    "__wrap__ZN16StylusDataWriter19writeStrokeBoundaryERK16StylusTouchPoint");
extern "C" bool soakWrapWriteData(StylusDataWriter* writer, const Batch& points) __asm__(
    "__wrap__ZN16StylusDataWriter9writeDataERKSt3mapIm16StylusTouchPointSt4lessImESaISt4pairIKmS1_EEE");

bool soakWrapWriteStrokeBoundary(StylusDataWriter* writer, const StylusTouchPoint& point) {
    g_calls.fetch_add(1, std::memory_order_relaxed);
    g_offered.fetch_add(1, std::memory_order_relaxed);
    const bool pushed = soakRealWriteStrokeBoundary(writer, point);
    if (pushed) {
        g_accepted.fetch_add(1, std::memory_order_relaxed);
    }
    return pushed;
}

bool soakWrapWriteData(StylusDataWriter* writer, const Batch& points) {
    g_calls.fetch_add(1, std::memory_order_relaxed);
    if (points.empty()) {
        return soakRealWriteData(writer, points);
    }
    // In key order, as the recorder pushes them; the batch's result is that of its last sample.
    bool lastPushed = false;
    Batch one;
    for (const auto& entry : points) {
        one.clear();
        one.insert(entry);
        g_offered.fetch_add(1, std::memory_order_relaxed);
        lastPushed = soakRealWriteData(writer, one);
        if (lastPushed) {
            g_accepted.fetch_add(1, std::memory_order_relaxed);
        }
    }
    return lastPushed;
}

namespace soak {

uint64_t RecorderTap::offered() { return g_offered.load(); }
uint64_t RecorderTap::accepted() { return g_accepted.load(); }
uint64_t RecorderTap::calls() { return g_calls.load(); }

}  // namespace soak
