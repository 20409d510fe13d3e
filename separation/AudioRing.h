#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zevrant::separation {

// A queue of audio of a fixed size: one row of floats per channel, in which samples go round. Arguments are
// trusted: no more goes in than there is room, no more comes out than there is. After setSize() nothing asks
// for memory.
class AudioRing {
  public:
    void setSize(int channels, std::int64_t numOfSamples) {
        capacity = std::max<std::int64_t>(numOfSamples, 1);
        values.assign(static_cast<std::size_t>(channels * capacity), 0.0f);
        clear();
    }
    void clear() { start = length = 0; }

    std::int64_t getLength() const { return length; }
    std::int64_t getRoom() const { return capacity - length; }

    // Writes one channel behind the end. What lies there counts once grow() says so for all channels.
    void write(int channel, const float* in, int stride, int numOfSamples) {
        float* row = values.data() + channel * capacity;
        eachPart((start + length) % capacity, numOfSamples, [&](std::int64_t at, int from, int count) {
            for (int i = 0; i < count; ++i) row[at + i] = in[std::ptrdiff_t{from + i} * stride];
        });
    }
    void grow(std::int64_t numOfSamples) { length += numOfSamples; }

    void appendZeros(std::int64_t numOfSamples) {
        for (std::int64_t i = 0; i < numOfSamples; ++i) {
            const std::int64_t at = (start + length++) % capacity;
            for (std::size_t row = 0; row < values.size(); row += static_cast<std::size_t>(capacity))
                values[row + static_cast<std::size_t>(at)] = 0.0f;
        }
    }

    // Reads one channel from the front. It goes away once drop() says so for all channels.
    void read(int channel, float* out, int stride, int numOfSamples) const {
        const float* row = values.data() + channel * capacity;
        eachPart(start, numOfSamples, [&](std::int64_t at, int from, int count) {
            for (int i = 0; i < count; ++i) out[std::ptrdiff_t{from + i} * stride] = row[at + i];
        });
    }
    void drop(std::int64_t numOfSamples) {
        start = (start + numOfSamples) % capacity;
        length -= numOfSamples;
    }

  private:
    // use(place in the row, index of its first sample, count) for the one or two parts of a range.
    template <class Use>
    void eachPart(std::int64_t place, int numOfSamples, const Use& use) const {
        const int first = static_cast<int>(std::min<std::int64_t>(numOfSamples, capacity - place));
        use(place, 0, first);
        use(0, first, numOfSamples - first);
    }

    std::int64_t capacity = 1;
    std::int64_t start = 0, length = 0;
    std::vector<float> values;  // [channels, capacity]
};

}  // namespace zevrant::separation
