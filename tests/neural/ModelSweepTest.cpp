// What a damaged model file may do: load or fail, run a frame or throw a standard exception. Never crash,
// never take a second, never take a gigabyte, and never without a reason that can be told.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <random>

#include "TestSignals.h"
#include "neural/MemoryStream.h"
#include "neural/ModelLoader.h"
#include "neural/ModelOfAllLayers.h"
#include "neural/ModelReport.h"
#include "neural/NeuralModel.h"

namespace zevrant {
namespace {

using namespace modelwriter;

std::vector<Bytes> makeModels() {
    return {makeModelOfAllLayers(0x100a, TensorStorage::SinglePrecision, Packing::magnitudes(9)),
            makeModelOfAllLayers(0x1009, TensorStorage::HalfPrecision, Packing::complexGroups(3, 12, 2)),
            makeModelOfAllLayers(0x1004, TensorStorage::SinglePrecision, Packing::complexBins(9))};
}

// Sanitizers make everything several times slower, so their builds take fewer cases.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

double getThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double getPeakMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

bool hasError(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Finding::Error; });
}

// Load, two frames with a reset in between, delete. Returns whether the model has loaded. A refusal has a
// reason, and a model that stops at a frame an error among its findings.
bool runCase(const std::shared_ptr<InputStream>& stream, double& longest, LoadReport& report) {
    const double start = getThreadSeconds();
    NeuralModel<float> model;
    const bool isLoaded = tryLoadModel(stream, model, report);
    EXPECT_NE(isLoaded, report.refusal.has_value());
    if (isLoaded) {
        const int numOfBins = model.fftSize > 0 ? model.fftSize / 2 + 1 : 17;
        try {
            const ComplexSignal32 frame(std::max(1, model.numOfInputChannels), numOfBins, {0.5f, -0.25f});
            model.process(frame);
            model.reset();
            model.process(frame);
        } catch (const std::exception& error) {
            EXPECT_TRUE(hasError(checkModel(model))) << error.what();
        }
    }
    longest = std::max(longest, getThreadSeconds() - start);
    return isLoaded;
}

bool runCase(const Bytes& bytes, double& longest) {
    LoadReport report;
    return runCase(streamOver(bytes), longest, report);
}

TEST(ModelSweep, theModelsThemselvesRunAndAResetMakesThemNew) {
    for (const Bytes& bytes : makeModels()) {
        NeuralModel<float> model;
        ASSERT_TRUE(model.loadModel(streamOver(bytes)));
        std::vector<std::vector<std::vector<std::complex<float>>>> rounds[2];
        for (auto& frames : rounds) {
            for (int i = 0; i < 5; ++i) {
                const auto results = model.process(noiseSpectrum(2, 17, static_cast<unsigned>(i)));
                ASSERT_EQ(results.size(), 1u);
                frames.push_back(rowsOf(results[0]));
                ASSERT_EQ(frames.back().at(1).size(), 17u);
                for (const auto& bin : frames.back()[1]) EXPECT_TRUE(std::isfinite(std::abs(bin)));
            }
            model.reset();
            for (const auto& frame : model.frameHistory) EXPECT_EQ(frame.getReadChannelPtr(0)[2], 0.0f);
        }
        EXPECT_EQ(rounds[0], rounds[1]);
    }
}

TEST(ModelSweep, aFileCutAtAnyByteNeverLoads) {
    double longest = 0.0;
    for (const Bytes& bytes : makeModels())
        for (std::size_t length = 0; length < bytes.size(); ++length)
            ASSERT_FALSE(
                runCase(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)), longest))
                << "cut at " << length;
    EXPECT_LT(longest, 1.0);
}

// A medium that fails at one read or from there on: with nothing, with an error, or half-way.
class FailingStream : public MemoryStream {
  public:
    enum Way { Nothing, Error, Half };

    FailingStream(const Bytes& content, int numberOfRead, Way failure, bool isForEver)
        : MemoryStream(content), failingRead(numberOfRead), way(failure), lasts(isForEver) {}

    int read(void* destination, int size) override {
        if (size < 1) return 0;
        const bool fails = numOfReads == failingRead || (lasts && numOfReads > failingRead);
        ++numOfReads;
        if (fails && way == Error) return -1;
        return MemoryStream::read(destination, !fails ? size : way == Half ? size / 2 : 0);
    }

    int numOfReads = 0;

  private:
    int failingRead;
    Way way;
    bool lasts;
};

TEST(ModelSweep, aReadThatFailsIsTold) {
    double longest = 0.0;
    for (const Bytes& bytes : makeModels())
        for (const auto way : {FailingStream::Nothing, FailingStream::Error, FailingStream::Half})
            for (const bool lasts : {false, true})
                for (int read = 0;; ++read) {
                    LoadReport report;
                    const auto stream = std::make_shared<FailingStream>(bytes, read, way, lasts);
                    const bool isLoaded = runCase(stream, longest, report);
                    if (stream->numOfReads <= read) {
                        EXPECT_TRUE(isLoaded && read > 100) << "the model takes " << read << " reads";
                        break;
                    }
                    ASSERT_TRUE(report.refusal || hasError(report.findings)) << "read " << read;
                }
    EXPECT_LT(longest, 1.0);
    for (const char* path : {"/proc/self/mem", "/"}) {  // both open, and no byte can be read
        NeuralModel<float> model;
        LoadReport report;
        EXPECT_FALSE(tryLoadModel(File(path), model, report));
        EXPECT_TRUE(report.refusal);
    }
}

// ZEVRANT_SWEEP_CASES sets another number of cases, and ZEVRANT_SWEEP_SEED another seed.
int getSetting(const char* name, int usual) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::atoi(value) : usual;
}

TEST(ModelSweep, randomByteChangesAreSurvived) {
    const int numOfCases = getSetting("ZEVRANT_SWEEP_CASES", isSanitized ? 10000 : 20000);
    std::mt19937 random(static_cast<unsigned>(getSetting("ZEVRANT_SWEEP_SEED", 1)));
    const std::vector<Bytes> models = makeModels();
    const double peakBefore = getPeakMegabytes();
    double longest = 0.0;
    for (int i = 0; i < numOfCases; ++i) {
        Bytes bytes = models[static_cast<std::size_t>(i) % models.size()];
        // Most bytes are weights, so half of the changes fall where nothing but structure is: the header.
        const std::size_t range = i % 2 == 0 ? bytes.size() : std::min<std::size_t>(bytes.size(), 150);
        for (unsigned change = 0; change <= random() % 4; ++change)
            bytes[random() % range] = static_cast<std::uint8_t>(random());
        runCase(bytes, longest);
        ASSERT_LT(longest, 1.0) << "case " << i;
        ASSERT_LT(getPeakMegabytes() - peakBefore, 1024.0) << "case " << i;
    }
}

// Every byte on its own at the values where fields turn over, which random changes rarely meet.
TEST(ModelSweep, everyByteAtItsEdgesIsSurvived) {
    double longest = 0.0;
    const double peakBefore = getPeakMegabytes();
    const std::vector<int> values = isSanitized ? std::vector{0, 128, 255} : std::vector{0, 1, 127, 128, 255};
    for (const Bytes& bytes : makeModels())
        for (std::size_t place = 0; place < bytes.size(); ++place)
            for (int value : values) {
                Bytes changed = bytes;
                changed[place] = static_cast<std::uint8_t>(value);
                runCase(changed, longest);
                ASSERT_LT(longest, 1.0) << "byte " << place << " as " << value;
            }
    EXPECT_LT(getPeakMegabytes() - peakBefore, 1024.0);
}

}  // namespace
}  // namespace zevrant
