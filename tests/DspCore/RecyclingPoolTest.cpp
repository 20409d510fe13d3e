#include "DspCore/RecyclingPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace zevrant {
namespace {

// Blocks of every size class, both sides of each boundary, live at once: each is aligned, none overlaps
// another, and each keeps its pattern while others come and go.
TEST(RecyclingPool, blocksAreAlignedAndKeptApart) {
    struct Block {
        unsigned char* data;
        std::size_t size;
        unsigned char pattern;
    };
    std::mt19937 generator(3);
    std::vector<Block> live;
    for (int round = 0; round < 4000; ++round) {
        const std::size_t power = std::size_t{1} << std::uniform_int_distribution(0, 17)(generator);
        const std::size_t size = power + std::uniform_int_distribution<std::size_t>(0, power)(generator);
        auto* data = static_cast<unsigned char*>(allocateRecycled(size));
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(data) % 64, 0u);
        const auto pattern = static_cast<unsigned char>(round);
        std::memset(data, pattern, size);
        live.push_back({data, size, pattern});
        if (live.size() < 60) continue;
        const auto index = std::uniform_int_distribution<std::size_t>(0, live.size() - 1)(generator);
        std::swap(live[index], live.back());
        const Block& block = live.back();
        for (std::size_t i = 0; i < block.size; i += block.size / 7 + 1)
            ASSERT_EQ(block.data[i], block.pattern);
        ASSERT_EQ(block.data[block.size - 1], block.pattern);
        freeRecycled(block.data, block.size);
        live.pop_back();
    }
    for (const Block& block : live) freeRecycled(block.data, block.size);
}

TEST(RecyclingPool, blocksMayEndOnAnotherThread) {
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i) blocks.push_back(allocateRecycled(1000));
    std::thread([&] {
        for (void* block : blocks) freeRecycled(block, 1000);
        for (void*& block : blocks) block = allocateRecycled(900);
    }).join();
    for (void* block : blocks) freeRecycled(block, 900);
    void* large = allocateRecycled(std::size_t{20} << 20);
    freeRecycled(large, std::size_t{20} << 20);
    freeRecycled(nullptr, 5);
}

TEST(ListNodeReserve, reusesNodesAndLetsGoOfTheirValues) {
    std::list<std::shared_ptr<int>> list;
    ListNodeReserve<std::shared_ptr<int>> reserve;
    const auto value = std::make_shared<int>(1);
    reserve.append(list, value);
    const auto* node = &list.front();
    reserve.removeFront(list);
    EXPECT_EQ(value.use_count(), 1);
    reserve.append(list, value);
    EXPECT_EQ(&list.front(), node);
    reserve.append(list, value);
    reserve.clear(list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(value.use_count(), 1);
}

}  // namespace
}  // namespace zevrant
