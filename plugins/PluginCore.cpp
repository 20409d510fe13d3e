#include "plugins/PluginCore.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>
#include <exception>
#include <filesystem>
#include <utility>

#include "plugins/ModelFiles.h"
#include "separation/AudioRing.h"

namespace zevrant::plugins {

using separation::AudioRing;
using separation::Controls;
using separation::ErrorKind;
using separation::Model;
using separation::Output;
using separation::Stream;
using separation::StreamFormat;

namespace {

constexpr int partLength = 1024;  // samples that are processed at once
constexpr double fadeSeconds = 0.02;
constexpr float silence = -144.0f;  // decibels that a stream takes for silence
constexpr std::chrono::milliseconds workPeriod(20);

using Rows = std::vector<std::vector<float>>;

Rows makeRows(int count) {
    return Rows(static_cast<std::size_t>(count), std::vector<float>(partLength));
}

std::vector<float*> getPointers(Rows& rows) {
    std::vector<float*> pointers;
    for (auto& row : rows) pointers.push_back(row.data());
    return pointers;
}

float toFinite(float value) {
    return (std::bit_cast<std::uint32_t>(value) & 0x7f800000u) == 0x7f800000u ? 0.0f : value;
}

bool isBus(int bus) {
    return bus >= 0 && bus < PluginCore::mostBusses;
}

}  // namespace

// ---- one model, or none ------------------------------------------------------------------------

// All rows that come out are of one latency, so that what is faded between them lines up.
struct PluginCore::Source {
    Source(const Options& options, double rate, int latencyOfSource, std::unique_ptr<Stream> runs)
        : numOfChannels(options.numOfChannels),
          numOfBusOutputs(options.numOfBusOutputs),
          latency(latencyOfSource),
          sampleRate(rate),
          stream(std::move(runs)),
          numOfBusses(stream ? stream->getSeparator().getNumOfBusses() : 1),
          fadeLength(static_cast<int>(fadeSeconds * rate) + 1) {
        delay.setSize(numOfChannels, std::int64_t{latency} + partLength);
        late = makeRows(numOfChannels);
        if (stream) separated = makeRows(stream->getSeparator().getNumOfOutputChannels());
        separatedRows = getPointers(separated);
        out = makeRows(numOfChannels * (1 + numOfBusOutputs));
        reset();
    }

    void reset() {
        if (stream) stream->reset();
        delay.clear();
        delay.appendZeros(latency);
        hasFailed = false;
        timeOfFade = -1;
    }

    // Fills the rows of out. Sound and input fade into each other by the sample.
    void process(const float* const* in, int numOfSamples, bool isBypassed) {
        for (int c = 0; c < numOfChannels; ++c) delay.write(c, in[c], 1, numOfSamples);
        delay.grow(numOfSamples);
        for (int c = 0; c < numOfChannels; ++c)
            delay.read(c, late[static_cast<std::size_t>(c)].data(), 1, numOfSamples);
        delay.drop(numOfSamples);
        if (stream && !hasFailed) {
            stream->process(in, separatedRows.data(), numOfSamples);
            hasFailed = stream->hasFailed();
        } else {
            for (auto& row : separated) std::fill_n(row.begin(), numOfSamples, 0.0f);
        }
        const int target = !stream || hasFailed || isBypassed ? 0 : fadeLength;
        const int from = timeOfFade < 0 ? target : timeOfFade;
        timeOfFade =
            target > from ? std::min(target, from + numOfSamples) : std::max(target, from - numOfSamples);
        for (int output = 0; output <= numOfBusOutputs; ++output)
            for (int c = 0; c < numOfChannels; ++c) fillRow(output, c, numOfSamples, from, target);
    }

    // Of output 0, the main one, or of that of bus output - 1.
    void fillRow(int output, int channel, int numOfSamples, int from, int target) {
        float* row = out[static_cast<std::size_t>(output * numOfChannels + channel)].data();
        const float* through = late[static_cast<std::size_t>(channel)].data();
        const bool isMain = output == 0, hasInput = isMain || output == numOfBusses;
        if (from == target && target == 0) {
            if (hasInput)
                std::copy_n(through, numOfSamples, row);
            else
                std::fill_n(row, numOfSamples, 0.0f);
            return;
        }
        const int firstBus = isMain ? 0 : output - 1;
        const int numOfRows = static_cast<int>(separated.size()) / numOfChannels;
        const int endOfBusses = std::min(isMain ? numOfRows : output, numOfRows);
        std::fill_n(row, numOfSamples, 0.0f);
        for (int bus = firstBus; bus < endOfBusses; ++bus) {
            const float* part = separated[static_cast<std::size_t>(bus * numOfChannels + channel)].data();
            for (int i = 0; i < numOfSamples; ++i) row[i] += part[i];
        }
        if (from == target) return;
        const int step = target > from ? 1 : -1;
        for (int i = 0; i < numOfSamples; ++i) {
            const int time = std::clamp(from + step * (i + 1), 0, fadeLength);
            const float factor = static_cast<float>(time) / static_cast<float>(fadeLength);
            row[i] = factor * row[i] + (hasInput ? (1.0f - factor) * through[i] : 0.0f);
        }
    }

    const int numOfChannels, numOfBusOutputs, latency;
    const double sampleRate;
    const std::unique_ptr<Stream> stream;  // none: the input alone
    const int numOfBusses;
    const int fadeLength;  // samples
    AudioRing delay;       // of the input
    Rows late, separated, out;
    std::vector<float*> separatedRows;
    int timeOfFade = -1;  // 0: the input, fadeLength: what the model gives, below 0: nothing was played
    bool hasFailed = false;

    // For the worker and the host.
    std::string wanted, path, message;
    std::vector<std::string> busNames;
    Status status = Status::None;
};

// ---- requests ----------------------------------------------------------------------------------

bool PluginCore::Mailbox::put(std::string_view text) noexcept {
    if (text.size() >= content.size() || busy.test_and_set(std::memory_order_acquire)) return false;
    std::copy(text.begin(), text.end(), content.begin());
    length = text.size();
    full = true;
    busy.clear(std::memory_order_release);
    return true;
}

std::string PluginCore::Mailbox::take() {
    std::string text(content.size(), '\0');  // before anybody is kept out
    while (busy.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
    std::copy_n(content.begin(), length, text.begin());
    const std::size_t size = length;
    full = false;
    busy.clear(std::memory_order_release);
    text.resize(size);
    return text;
}

PluginCore::PluginCore(const Options& given) : options(given) {
    input = makeRows(options.numOfChannels);
    inputRows = getPointers(input);
    if (options.changesModels) worker = std::thread([this] { runWorker(); });
}

PluginCore::~PluginCore() {
    if (worker.joinable()) {
        {
            const std::lock_guard lock(wakeMutex);
            isOver = true;
        }
        wake.notify_one();
        worker.join();
    }
    delete incoming.load();
    delete retired.load();
}

bool PluginCore::needsWork() const noexcept {
    return (requests.isFull() && active) || retired.load(std::memory_order_relaxed);
}

// The audio thread wakes nobody, because that would be a system call: the worker looks by itself.
void PluginCore::runWorker() {
    std::unique_lock lock(wakeMutex);
    while (!isOver) {
        if (needsWork()) {
            lock.unlock();
            work();
            lock.lock();
        }
        if (!isOver) wake.wait_for(lock, workPeriod);
    }
}

void PluginCore::takeRequest() {
    while (requests.isFull()) {
        const bool wantedOther = wantsOther.exchange(true);
        std::string text = requests.take();
        const bool plays = text == wanted && (status == Status::Ready || status == Status::None);
        if (plays && !wantedOther) wantsOther = false;
        wanted = std::move(text);
    }
}

void PluginCore::work() {
    const std::lock_guard lock(workMutex);
    delete retired.exchange(nullptr);
    if (!active) return;
    takeRequest();
    if (!wantsOther) return;
    try {
        std::unique_ptr<Source> source = build(latency);
        tell(*source);
        if (source->latency == latency || options.takesAnyLatency) {
            waiting.reset();
            nextLatency = -1;
            delete incoming.exchange(source.release());
        } else {
            delete incoming.exchange(nullptr);
            nextLatency = source->latency;
            waiting = std::move(source);
        }
    } catch (const std::exception& error) {
        tell(Status::Broken, wanted + ": " + error.what());
    }
    wantsOther = false;
}

// The model that is wanted, or where there is none a source of this latency that passes audio.
std::unique_ptr<PluginCore::Source> PluginCore::build(int latencyOfFault) {
    std::unique_ptr<Stream> stream;
    Status result = Status::None;
    std::string reason;
    std::filesystem::path path = wanted;
    try {
        if (!wanted.empty()) {
            path = findModelFile(wanted);
            if (path.empty()) throw separation::Error(ErrorKind::NoSuchModel, wanted + ": no such model");
            if (!model || model->path != path) model = Model::open(std::filesystem::absolute(path).string());
            const StreamFormat format{.numOfChannels = options.numOfChannels,
                                      .sampleRate = sampleRate,
                                      .longestBlock = partLength,
                                      .output = options.numOfBusOutputs > 0 ? Output::Busses : Output::Mix};
            stream = std::make_unique<Stream>(*model, format, controls);
            result = Status::Ready;
        }
    } catch (const separation::Error& error) {
        result = error.kind == ErrorKind::NoSuchModel ? Status::Missing : Status::Broken;
        reason = error.what();
    } catch (const std::exception& error) {
        result = Status::Broken;
        reason = wanted + ": " + error.what();
    }
    if (!stream) model.reset();
    const int latencyOfSource = stream ? stream->getLatency() : latencyOfFault;
    auto source = std::make_unique<Source>(options, sampleRate, latencyOfSource, std::move(stream));
    source->wanted = wanted;
    source->path = path.empty() ? wanted : path.string();
    source->status = result;
    source->message = std::move(reason);
    if (model) source->busNames = model->getBusNames();
    return source;
}

void PluginCore::tell(const Source& source) {
    const std::lock_guard lock(textMutex);
    message = source.message;
    modelPath = source.path;
    busNames = source.busNames;
    status = source.status;
}

void PluginCore::tell(Status newStatus, const std::string& text) {
    const std::lock_guard lock(textMutex);
    message = text;
    status = newStatus;
}

std::optional<int> PluginCore::getNextLatency() const noexcept {
    const int other = nextLatency;
    return other < 0 ? std::nullopt : std::optional<int>(other);
}

std::string PluginCore::getMessage() const {
    const std::lock_guard lock(textMutex);
    if (status == Status::Broken && message.empty()) return modelPath + ": the model failed on this audio";
    return message;
}

std::vector<std::string> PluginCore::getBusNames() const {
    const std::lock_guard lock(textMutex);
    return busNames;
}

std::string PluginCore::getModelPath() const {
    const std::lock_guard lock(textMutex);
    return modelPath;
}

// ---- audio -------------------------------------------------------------------------------------

void PluginCore::activate(double rate) {
    const std::lock_guard lock(workMutex);
    active = false;
    takeRequest();
    delete retired.exchange(nullptr);
    // The newest of what has been built is wanted, if anything.
    std::unique_ptr<Source> newest = std::move(waiting);
    std::unique_ptr<Source> taken(incoming.exchange(nullptr));
    if (!newest) newest = std::move(taken);
    if (!newest) newest = std::move(next);
    if (!newest) newest = std::move(current);
    next.reset();
    nextLatency = -1;
    const bool keepsRate = rate == sampleRate;
    sampleRate = rate;
    const bool serves = newest && keepsRate && !wantsOther && newest->wanted == wanted &&
                        newest->status == Status::Ready && !newest->hasFailed;
    if (!serves) {
        const bool keepsLatency = newest && keepsRate && !wanted.empty();
        newest = build(keepsLatency ? newest->latency : 0);
    }
    current = std::move(newest);
    current->reset();
    latency = current->latency;
    tell(*current);
    wantsOther = false;
    active = true;
}

void PluginCore::deactivate() {
    const std::lock_guard lock(workMutex);
    active = false;
}

void PluginCore::reset() noexcept {
    if (!current) return;
    if (next && !retired) finishSwap();
    current->reset();
    if (next) next->reset();
}

void PluginCore::process(const float* const* in, float* const* out, int numOfSamples) noexcept {
    for (int first = 0; first < numOfSamples; first += partLength)
        processPart(in, out, first, std::min(partLength, numOfSamples - first));
}

void PluginCore::processPart(const float* const* in, float* const* out, int first, int numOfSamples) {
    const int numOfRows = options.numOfChannels * (1 + options.numOfBusOutputs);
    if (!current) {
        for (int row = 0; row < numOfRows; ++row)
            if (out[row]) std::fill_n(out[row] + first, numOfSamples, 0.0f);
        return;
    }
    for (int c = 0; c < options.numOfChannels; ++c)
        std::transform(in[c] + first, in[c] + first + numOfSamples, inputRows[static_cast<std::size_t>(c)],
                       toFinite);
    takeIncoming();
    const bool isBypassed = bypassed, hadFailed = current->hasFailed;
    current->process(inputRows.data(), numOfSamples, isBypassed);
    if (current->hasFailed && !hadFailed && !next) status = Status::Broken;
    if (next) {
        next->process(inputRows.data(), numOfSamples, isBypassed);
        blend(numOfSamples);
    }
    for (int row = 0; row < numOfRows; ++row)
        if (out[row])
            std::copy_n(current->out[static_cast<std::size_t>(row)].begin(), numOfSamples, out[row] + first);
    if (next && timeOfSwap >= std::max(fadeInStart, fadeOutStart) + fadeLength) finishSwap();
}

// Begins to run a new source beside the old one. Of one latency they fade over into each other once the new
// one has sound. To a longer one the old source ends first, and silence takes what the new one is later by.
void PluginCore::takeIncoming() {
    if (next || !incoming.load(std::memory_order_relaxed) || retired.load(std::memory_order_relaxed)) return;
    next.reset(incoming.exchange(nullptr, std::memory_order_acquire));
    if (!next) return;
    const std::int64_t before = current->latency, after = next->latency;
    timeOfSwap = 0;
    fadeLength = static_cast<std::int64_t>(fadeSeconds * current->sampleRate) + 1;
    fadeInStart = after;
    fadeOutStart = after > before ? std::max<std::int64_t>(0, before - fadeLength) : after;
    latency = next->latency;
}

void PluginCore::blend(int numOfSamples) {
    const auto scale = static_cast<float>(fadeLength);
    for (int i = 0; i < numOfSamples; ++i) {
        const std::int64_t time = timeOfSwap + i;
        const float fresh = std::clamp(static_cast<float>(time - fadeInStart) / scale, 0.0f, 1.0f);
        const float old = 1.0f - std::clamp(static_cast<float>(time - fadeOutStart) / scale, 0.0f, 1.0f);
        for (std::size_t row = 0; row < current->out.size(); ++row) {
            float& value = current->out[row][static_cast<std::size_t>(i)];
            value = old * value + fresh * next->out[row][static_cast<std::size_t>(i)];
        }
    }
    timeOfSwap += numOfSamples;
}

void PluginCore::finishSwap() {
    retired.store(std::exchange(current, std::move(next)).release(), std::memory_order_release);
}

// ---- parameters --------------------------------------------------------------------------------

void PluginCore::setLevel(int bus, float decibel) noexcept {
    if (!isBus(bus) || !(decibel == decibel)) return;
    const float level = std::min(decibel, highestLevel);
    controls.levels[static_cast<std::size_t>(bus)] = level <= lowestLevel ? silence : level;
}

float PluginCore::getLevel(int bus) const noexcept {
    if (!isBus(bus)) return 0.0f;
    return std::max(lowestLevel, controls.levels[static_cast<std::size_t>(bus)].load());
}

void PluginCore::setSensitivity(int bus, float value) noexcept {
    if (!isBus(bus) || !(value == value)) return;
    controls.sensitivities[static_cast<std::size_t>(bus)] =
        std::clamp(value, -mostSensitivity, mostSensitivity);
}

float PluginCore::getSensitivity(int bus) const noexcept {
    return isBus(bus) ? controls.sensitivities[static_cast<std::size_t>(bus)].load() : 0.0f;
}

}  // namespace zevrant::plugins
