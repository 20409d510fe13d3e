// The adapter beside the C functions that it forwards to, on a real model.
#import "interface/EngineAdapterObjC.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "interface/AudioHost.h"

// Shows the handle, which the adapter keeps to itself.
@interface OpenAdapter : EngineAdapterObjC
- (struct ProcessorState*)handle;
@end

@implementation OpenAdapter
- (struct ProcessorState*)handle {
    return handle;
}
@end

namespace {

class EngineAdapterObjCTest : public testing::Test {
  protected:
    EngineAdapterObjCTest() {
        for (std::size_t i = 0; i < length; ++i)
            for (const auto& row : rows) interleaved.push_back(row[i]);
    }
    ~EngineAdapterObjCTest() override { [pool release]; }

    NSString* text(const std::string& characters) {
        return [NSString stringWithUTF8String:characters.c_str()];
    }

    static constexpr int length = 1000;
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    zevrant::ModelFolder models;
    const std::string path = models.write({.busGains = {0.5f}, .constantMasks = true});
    const zevrant::Audio rows = zevrant::makeNoise(2, length, 11);
    std::vector<float> interleaved;
};

TEST_F(EngineAdapterObjCTest, givesWhatTheCFunctionsGive) {
    EngineAdapterObjC* adapter = [[EngineAdapterObjC alloc] initWithModelFilepath:text(path)
                                                                    numOfChannels:2
                                                                       sampleRate:48000.0];
    ASSERT_TRUE(adapter != nil);
    ProcessorState* processor = zevrantCreateProcessor(path.c_str(), 2, 48000.0);
    ASSERT_NE(processor, nullptr);

    const ProcessorInfo info = [adapter getProcessorInfo];
    ProcessorInfo expectedInfo;
    zevrantGetProcessorInfo(processor, &expectedInfo);
    EXPECT_EQ(info.latency, expectedInfo.latency);
    EXPECT_EQ(info.hopSize, 64);

    [adapter setParameterFor:257 to:0.25f];
    zevrantSetParameterValue(processor, 257, 0.25f);
    EXPECT_EQ([adapter getParameterValueFor:257], 0.25f);

    const float* channels[] = {rows[0].data(), rows[1].data()};
    std::array<std::array<float, length>, 2> out{}, expected{};
    float* const outRows[] = {out[0].data(), out[1].data()};
    float* const expectedRows[] = {expected[0].data(), expected[1].data()};
    std::vector<float> outInterleaved(2 * length);
    for (int round = 0; round < 2; ++round) {  // the second time from a reset on, in the interleaved form
        if (round == 0)
            [adapter addAudio:channels numOfSamples:length];
        else
            [adapter addAudioInterleaved:interleaved.data() numOfSamples:length];
        zevrantAddAudio(processor, channels, length);
        const int numOfPending = zevrantGetNumOfPendingSamples(processor);
        ASSERT_GT(numOfPending, 0);
        ASSERT_EQ([adapter getNumOfPendingSamples], numOfPending);
        EXPECT_FALSE([adapter getAudio:outRows numOfSamples:numOfPending + 1]);
        ASSERT_TRUE(zevrantGetAudio(processor, expectedRows, numOfPending));
        if (round == 0) {
            ASSERT_TRUE([adapter getAudio:outRows numOfSamples:numOfPending]);
            EXPECT_EQ(out, expected);
        } else {
            ASSERT_TRUE([adapter getAudioInterleaved:outInterleaved.data() numOfSamples:numOfPending]);
            for (std::size_t i = 0; i < static_cast<std::size_t>(numOfPending); ++i)
                for (std::size_t c = 0; c < 2; ++c) ASSERT_EQ(outInterleaved[2 * i + c], expected[c][i]);
        }
        [adapter resetProcessorState];
        zevrantResetProcessorState(processor);
        EXPECT_EQ([adapter getNumOfPendingSamples], 0);
    }
    zevrantDeleteProcessor(processor);
    [adapter release];
}

TEST_F(EngineAdapterObjCTest, failsToBeMadeWithoutAModel) {
    NSString* missing = text(path + ".missing");
    EXPECT_TRUE([[EngineAdapterObjC alloc] initWithModelFilepath:missing
                                                   numOfChannels:2
                                                      sampleRate:48000.0] == nil);
    EXPECT_TRUE([[EngineAdapterObjC alloc] initWithModelFilepath:nil numOfChannels:2
                                                      sampleRate:48000.0] == nil);
    NSArray* paths = [NSArray arrayWithObjects:text(path), missing, nil];
    EXPECT_TRUE([[EngineAdapterObjC alloc] initWithModelFilepaths:paths numOfChannels:2
                                                       sampleRate:48000.0] == nil);
    EXPECT_TRUE([[EngineAdapterObjC alloc] initWithModelFilepaths:[NSArray array]
                                                    numOfChannels:2
                                                       sampleRate:48000.0] == nil);
}

TEST_F(EngineAdapterObjCTest, opensSeveralModelsInTheOrderOfAnyCollection) {
    NSMutableArray* paths = [NSMutableArray array];
    for (int i = 0; i < 20; ++i) [paths addObject:text(path)];  // more than one buffer of an enumeration
    for (id collection : {(id)paths, (id)[NSSet setWithArray:paths]}) {
        OpenAdapter* adapter = [[OpenAdapter alloc] initWithModelFilepaths:collection
                                                             numOfChannels:2
                                                                sampleRate:48000.0];
        EXPECT_EQ(zevrantGetNumOfOutputBusses([adapter handle]), collection == paths ? 40 : 2);
        [adapter release];
    }
}

TEST_F(EngineAdapterObjCTest, openingAgainForgetsTheOldProcessorWithoutDeletingIt) {
    OpenAdapter* adapter = [[OpenAdapter alloc] init];
    ASSERT_TRUE([adapter createProcessor:text(path) numOfChannels:2 sampleRate:48000.0]);
    ProcessorState* first = [adapter handle];
    ASSERT_TRUE([adapter createStemSeparator:[NSArray arrayWithObject:text(path)]
                               numOfChannels:1
                                  sampleRate:48000.0]);
    EXPECT_NE([adapter handle], first);
    EXPECT_EQ(zevrantGetNumOfOutputBusses(first), 2);  // still alive
    zevrantDeleteProcessor(first);

    ProcessorState* second = [adapter handle];
    EXPECT_FALSE([adapter createProcessor:text("") numOfChannels:2 sampleRate:48000.0]);
    EXPECT_EQ([adapter handle], nullptr);
    zevrantDeleteProcessor(second);
    [adapter release];
}

TEST_F(EngineAdapterObjCTest, isSafeToUseWithoutAProcessor) {
    EngineAdapterObjC* adapter = [[EngineAdapterObjC alloc] initWithModelFilepath:text(path)
                                                                    numOfChannels:2
                                                                       sampleRate:48000.0];
    [adapter close];
    [adapter close];
    const float* channels[] = {rows[0].data(), rows[1].data()};
    float untouched = 7.0f;
    float* const out[] = {&untouched, &untouched};
    [adapter addAudio:channels numOfSamples:length];
    [adapter addAudioInterleaved:interleaved.data() numOfSamples:length];
    EXPECT_EQ([adapter getNumOfPendingSamples], 0);
    EXPECT_FALSE([adapter getAudio:out numOfSamples:1]);
    EXPECT_FALSE([adapter getAudioInterleaved:&untouched numOfSamples:0]);
    EXPECT_EQ(untouched, 7.0f);
    [adapter resetProcessorState];
    [adapter setParameterFor:256 to:0.5f];
    EXPECT_EQ([adapter getParameterValueFor:256], 0.0f);
    const ProcessorInfo cleared = {}, info = [adapter getProcessorInfo];
    EXPECT_EQ(std::memcmp(&info, &cleared, sizeof info), 0);
    [adapter release];
}

}  // namespace
