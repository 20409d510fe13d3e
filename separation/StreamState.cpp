#include "separation/StreamState.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

namespace zevrant::separation {

namespace {

constexpr int mostWaitingBlocks = 4;
constexpr std::int64_t mostSamplesInBlock = 1 << 24;  // of all channels that come out

std::vector<float*> makeRows(std::vector<std::vector<float>>& channels, int numOfChannels, int length) {
    channels.assign(static_cast<std::size_t>(numOfChannels),
                    std::vector<float>(static_cast<std::size_t>(length)));
    std::vector<float*> rows;
    rows.reserve(channels.size());
    for (auto& channel : channels) rows.push_back(channel.data());
    return rows;
}

bool isFinite(float value) {
    return (std::bit_cast<std::uint32_t>(value) & 0x7f800000u) != 0x7f800000u;
}

// Sets what is infinite or no number to 0 and returns how many that were.
int replaceNonFinite(float* values, int count) {
    int numOfOthers = 0;
    for (int i = 0; i < count; ++i) numOfOthers += isFinite(values[i]) ? 0 : 1;
    if (numOfOthers == 0) return 0;
    for (int i = 0; i < count; ++i)
        if (!isFinite(values[i])) values[i] = 0.0f;
    return numOfOthers;
}

// From 0 before start to 1 after start + length.
float getRamp(std::int64_t time, std::int64_t start, std::int64_t length) {
    if (time < start) return 0.0f;
    if (time >= start + length) return 1.0f;
    return static_cast<float>(time - start) / static_cast<float>(length);
}

}  // namespace

// ---- failures ----------------------------------------------------------------------------------

void LastFailure::set(ZevrantSeparationStatus newStatus, const char* newText) noexcept {
    if (isBusy.test_and_set(std::memory_order_acquire)) return;
    status = newStatus;
    std::snprintf(text, sizeof text, "%s", newText);
    isBusy.clear(std::memory_order_release);
}

ZevrantSeparationStatus LastFailure::get(char* out, std::size_t size) const noexcept {
    while (isBusy.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
    const ZevrantSeparationStatus last = status;
    if (out && size > 0) std::snprintf(out, size, "%s", text);
    isBusy.clear(std::memory_order_release);
    return last;
}

// ---- opening and controls ----------------------------------------------------------------------

StreamState::StreamState(const Model& model, const StreamOptions& streamOptions)
    : options(streamOptions), partLength(std::min(longestPart, options.format.longestBlock)) {
    const StreamFormat& format = options.format;
    const std::int64_t mostOutputs = std::int64_t{format.numOfChannels} *
                                     (format.output == Output::Busses ? std::ssize(model.getBusNames()) : 1);
    if (mostOutputs * format.longestBlock > mostSamplesInBlock)
        throw Error(ErrorKind::BadArgument, "longestBlock: " + std::to_string(format.longestBlock) +
                                                " samples are too many for " + std::to_string(mostOutputs) +
                                                " channels");
    stream = std::make_unique<Stream>(model, format, controls[0]);
    const Separator& separator = stream->getSeparator();
    numOfBusses = separator.getNumOfBusses();
    busNames = model.getBusNames();
    modelName = model.network.modelName;
    modelDescription = model.network.modelInfoText;

    info.size = sizeof info;
    info.sampleRate = format.sampleRate;
    info.modelSampleRate = model.network.sampleRate;
    info.workingSampleRate = stream->getWorkingRate();
    info.numOfChannels = format.numOfChannels;
    info.numOfOutputChannels = separator.getNumOfOutputChannels();
    info.numOfBusses = separator.getNumOfBusses();
    info.numOfModelChannels = model.network.numOfInputChannels;
    info.latency = stream->getLatency();
    info.conversionLatency = stream->getConversionLatency();
    info.frameSize = separator.getHopSize();
    info.longestBlock = format.longestBlock;

    numOfOutputs = info.numOfOutputChannels;
    ready.setSize(numOfOutputs, std::int64_t{mostWaitingBlocks} * format.longestBlock);
    inRows = makeRows(in, format.numOfChannels, partLength);
    outRows = makeRows(out, numOfOutputs, partLength);
    comingRows = makeRows(coming, numOfOutputs, partLength);
}

StreamState::~StreamState() {
    delete incoming.load();
    delete retired.load();
}

void StreamState::requireOpen() const {
    if (!stream) throw Error(ErrorKind::WrongState, "the model of this handle is in another stream now");
}

// ---- audio -------------------------------------------------------------------------------------

// read(row, channel, first, count) fills a row with samples of the block.
template <class Read>
void StreamState::addBlock(int numOfSamples, const Read& read) {
    requireOpen();
    if (isFlushed)
        throw Error(ErrorKind::WrongState, "the stream is flushed: nothing can be added before a reset");
    if (numOfSamples > ready.getRoom()) throw Error(ErrorKind::Full, "too many samples wait to be taken");
    std::int64_t numOfReplaced = 0;
    std::exception_ptr failure;
    for (int first = 0; first < numOfSamples; first += partLength) {
        const int count = std::min(partLength, numOfSamples - first);
        for (int c = 0; c < options.format.numOfChannels; ++c) {
            float* row = inRows[static_cast<std::size_t>(c)];
            read(row, c, first, count);
            if (!options.keepsNonFinite) numOfReplaced += replaceNonFinite(row, count);
        }
        processPart(count);
        for (const auto& running : {stream.get(), next.get()})
            if (running && running->hasFailed()) failure = running->takeFailure();
    }
    if (numOfReplaced > 0) numOfReplacedSamples += numOfReplaced;
    if (failure) std::rethrow_exception(failure);
}

void StreamState::add(const float* const* channels, int numOfSamples) {
    addBlock(numOfSamples, [&](float* row, int channel, int first, int count) {
        std::copy_n(channels[channel] + first, count, row);
    });
}

void StreamState::addInterleaved(const float* samples, int numOfSamples) {
    const std::ptrdiff_t width = options.format.numOfChannels;
    addBlock(numOfSamples, [&](float* row, int channel, int first, int count) {
        const float* sample = samples + first * width + channel;
        for (int i = 0; i < count; ++i) row[i] = sample[i * width];
    });
}

// Runs what stands in the rows of the input.
void StreamState::processPart(int numOfSamples) {
    takeIncoming();
    stream->process(inRows.data(), outRows.data(), numOfSamples);
    if (next) fade(numOfSamples);
    for (int c = 0; c < numOfOutputs; ++c)
        ready.write(c, outRows[static_cast<std::size_t>(c)], 1, numOfSamples);
    ready.grow(numOfSamples);
}

int StreamState::getNumOfPendingSamples() const {
    const std::int64_t count = ready.getLength() + numOfSamplesToFlush;
    return static_cast<int>(std::min<std::int64_t>(count, INT32_MAX));
}

// use(channel, ready, first, count) reads from the front of what is ready.
template <class Use>
void StreamState::takeBlock(int numOfSamples, const Use& use) {
    requireOpen();
    if (numOfSamples > getNumOfPendingSamples())
        throw Error(ErrorKind::TooFewSamples, "fewer samples are pending than were asked for");
    for (int first = 0; first < numOfSamples;) {
        if (ready.getLength() == 0) {
            const auto count = static_cast<int>(std::min<std::int64_t>(partLength, numOfSamplesToFlush));
            for (float* row : inRows) std::fill_n(row, count, 0.0f);
            processPart(count);
            numOfSamplesToFlush -= count;
        }
        const auto count = static_cast<int>(std::min<std::int64_t>(numOfSamples - first, ready.getLength()));
        for (int c = 0; c < numOfOutputs; ++c) use(c, first, count);
        ready.drop(count);
        first += count;
    }
}

void StreamState::take(float* const* channels, int numOfSamples) {
    takeBlock(numOfSamples, [&](int channel, int first, int count) {
        if (channels[channel]) ready.read(channel, channels[channel] + first, 1, count);
    });
}

void StreamState::takeInterleaved(float* samples, int numOfSamples) {
    const int width = numOfOutputs;
    takeBlock(numOfSamples, [&](int channel, int first, int count) {
        ready.read(channel, samples + std::ptrdiff_t{first} * width + channel, width, count);
    });
}

void StreamState::flush() {
    requireOpen();
    if (isFlushed) return;
    isFlushed = true;
    takeIncoming();
    numOfSamplesToFlush = (next ? next : stream)->getLatency();
}

void StreamState::reset() {
    requireOpen();
    takeIncoming();
    if (next) retired = std::exchange(stream, std::move(next)).release();
    stream->reset();
    ready.clear();
    isFlushed = false;
    numOfSamplesToFlush = 0;
}

// ---- another stream ----------------------------------------------------------------------------

void StreamState::takeOver(StreamState& other, bool allowsOtherLatency) {
    requireOpen();
    other.requireOpen();
    if (!finishSwap() || !other.finishSwap())
        throw Error(ErrorKind::WrongState, "an earlier swap is not complete");
    if (&other == this) throw Error(ErrorKind::BadArgument, "a stream cannot be swapped with itself");
    const StreamFormat &ours = options.format, &theirs = other.options.format;
    if (ours.numOfChannels != theirs.numOfChannels || ours.sampleRate != theirs.sampleRate ||
        ours.longestBlock != theirs.longestBlock || ours.output != theirs.output ||
        info.numOfOutputChannels != other.info.numOfOutputChannels)
        throw Error(ErrorKind::BadArgument,
                    "next: has to have the channels, sample rate, longest block and output of the stream, "
                    "and as many busses where these are put out");
    if (info.latency != other.info.latency && !allowsOtherLatency)
        throw Error(ErrorKind::LatencyDiffers,
                    "next: has a latency of " + std::to_string(other.info.latency) +
                        " samples, and the stream has " + std::to_string(info.latency));
    const std::size_t inactive = 1 - activeControls;
    controls[inactive].set(&other.getControls());
    other.stream->follow(controls[inactive]);
    other.stream->reset();
    info = other.info;
    std::swap(busNames, other.busNames);
    std::swap(modelName, other.modelName);
    std::swap(modelDescription, other.modelDescription);
    numOfBusses = other.info.numOfBusses;
    activeControls = inactive;
    isSwapping = true;
    incoming = other.stream.release();
}

bool StreamState::finishSwap() {
    if (!isSwapping) return true;
    Stream* old = retired.exchange(nullptr);
    if (!old) return false;
    delete old;
    isSwapping = false;
    return true;
}

// On the audio thread: begins to run a new stream beside the old one.
void StreamState::takeIncoming() {
    if (next || !incoming.load(std::memory_order_relaxed)) return;
    next.reset(incoming.exchange(nullptr));
    const auto longestFade = static_cast<std::int64_t>(fadeSeconds * options.format.sampleRate) + 1;
    const std::int64_t before = stream->getLatency(), after = next->getLatency();
    timeOfSwap = 0;
    fadeInStart = after;
    fadeInLength = longestFade;
    // To the same or a shorter latency both fade at once. To a longer one the old stream ends with the sound
    // that came in before the swap, and silence takes what the new one is later by.
    fadeOutLength = after > before ? std::min(longestFade, before) : longestFade;
    fadeOutStart = after > before ? before - fadeOutLength : after;
}

void StreamState::fade(int numOfSamples) {
    next->process(inRows.data(), comingRows.data(), numOfSamples);
    for (int i = 0; i < numOfSamples; ++i) {
        const std::int64_t time = timeOfSwap + i;
        const float old = 1.0f - getRamp(time, fadeOutStart, fadeOutLength);
        const float fresh = getRamp(time, fadeInStart, fadeInLength);
        for (std::size_t c = 0; c < out.size(); ++c)
            outRows[c][i] = old * outRows[c][i] + fresh * comingRows[c][i];
    }
    timeOfSwap += numOfSamples;
    if (timeOfSwap < fadeInStart + fadeInLength) return;
    retired = std::exchange(stream, std::move(next)).release();
}

}  // namespace zevrant::separation
