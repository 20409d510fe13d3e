#include "DspCore/SampleRateConversion.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>

#include "DspCore/MathEx.h"
#include "DspCore/VectorOperations.h"

namespace zevrant {

SampleRateConversion::~SampleRateConversion() = default;

bool SampleRateConversion::setFormat(const AudioFormat& input, const AudioFormat& output) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    if (inputFormat.channelMapping.size() != outputFormat.channelMapping.size()) return false;
    BaseAudioProcessor::setFormat(input, output);
    updateSincTables();
    reset();
    return true;
}

int SampleRateConversion::getLatency(int) const {
    return filterLength / 2 + 1;
}

void SampleRateConversion::reset() {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    position = 0.0;
    inputQueue.reset();
    inputQueue.add(Signal32(inputFormat.getNumOfChannels(), filterLength / 2, 0.0f));
}

void SampleRateConversion::updateSincTables() {
    const double exactLength = inputFormat.sampleRate * filterLengthMs / 1000.0;
    if (!(exactLength >= 0.0 && exactLength < std::numeric_limits<int>::max()))
        throw std::length_error("no filter length for this sample rate");
    const int length = MathEx::roundToInt32(exactLength);
    Signal64 table(numOfPhases, length);

    const double ratio = outputFormat.sampleRate / inputFormat.sampleRate;
    const float cutoff = cutoffPercent / 100.0f * static_cast<float>(std::min(ratio, 1.0));
    const double width = 0.1f * static_cast<float>(length);
    const int half = length / 2;
    phaseMask = numOfPhases - 1;
    identityPhase = -1;
    for (int p = 0; p < numOfPhases; ++p) {
        const double fraction = static_cast<double>(p) / numOfPhases;
        double* taps = table.getWriteChannelPtr(p);
        for (int k = 0; k < length; ++k) {
            const double u = k - half - fraction;
            const double a = cutoff * std::numbers::pi * u;
            const double sinc = a == 0.0 ? 1.0 : std::sin(a) / a;
            const double gauss = std::exp(-0.5 * (u / width) * (u / width));
            taps[k] = sinc * gauss * cutoff;
        }
        if (p == 0 && cutoff == 1.0f) identityPhase = p;  // only here u passes through whole numbers
    }
    sincTable = std::move(table);
    filterLength = length;
}

double SampleRateConversion::calculateSubSampleValue(int subSamplePosition, const double* input) const {
    const int phase = subSamplePosition & phaseMask;
    input += subSamplePosition / numOfPhases;
    if (phase == identityPhase) return input[filterLength / 2];
    return vo::dotProduct(input, sincTable.getReadChannelPtr(phase), filterLength);
}

// A whole filter and one sample more stay unread, for the phase after the last position.
int SampleRateConversion::countOutputSamples(double step) const {
    const double count = std::trunc(static_cast<double>(inputQueue.numOfSamples - filterLength - 1) / step);
    if (inputQueue.numOfSamples > std::numeric_limits<int>::max() || count > std::numeric_limits<int>::max())
        throw std::length_error("no signal holds this many samples");
    return static_cast<int>(std::max(count, 0.0));
}

void SampleRateConversion::interpolate(double step, Signal32& output) {
    if (numOfPhases < 1 || numOfPhases > sincTable.numOfChannels)
        throw std::out_of_range("the table has no such number of phases");
    widened.ensureDimensions(queued.numOfChannels, queued.numOfSamples);
    double** rows = widened.getWritePointer();
    output.ensureUnique();
    for (int c = 0; c < queued.numOfChannels; ++c)
        vo::convert32To64(queued.getReadChannelPtr(c), rows[c], queued.numOfSamples);

    const int numOfTaps = std::max(filterLength, identityPhase < 0 ? 0 : 1);
    const int lastStart = queued.numOfSamples - numOfTaps - 1;  // of a filter and of the phase after it
    double at = position;
    for (int i = 0; i < output.numOfSamples; ++i) {
        const double scaled = at * numOfPhases;
        const auto start = static_cast<std::int64_t>(at);
        const auto subSample = static_cast<std::int64_t>(scaled);
        if (start > lastStart) throw std::out_of_range("the read position has left the queue");
        const int phase = static_cast<int>(subSample - start * numOfPhases);
        const auto fraction = static_cast<float>(scaled - static_cast<double>(subSample));
        for (int c = 0; c < output.numOfChannels; ++c) {
            const double* input = rows[c] + start;
            double value = calculateSubSampleValue(phase, input);
            if (interpolatePhases) value += (calculateSubSampleValue(phase + 1, input) - value) * fraction;
            output.data->getRow(c)[i] = static_cast<float>(value);
        }
        at += step;
    }
    position = at;
}

Signal32 SampleRateConversion::process(const Signal32& input) {
    if (!input.data || input.numOfSamples == 0) return Signal32::empty;
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const double step = inputFormat.sampleRate / outputFormat.sampleRate;
    if (!(step > 0.0)) throw std::invalid_argument("no sample rates are set");

    inputQueue.add(input);
    const int count = countOutputSamples(step);
    if (count < 1) return Signal32::empty;

    queued.ensureDimensions(inputFormat.getNumOfChannels(), static_cast<int>(inputQueue.numOfSamples));
    inputQueue.peek(queued);
    Signal32 output;
    if (step == 1.0) {
        output = queued.extractSection(filterLength / 2, count);
        position += count;
    } else {
        output = Signal32(queued.numOfChannels, count);
        interpolate(step, output);
    }
    const int consumed = static_cast<int>(position);
    position -= consumed;
    inputQueue.skip(consumed);
    return output;
}

}  // namespace zevrant
