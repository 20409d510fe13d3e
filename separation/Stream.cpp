#include "separation/Stream.h"

#include <cmath>
#include <new>
#include <numeric>
#include <string>
#include <utility>

#include "DspCore/MathEx.h"
#include "simd/FloatingPointState.h"

namespace zevrant::separation {

namespace {

constexpr double leastPartOfHostRate = 0.9;    // that the working rate has to reach
constexpr double negligibleDifference = 1e-4;  // of rates: a sample in two seconds at the most
constexpr float silentLevel = -144.0f;         // decibels
constexpr int fewestRunInHops = 16;
constexpr double mostSamplesPerFrame = 1 << 22;
constexpr int mostHopsOfLatency = 4096;

double chooseWorkingRate(double hostRate, double modelRate) {
    const double exponent = std::ceil(std::log2(leastPartOfHostRate * hostRate / modelRate));
    return std::ldexp(modelRate, static_cast<int>(std::clamp(exponent, -64.0, 64.0)));
}

float toGain(float decibel) {
    return decibel <= silentLevel ? 0.0f : MathEx::fromDecibel(decibel);
}

}  // namespace

void Controls::set(const Controls* other) {
    for (std::size_t bus = 0; bus < mostBusses; ++bus) {
        levels[bus] = other ? other->levels[bus].load() : 0.0f;
        sensitivities[bus] = other ? other->sensitivities[bus].load() : 0.0f;
    }
    extrapolatesMasks = !other || other->extrapolatesMasks.load();
}

// ---- opening -----------------------------------------------------------------------------------

Stream::Stream(const Model& model, const StreamFormat& streamFormat, const Controls& followed)
    : format(streamFormat), controls(&followed) {
    const ScopedRecyclingPool ownBlocks(pool);
    try {
        open(model);
    } catch (...) {
        separator.reset();
        throw;
    }
}

void Stream::open(const Model& model) {
    const double modelRate = model.network.sampleRate;
    workingRate = format.convertsRate ? chooseWorkingRate(format.sampleRate, modelRate) : format.sampleRate;
    const double scale = std::max(workingRate / modelRate, 1.0);
    const int longestFrame =
        std::max({model.network.fftSize, model.network.windowSize, model.network.hopSize});
    if (longestFrame * scale > mostSamplesPerFrame)
        throw Error(ErrorKind::BadFormat, model.name + ": its frames would be too long at this sample rate");
    separator = std::make_unique<Separator>(model, format.output, format.numOfChannels, workingRate);
    numOfOutputs = separator->getNumOfOutputChannels();
    hopSize = separator->getHopSize();
    if (hopSize < 1 || separator->getNumOfBusses() > static_cast<int>(Controls::mostBusses))
        throw Error(ErrorKind::BadModel, model.name + ": frames without a hop, or more than 16 busses");
    latency = separator->getLatency();
    if (latency < 0 || latency / hopSize > mostHopsOfLatency)
        throw Error(ErrorKind::BadModel,
                    model.name + ": a latency of " + std::to_string(latency) + " samples");
    stepsPerChange = std::max(1, static_cast<int>(std::lround(fadeSeconds * workingRate / hopSize)));

    const std::size_t widest = static_cast<std::size_t>(std::max(numOfOutputs, format.numOfChannels));
    hop.assign(widest, std::vector<float>(static_cast<std::size_t>(hopSize)));
    for (auto& row : hop) hopRows.push_back(row.data());
    const int partLength = std::min(longestPart, format.longestBlock);
    input.setSize(format.numOfChannels, hopSize + partLength);
    if (format.convertsRate && std::abs(workingRate / format.sampleRate - 1.0) > negligibleDifference)
        connectConverters();
    output.setSize(numOfOutputs, std::int64_t{latency} + partLength + 2 * std::int64_t{hopSize} + 64);
    runIn(model);
    reset();
}

Stream::~Stream() {
    const ScopedRecyclingPool ownBlocks(pool);
    separator.reset();
}

void Stream::connectConverters() {
    const auto hostRate = static_cast<int>(std::lround(format.sampleRate));
    const auto rate = static_cast<int>(std::lround(workingRate));
    const int channels = format.numOfChannels;
    const int partLength = std::min(longestPart, format.longestBlock);
    toWorkingRate = std::make_unique<StreamConverter>(hostRate, rate, channels);
    toHostRate = std::make_unique<StreamConverter>(rate, hostRate, numOfOutputs + channels);

    // Delays that are multiples of the working rate, both rates without their common divisor, are whole
    // numbers of samples at the host's rate.
    const int divisor = std::gcd(hostRate, rate);
    const std::int64_t hostUnit = hostRate / divisor, unit = rate / divisor;
    const std::int64_t delay = toHostRate->getDelay();
    numOfPrimingZeros = static_cast<int>((unit - delay % unit) % unit);
    numOfPrimingOutputs = static_cast<int>(numOfPrimingZeros * hostUnit / unit);
    const std::int64_t delayThereAndBack =
        toWorkingRate->getDelay() + (delay + numOfPrimingZeros) / unit * hostUnit - numOfPrimingOutputs;
    conversionLatency = static_cast<int>(delayThereAndBack);
    latency = static_cast<int>((latency * hostUnit + unit - 1) / unit) + conversionLatency;

    const int mostConverted = toWorkingRate->getMostOutput(partLength);
    const int longestWork = std::max(hopSize, longestPart);
    const auto width = static_cast<std::size_t>(numOfOutputs + channels);
    input.setSize(channels, hopSize + mostConverted);
    around.setSize(channels, separator->getLatency() + 2 * std::int64_t{hopSize});
    original.setSize(channels,
                     std::int64_t{latency} + partLength + 2 * std::int64_t{hopSize} * hostUnit / unit + 64);
    hostPart.resize(static_cast<std::size_t>(partLength * channels));
    converted.reserve(static_cast<std::size_t>(mostConverted * channels));
    workPart.assign(static_cast<std::size_t>(longestWork) * width, 0.0f);
    originalPart.resize(static_cast<std::size_t>(toHostRate->getMostOutput(longestWork)));
    returned.reserve(static_cast<std::size_t>(toHostRate->getMostOutput(longestWork)) * width);
}

// Runs the model in, so that all that is made on the way is there: rings, nodes, scratch for bent masks. A
// model that fails at its first frame, or gives less than it says, is found out here.
void Stream::runIn(const Model& model) {
    Controls bent;
    const Controls* followed = std::exchange(controls, &bent);
    const RunInPlan plan = separator->planRunIn();
    const auto hostHop = static_cast<int>(std::ceil(hopSize * format.sampleRate / workingRate));
    const int partLength = std::min({longestPart, format.longestBlock, hostHop});
    const std::vector<float> sound(static_cast<std::size_t>(partLength), 1e-3f);
    std::vector<float> heard(static_cast<std::size_t>(partLength));
    const std::vector<const float*> in(static_cast<std::size_t>(format.numOfChannels), sound.data());
    const std::vector<float*> out(static_cast<std::size_t>(numOfOutputs), heard.data());
    const int fewestHops = fewestRunInHops + 2 * (separator->getLatency() / hopSize + 1);
    for (int round = 0; round < RunInPlan::numOfRounds; ++round) {
        for (auto& sensitivity : bent.sensitivities) sensitivity = round == 0 ? 10.0f : -10.0f;
        reset();
        plan.run(pool, round == 0 ? fewestHops : 0, [&] {
            for (int rest = hostHop; rest > 0; rest -= partLength)
                process(in.data(), out.data(), std::min(rest, partLength));
            if (failure) refuse(model);
        });
        if (hasFallenShort)
            throw Error(ErrorKind::BadModel, model.name + ": keeps more samples back than its latency says");
    }
    controls = followed;
}

// What the model's first frames have thrown, as a reason not to open it.
void Stream::refuse(const Model& model) {
    try {
        std::rethrow_exception(takeFailure());
    } catch (const Error& error) {
        throw Error(ErrorKind::BadModel, model.name + ": " + error.what());
    }
}

void Stream::reset() {
    const ScopedRecyclingPool ownBlocks(pool);
    separator->reset();
    input.clear();
    output.clear();
    output.appendZeros(latency - conversionLatency);
    numOfSamplesDue = hopSize - separator->getLatency();
    hasFallenShort = false;
    failure = nullptr;
    updateLevels(true);
    if (!toHostRate) return;
    toWorkingRate->reset();
    toHostRate->reset();
    around.clear();
    original.clear();
    original.appendZeros(conversionLatency);
    numOfOutputsToDrop = numOfPrimingOutputs;
    std::fill(workPart.begin(), workPart.end(), 0.0f);
    const auto most = static_cast<int>(workPart.size()) / (numOfOutputs + format.numOfChannels);
    for (int rest = numOfPrimingZeros; rest > 0; rest -= most) {
        returned.clear();
        toHostRate->process(workPart.data(), std::min(rest, most), returned);
        emitReturned();
    }
}

// ---- audio -------------------------------------------------------------------------------------

void Stream::process(const float* const* in, float* const* out, int numOfSamples) noexcept {
    const ScopedRecyclingPool ownBlocks(pool);
    const ScopedFlushDenormals flushDenormals;
    for (int first = 0; first < numOfSamples; first += longestPart) {
        const int count = std::min(longestPart, numOfSamples - first);
        addPart(in, first, count);
        for (int c = 0; c < numOfOutputs; ++c) output.read(c, out[c] + first, 1, count);
        output.drop(count);
    }
}

void Stream::addPart(const float* const* in, int first, int numOfSamples) {
    const int channels = format.numOfChannels;
    if (toWorkingRate) {
        for (int c = 0; c < channels; ++c) {
            original.write(c, in[c] + first, 1, numOfSamples);
            for (int i = 0; i < numOfSamples; ++i)
                hostPart[static_cast<std::size_t>(i * channels + c)] = in[c][first + i];
        }
        original.grow(numOfSamples);
        converted.clear();
        toWorkingRate->process(hostPart.data(), numOfSamples, converted);
        const auto numOfConverted = static_cast<int>(converted.size()) / channels;
        for (int c = 0; c < channels; ++c) input.write(c, converted.data() + c, channels, numOfConverted);
        input.grow(numOfConverted);
    } else {
        for (int c = 0; c < channels; ++c) input.write(c, in[c] + first, 1, numOfSamples);
        input.grow(numOfSamples);
    }
    while (input.getLength() >= hopSize) runHop();
}

// A hop goes in, and as many samples come out as are due: what a model holds back against its word, or loses
// by an exception, is silence.
void Stream::runHop() {
    for (int c = 0; c < format.numOfChannels; ++c) {
        input.read(c, hopRows[static_cast<std::size_t>(c)], 1, hopSize);
        if (toHostRate) around.write(c, hopRows[static_cast<std::size_t>(c)], 1, hopSize);
    }
    input.drop(hopSize);
    if (toHostRate) around.grow(hopSize);
    updateLevels(false);
    tryTo([&] { separator->add(hopRows.data(), hopSize); });
    numOfSamplesDue += hopSize;
    if (numOfSamplesDue <= 0) return;
    const auto count = static_cast<int>(std::min<std::int64_t>(numOfSamplesDue, hopSize));
    const int numOfReady = std::min(count, separator->getNumOfPendingSamples());
    for (auto& row : hop) std::fill(row.begin(), row.begin() + count, 0.0f);
    if (numOfReady > 0) tryTo([&] { separator->take(hopRows.data(), numOfReady); });
    hasFallenShort |= numOfReady < count;
    emit(count);
    numOfSamplesDue -= count;
}

template <class Step>
void Stream::tryTo(const Step& step) {
    try {
        step();
    } catch (...) {
        failure = std::current_exception();
    }
}

// Hands on what the separator gave.
void Stream::emit(int numOfSamples) {
    if (!toHostRate) {
        for (int c = 0; c < numOfOutputs; ++c)
            output.write(c, hopRows[static_cast<std::size_t>(c)], 1, numOfSamples);
        output.grow(numOfSamples);
        return;
    }
    const int width = numOfOutputs + format.numOfChannels;
    for (int c = 0; c < numOfOutputs; ++c)
        for (int i = 0; i < numOfSamples; ++i)
            workPart[static_cast<std::size_t>(i * width + c)] =
                hop[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)];
    for (int c = 0; c < format.numOfChannels; ++c)
        around.read(c, workPart.data() + numOfOutputs + c, width, numOfSamples);
    around.drop(numOfSamples);
    returned.clear();
    toHostRate->process(workPart.data(), numOfSamples, returned);
    emitReturned();
}

void Stream::emitReturned() {
    const int channels = format.numOfChannels;
    const int width = numOfOutputs + channels;
    const auto count = static_cast<std::int64_t>(returned.size()) / width;
    const std::int64_t numOfDropped = std::min(numOfOutputsToDrop, count);
    numOfOutputsToDrop -= numOfDropped;
    float* samples = returned.data() + numOfDropped * width;
    const auto length = static_cast<int>(count - numOfDropped);
    if (length < 1) return;

    // What the way there and back has lost, at the residual's level between the last hop and this one.
    const Level& level = levels[static_cast<std::size_t>(separator->getNumOfBusses() - 1)];
    const float step = (level.now - level.before) / static_cast<float>(length);
    for (int c = 0; c < channels; ++c) {
        original.read(c, originalPart.data(), 1, length);
        float* residual = samples + (numOfOutputs - channels) + c;
        const float* returnedInput = samples + numOfOutputs + c;
        for (int i = 0; i < length; ++i) {
            const float lost =
                originalPart[static_cast<std::size_t>(i)] - returnedInput[std::ptrdiff_t{i} * width];
            residual[std::ptrdiff_t{i} * width] += (level.before + step * static_cast<float>(i + 1)) * lost;
        }
    }
    original.drop(length);
    for (int c = 0; c < numOfOutputs; ++c) output.write(c, samples + c, width, length);
    output.grow(length);
}

void Stream::updateLevels(bool atOnce) {
    const int numOfBusses = separator->getNumOfBusses();
    for (int bus = 0; bus < numOfBusses; ++bus) {
        const auto index = static_cast<std::size_t>(bus);
        Level& level = levels[index];
        const float target = toGain(controls->levels[index]);
        if (target != level.target) {
            level.target = target;
            level.numOfSteps = stepsPerChange;
        }
        if (atOnce) level.numOfSteps = 0;
        level.before = level.now;
        level.now = level.numOfSteps > 1
                        ? level.now + (level.target - level.now) / static_cast<float>(level.numOfSteps)
                        : level.target;
        if (level.numOfSteps > 0) --level.numOfSteps;
        if (atOnce) level.before = level.now;
        separator->setGain(bus, level.now);
        separator->setSensitivity(bus, controls->sensitivities[index]);
    }
    separator->setMaskExtrapolationEnabled(controls->extrapolatesMasks);
}

}  // namespace zevrant::separation
