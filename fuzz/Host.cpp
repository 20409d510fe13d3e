#include "Host.h"

#include <algorithm>
#include <cmath>

#include "Execution.h"
#include "interface/ProcessorState.h"
#include "neural/ModelReport.h"

namespace zevrant::fuzz {

namespace {

constexpr std::size_t longestBlock = 4096;

// Rows of so many samples in one piece of memory.
template <class Sample>
std::vector<Sample*> getRows(Sample* samples, int numOfChannels, int numOfSamples) {
    std::vector<Sample*> rows;
    for (int c = 0; c < numOfChannels; ++c)
        rows.push_back(samples + static_cast<std::size_t>(c) * static_cast<std::size_t>(numOfSamples));
    return rows;
}

bool areFinite(const std::vector<float>& samples) {
    return std::all_of(samples.begin(), samples.end(), [](float x) { return std::isfinite(x); });
}

int chooseBlock(Choices& choices) {
    const int length = choices.takeOneOf({64, 480, 512, 1, 441, 0, 128, static_cast<int>(longestBlock), -1});
    return length >= 0 ? length : choices.takeRaw<std::uint16_t>() % static_cast<int>(longestBlock);
}

}  // namespace

Host::Host(const std::string& modelPath, int numOfModels, int numOfChannels, double sampleRate)
    : channels(std::max(0, numOfChannels)) {
    const std::vector<const char*> paths(static_cast<std::size_t>(numOfModels), modelPath.c_str());
    handle.reset(numOfModels == 1
                     ? zevrantCreateProcessor(paths[0], numOfChannels, sampleRate)
                     : zevrantCreateStemSeparator(numOfModels, const_cast<const char**>(paths.data()),
                                                  numOfChannels, sampleRate));
    if (!handle) return;
    ZevrantProcessor& processor = handle->processor;
    const double rows = static_cast<double>(channels) * (1 + processor.getNumOfOutputBusses(true));
    for (const NeuralModel<float>& model : processor.getNeuralModels())
        secondsPerFrame += estimateSeconds(describeModel(model).step, rows * processor.fftSize);
}

// The price of the frames that so many samples can complete.
double Host::estimateBlock(int numOfSamples) const {
    return secondsPerFrame * (1 + numOfSamples / std::max(1, handle->processor.hopSize));
}

bool Host::act(Choices& choices) {
    switch (choices.takeByte() % 8) {
        case 0:
        case 1:
        case 2:
            return attempt([&] { add(choices); });
        case 3:
        case 4:
            return attempt([&] { take(choices); });
        case 5:
            setParameter(choices);
            return true;
        case 6:
            inquire(choices);
            return true;
        default:
            numOfAdded = numOfTaken = 0;
            isInputFinite = isOutputFinite = true;
            return attempt([&] { zevrantResetProcessorState(handle.get()); });
    }
}

void Host::add(Choices& choices) {
    const int length = chooseBlock(choices);
    const int seed = choices.takeByte();
    if (!budget.take(estimateBlock(length))) return;
    std::vector<float> samples = makeValues(static_cast<std::size_t>(channels * length), seed);
    isInputFinite = isInputFinite && areFinite(samples);
    numOfAdded += length;
    if (seed % 4 < 2) return zevrantAddAudioInterleaved(handle.get(), samples.data(), length);
    std::vector<float*> rows = getRows(samples.data(), channels, length);
    zevrantAddAudio(handle.get(), const_cast<const float**>(rows.data()), length);
}

void Host::take(Choices& choices) {
    const int pending = zevrantGetNumOfPendingSamples(handle.get());
    require(pending >= 0, "the number of samples that wait is not negative");
    const int way = choices.takeByte();
    const int length = way % 4 == 0 ? std::min(pending, 1 << 16) : std::max(1, chooseBlock(choices));
    std::vector<float> samples(static_cast<std::size_t>(channels * length), 0.5f);
    bool isThere = false;
    if (way % 8 < 4)
        isThere = zevrantGetAudioInterleaved(handle.get(), samples.data(), length);
    else
        isThere = zevrantGetAudio(handle.get(), getRows(samples.data(), channels, length).data(), length);
    if (length > 0) require(isThere == (length <= pending), "what waits is delivered, and nothing else");
    const int left = zevrantGetNumOfPendingSamples(handle.get());
    require(left == pending - (isThere ? length : 0), "what is delivered no longer waits");
    if (isThere) numOfTaken += length;
    const auto isUntouched = [](float x) { return x == 0.5f; };
    if (!isThere)
        require(std::all_of(samples.begin(), samples.end(), isUntouched), "a refusal writes nothing");
    if (isThere) isOutputFinite = isOutputFinite && areFinite(samples);
}

void Host::setParameter(Choices& choices) {
    int id = choices.takeOneOf({1, 2, 3, 256, 257, 258, 512, 513, 514, -1});
    if (id < 0) id = choices.takeRaw<std::int32_t>();
    const int way = choices.takeByte();
    const float value = way % 4 == 0 ? choices.takeRaw<float>() : static_cast<float>(way - 128);
    zevrantSetParameterValue(handle.get(), id, value);
    float minimum = 1.0f, maximum = -1.0f;
    zevrantGetParameterRange(handle.get(), id, &minimum, &maximum);
    require(minimum <= maximum, "a range is one");
    const float stored = zevrantGetParameterValue(handle.get(), id);
    const bool isGain = id / 256 == 1;  // which has no upper limit
    if (!std::isnan(value))
        require(stored >= minimum && (isGain || stored <= maximum), "a parameter stays within its range");
}

void Host::inquire(Choices& choices) {
    const int bus = choices.takeRaw<std::int16_t>() % 20, size = choices.takeByte() % 40 - 2;
    char name[40];
    std::fill(std::begin(name), std::end(name), '?');
    zevrantGetOutputBusName(handle.get(), bus, name, size);
    for (int i = std::max(0, size); i < static_cast<int>(std::size(name)); ++i)
        require(name[i] == '?', "a name keeps to its room");
    if (size > 0) require(name[size - 1] == 0, "a name ends");
    ProcessorInfo info{};
    zevrantGetProcessorInfo(handle.get(), &info);
    zevrantGetNumOfOutputBusses(handle.get());
}

std::int64_t Host::getNumOfHeldSamples() const {
    return numOfAdded - numOfTaken - zevrantGetNumOfPendingSamples(handle.get());
}

int Host::getLatency() const {
    ProcessorInfo info{};
    zevrantGetProcessorInfo(handle.get(), &info);
    return info.latency;
}

}  // namespace zevrant::fuzz
