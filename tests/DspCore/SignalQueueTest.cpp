#include "DspCore/SignalQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <stdexcept>

namespace zevrant {
namespace {

// A signal whose samples count on from first, with the channel in the thousands.
Signal32 makeCounting(int numOfChannels, int numOfSamples, int first) {
    Signal32 signal(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < numOfSamples; ++i)
            signal.getWriteChannelPtr(c)[i] = static_cast<float>(100000 * c + first + i);
    return signal;
}

void expectCounting(const Signal32& signal, int first) {
    for (int c = 0; c < signal.numOfChannels; ++c)
        for (int i = 0; i < signal.numOfSamples; ++i)
            ASSERT_EQ(signal.getReadChannelPtr(c)[i], static_cast<float>(100000 * c + first + i))
                << "channel " << c << ", sample " << i;
}

// Copies the signal in and leaves nothing of it shared.
void append(SignalQueue<Signal32>& queue, const Signal32& signal) {
    queue.append(
        signal.numOfChannels, signal.numOfSamples, [&](Signal32& to, int column, int start, int count) {
            for (int c = 0; c < signal.numOfChannels; ++c)
                std::copy_n(signal.getReadChannelPtr(c) + start, count, to.getWriteChannelPtr(c) + column);
        });
}

// The next samples, read where they are or copied.
Signal32 take(SignalQueue<Signal32>& queue, int count) {
    if (count % 2 == 0) return queue.get(count);
    Signal32 out(queue.numOfChannels, count);
    queue.get(count, [&](const Signal32& from, int column, int start, int length) {
        for (int c = 0; c < out.numOfChannels; ++c)
            std::copy_n(from.getReadChannelPtr(c) + column, length, out.getWriteChannelPtr(c) + start);
    });
    return out;
}

// Random adds, gets, peeks and skips beside a model of the queue: two counters.
TEST(SignalQueue, deliversWhatWasAddedInAnyBlocks) {
    std::mt19937 generator(7);
    const auto draw = [&](int low, int high) { return std::uniform_int_distribution(low, high)(generator); };
    SignalQueue<Signal32> queue;
    int numOfAdded = 0, numOfTaken = 0;
    for (int step = 0; step < 5000; ++step) {
        const int pending = numOfAdded - numOfTaken, kind = draw(0, 4);
        if (kind < 2) {
            const int count = draw(0, 40);
            const Signal32 added = makeCounting(2, count, numOfAdded);
            if (draw(0, 3) == 0)
                queue.add(added);
            else
                append(queue, added);
            numOfAdded += count;
        } else if (kind == 2) {
            const int count = draw(0, 30);
            queue.skip(count);
            numOfTaken += std::min(count, pending);
        } else if (queue.numOfChannels > 0) {
            const int count = draw(0, draw(0, 1) == 0 ? pending : std::min(pending, 50));
            const Signal32 out = kind == 3 ? take(queue, count) : queue.peek(count);
            ASSERT_EQ(out.numOfSamples, count);
            expectCounting(out, numOfTaken);
            numOfTaken += kind == 3 ? count : 0;
        }
        ASSERT_EQ(queue.numOfSamples, numOfAdded - numOfTaken);
    }
}

TEST(SignalQueue, keepsHandlesAndLetsGoOfUsedUpSignalsAtOnce) {
    SignalQueue<Signal32> queue;
    Signal32 first = makeCounting(1, 10, 0);
    queue.add(first);
    EXPECT_EQ(queue.signals.front().data, first.data);
    first.getWriteChannelPtr(0)[0] = -1.0f;  // the writer parts from the queue
    expectCounting(queue.get(4), 0);
    const std::weak_ptr<SignalData<float>> block = queue.signals.front().data;
    expectCounting(queue.get(6), 4);
    EXPECT_TRUE(block.expired());
    EXPECT_EQ(queue.readOffset, 0);
    EXPECT_EQ(queue.numOfChannels, 1);
}

// Small blocks share few signals of the queue's own, and nobody else's is written to.
TEST(SignalQueue, appendFillsItsOwnSignals) {
    SignalQueue<Signal32> queue;
    Signal32 shared = makeCounting(1, 10, 0);
    shared.numOfSamples = 4;  // with room behind it that is not the queue's to use
    queue.add(shared);
    for (int i = 4; i < 2000; ++i) append(queue, makeCounting(1, 1, i));
    shared.numOfSamples = 10;
    expectCounting(shared, 0);
    EXPECT_LE(std::ssize(queue.signals), 2 + 2000 / queue.lengthOfOwn);
    append(queue, makeCounting(2, 3, 7));
    EXPECT_EQ(queue.numOfChannels, -1);  // as add() does
    EXPECT_EQ(queue.numOfSamples, 3);
    append(queue, makeCounting(2, 600, 10));
    expectCounting(queue.get(603), 7);
    EXPECT_THROW(queue.get(1, [](auto&&...) {}), std::out_of_range);
}

TEST(SignalQueue, ignoresSignalsWithoutSamples) {
    SignalQueue<Signal32> queue;
    for (const Signal32& nothing : {Signal32(), Signal32(2, 0)}) queue.add(nothing);
    EXPECT_EQ(queue.numOfChannels, -1);
    queue.add(Signal32(2, -3));  // sets the channel count, and holds nothing to queue
    EXPECT_EQ(queue.numOfChannels, 2);
    EXPECT_TRUE(queue.signals.empty() && queue.numOfSamples == 0);
}

TEST(SignalQueue, aChannelChangeDropsTheOldAndUnsetsTheCountUntilTheNextSignal) {
    SignalQueue<Signal32> queue;
    queue.add(makeCounting(1, 8, 0));
    queue.skip(3);
    queue.add(makeCounting(2, 5, 0));
    EXPECT_EQ(queue.numOfSamples, 5);
    EXPECT_EQ(queue.readOffset, 0);
    EXPECT_EQ(queue.numOfChannels, -1);
    EXPECT_EQ(queue.peek(2).data, nullptr);
    EXPECT_EQ(queue.get(2).data, nullptr);
    EXPECT_EQ(queue.numOfSamples, 5);
    queue.add(makeCounting(2, 5, 5));
    EXPECT_EQ(queue.numOfChannels, 2);
    expectCounting(queue.get(10), 0);
}

TEST(SignalQueue, peekKeepsWhatTheQueueCannotFillAndMoreIsRefused) {
    SignalQueue<Signal32> queue;
    Signal32 out(1, 6, 9.0f), tooLong(1, 5), tooWide(2, 2);
    const Signal32 sharer = out;
    queue.peek(out);
    EXPECT_EQ(out.data, sharer.data);  // an empty queue touches nothing
    queue.add(makeCounting(1, 4, 0));
    queue.peek(out);
    EXPECT_EQ(sharer.getReadChannelPtr(0)[0], 9.0f);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(out.getReadChannelPtr(0)[i], i < 4 ? static_cast<float>(i) : 9.0f);
    EXPECT_THROW(queue.get(tooLong), std::out_of_range);
    EXPECT_THROW(queue.get(tooWide), std::out_of_range);
    EXPECT_THROW(queue.peek(tooWide), std::out_of_range);
    EXPECT_EQ(queue.numOfSamples, 4);
    queue.skip(1000);
    EXPECT_EQ(queue.numOfChannels, 1) << "keeps its channels when it is emptied";
    queue.reset();
    EXPECT_EQ(queue.numOfChannels, -1);
}

}  // namespace
}  // namespace zevrant
