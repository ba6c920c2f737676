// Counts calls of the global allocation functions on the inference thread while the pipeline predicts
// batch after batch with a full history: there must be none. This binary replaces malloc and
// operator new (or, under a sanitizer, hooks the sanitizer's allocator), so it holds no other test.
// The JSON writer includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "CirclingPen.h"
#include "StylusStrokePredictor.h"
#include "TestSupport.h"
#include "velmar/Log.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STYLUS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define STYLUS_SANITIZED 1
#endif
#endif

namespace {

std::atomic<uint64_t> g_allocations{0};
std::atomic<bool> g_armed{false};
// Set on the threads whose allocations count; constant-initialised, so reading it never allocates.
thread_local bool t_counted = false;

inline void noteAllocation() {
    if (t_counted && g_armed.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

#ifdef STYLUS_SANITIZED
// From the sanitizers' allocator interface (declared here: GCC installs no header for it).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, size_t),
                                                         void (*onFree)(const volatile void*));

namespace {
void onSanitizerMalloc(const volatile void*, size_t) { noteAllocation(); }
void onSanitizerFree(const volatile void*) {}
const int g_hooksInstalled = __sanitizer_install_malloc_and_free_hooks(&onSanitizerMalloc, &onSanitizerFree);
}  // namespace
#else
// glibc's own entry points, so that the replacements below only count and pass on.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* pointer);

void* malloc(size_t size) {
    noteAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    noteAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
    noteAllocation();
    return __libc_realloc(pointer, size);
}
void* memalign(size_t alignment, size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    noteAllocation();
    void* pointer = __libc_memalign(alignment, size);
    if (pointer == nullptr) return 12;  // ENOMEM
    *out = pointer;
    return 0;
}
void free(void* pointer) { __libc_free(pointer); }
}

// operator new is counted on its own, then takes its memory from the malloc above without counting
// twice.
void* operator new(size_t size) {
    noteAllocation();
    void* pointer = __libc_malloc(size == 0 ? 1 : size);
    if (pointer == nullptr) throw std::bad_alloc();
    return pointer;
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* pointer) noexcept { __libc_free(pointer); }
void operator delete[](void* pointer) noexcept { __libc_free(pointer); }
void operator delete(void* pointer, size_t) noexcept { __libc_free(pointer); }
void operator delete[](void* pointer, size_t) noexcept { __libc_free(pointer); }
#endif

namespace {

constexpr int kBatchSize = 4;
constexpr int kWarmUpBatches = 40;
constexpr int kMeasuredBatches = 300;

std::atomic<int> g_predictions{0};
std::atomic<int> g_inputCallbacks{0};
std::atomic<uint64_t> g_lastDelivered{0};

void onPredictions(const PredictedStylusTouchPoints* predictions) {
    t_counted = true;  // this is the inference thread
    if (predictions->numCoordinates > 0) g_predictions.fetch_add(1);
}

void onInputPoints(const StylusTouchPoint* points, int count) {
    g_inputCallbacks.fetch_add(1);
    if (count > 0) g_lastDelivered.store(points[count - 1].timestamp);
}

// A pen circling at 240 Hz; the first sample of all puts the pen down.
std::vector<StylusTouchPoint> batch(int index) {
    std::vector<StylusTouchPoint> samples(kBatchSize);
    for (int i = 0; i < kBatchSize; ++i) {
        const int k = index * kBatchSize + i;
        StylusTouchPoint& s = samples[static_cast<size_t>(i)];
        s = testkit::circlingPen(1000 + static_cast<uint64_t>(k) * 4, 0.01f * static_cast<float>(k));
        s.tag = k == 0 ? STYLUS_TAG_PEN_DOWN : STYLUS_TAG_MOVE;
    }
    return samples;
}

// "All processed" turns true between a batch's pop and its prediction, so a count read then can miss
// the batch's callbacks; the newest sample handed back to the host says the batch is through.
bool waitUntilDelivered(const std::vector<StylusTouchPoint>& last) {
    return testsupport::waitUntil([&] { return g_lastDelivered.load() == last.back().timestamp; });
}

}  // namespace

TEST(AllocationCountTest, InferenceThreadAllocatesNothingPerBatchOnceTheHistoryIsFull) {
    // The counter sees an allocation on a counted thread, and none on others.
    g_armed = true;
    t_counted = true;
    const uint64_t before = g_allocations.load();
    auto probe = std::make_unique<std::string>(64, 'x');
    EXPECT_GE(g_allocations.load(), before + 1);
    t_counted = false;
    const uint64_t after = g_allocations.load();
    probe = std::make_unique<std::string>(64, 'y');
    EXPECT_EQ(g_allocations.load(), after);
    g_armed = false;

    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("m.tflite"), testsupport::readFile(testkit::generatedModel("ops_n10_p5.tflite")));
    boost::property_tree::ptree keys = testkit::generatedModelKeys();
    keys.put("model_name", "m.tflite");
    keys.put("inference_engine", "xnnpack");
    keys.put("save_metrics_interval", 1000000);
    boost::property_tree::ptree tree;
    tree.put("Pipeline.QueueFullPolicy", "Block");
    tree.put_child("PredictionModel", keys);
    const std::string config = dir.file("predictor.json");
    boost::property_tree::write_json(config, tree);
    StylusPredictionParams params{config.c_str(), &onPredictions, &onInputPoints};
    StylusLibHandle* handle = InitStylusLib(&params);
    // Every 120th prediction logs two summary lines at info, whose text is built on the heap; they
    // are filtered here so that the batch path itself is measured.
    velmar::Log::m_GlobalPriority.store(velmar::Warning);

    std::vector<std::vector<StylusTouchPoint>> batches;
    for (int b = 0; b < kWarmUpBatches + kMeasuredBatches; ++b) batches.push_back(batch(b));
    for (int b = 0; b < kWarmUpBatches; ++b) ASSERT_EQ(sendInputTouchPoints(handle, batches[b].data(), kBatchSize), 0);
    ASSERT_TRUE(waitUntilDelivered(batches[kWarmUpBatches - 1]));
    const int warmPredictions = g_predictions.load();
    ASSERT_GT(warmPredictions, 0);

    g_armed = true;
    for (int b = kWarmUpBatches; b < kWarmUpBatches + kMeasuredBatches; ++b) {
        ASSERT_EQ(sendInputTouchPoints(handle, batches[b].data(), kBatchSize), 0);
    }
    ASSERT_TRUE(waitUntilDelivered(batches.back()));
    g_armed = false;
    DeInitStylusLib(handle);

    EXPECT_EQ(g_predictions.load() - warmPredictions, kMeasuredBatches);
    EXPECT_EQ(g_inputCallbacks.load(), g_predictions.load());
    EXPECT_EQ(g_allocations.load(), after) << "allocations on the inference thread over " << kMeasuredBatches
                                           << " predictions";
}
