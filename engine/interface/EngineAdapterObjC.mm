// References are counted by hand here, whatever the host uses: GNUstep with g++ knows no other way.
#import "interface/EngineAdapterObjC.h"

#include <string>
#include <vector>

namespace {

std::string toUtf8(NSString* text) {
    const char* characters = [text UTF8String];
    return characters ? characters : "";
}

// The strings of a collection by fast enumeration, in its order. The protocol's one method is called
// directly, because Objective-C++ has no for-in with every compiler.
std::vector<std::string> copyStrings(id<NSFastEnumeration> collection) {
    std::vector<std::string> copies;
    NSFastEnumerationState state = {};
    id buffer[16];
    while (const NSUInteger count = [collection countByEnumeratingWithState:&state objects:buffer count:16])
        for (NSUInteger i = 0; i < count; ++i) copies.push_back(toUtf8(state.itemsPtr[i]));
    return copies;
}

}  // namespace

@implementation EngineAdapterObjC

- (instancetype)initWithModelFilepath:(NSString*)path
                        numOfChannels:(int)numOfChannels
                           sampleRate:(double)sampleRate {
    self = [super init];
    if (self && ![self createProcessor:path numOfChannels:numOfChannels sampleRate:sampleRate]) {
        [self release];
        return nil;
    }
    return self;
}

- (instancetype)initWithModelFilepaths:(id<NSFastEnumeration>)paths
                         numOfChannels:(int)numOfChannels
                            sampleRate:(double)sampleRate {
    self = [super init];
    if (self && ![self createStemSeparator:paths numOfChannels:numOfChannels sampleRate:sampleRate]) {
        [self release];
        return nil;
    }
    return self;
}

- (void)dealloc {
    [self close];
    [super dealloc];
}

- (BOOL)createProcessor:(NSString*)path numOfChannels:(int)numOfChannels sampleRate:(double)sampleRate {
    handle = zevrantCreateProcessor(toUtf8(path).c_str(), numOfChannels, sampleRate);
    return handle != nullptr;
}

- (BOOL)createStemSeparator:(id<NSFastEnumeration>)paths
              numOfChannels:(int)numOfChannels
                 sampleRate:(double)sampleRate {
    const std::vector<std::string> copies = copyStrings(paths);  // alive until the call returns
    std::vector<const char*> pointers;
    for (const std::string& copy : copies) pointers.push_back(copy.c_str());
    handle = zevrantCreateStemSeparator(static_cast<int>(pointers.size()), pointers.data(), numOfChannels,
                                        sampleRate);
    return handle != nullptr;
}

- (void)close {
    zevrantDeleteProcessor(handle);
    handle = nullptr;
}

- (void)addAudio:(const float**)channels numOfSamples:(int)numOfSamples {
    if (handle) zevrantAddAudio(handle, channels, numOfSamples);
}

- (void)addAudioInterleaved:(const float*)samples numOfSamples:(int)numOfSamples {
    if (handle) zevrantAddAudioInterleaved(handle, samples, numOfSamples);
}

- (int)getNumOfPendingSamples {
    return handle ? zevrantGetNumOfPendingSamples(handle) : 0;
}

- (BOOL)getAudio:(float* const*)channels numOfSamples:(int)numOfSamples {
    return handle && zevrantGetAudio(handle, channels, numOfSamples);
}

- (BOOL)getAudioInterleaved:(float*)samples numOfSamples:(int)numOfSamples {
    return handle && zevrantGetAudioInterleaved(handle, samples, numOfSamples);
}

- (void)resetProcessorState {
    if (handle) zevrantResetProcessorState(handle);
}

- (ProcessorInfo)getProcessorInfo {
    ProcessorInfo info = {};
    if (handle) zevrantGetProcessorInfo(handle, &info);
    return info;
}

- (float)getParameterValueFor:(int)parameter {
    return handle ? zevrantGetParameterValue(handle, parameter) : 0.0f;
}

- (void)setParameterFor:(int)parameter to:(float)value {
    if (handle) zevrantSetParameterValue(handle, parameter, value);
}

@end
