#import <Foundation/Foundation.h>

#include "zevrant.h"

/// A processor for Objective-C hosts: one handle of zevrant.h, and a method for each of its functions.
///
/// Without a handle every method is safe: it does nothing and answers 0, NO or a cleared record. Arguments,
/// units, ranges and threads are those of the function that a method forwards to. An adapter that is
/// released closes itself.
@interface EngineAdapterObjC : NSObject {
  @protected
    struct ProcessorState* handle;  // null while no processor exists
}

/// Opens a processor on one model file, or on several; nil when that fails. The paths may come in any
/// collection of strings, in its order.
- (instancetype)initWithModelFilepath:(NSString*)path
                        numOfChannels:(int)numOfChannels
                           sampleRate:(double)sampleRate;
- (instancetype)initWithModelFilepaths:(id<NSFastEnumeration>)paths
                         numOfChannels:(int)numOfChannels
                            sampleRate:(double)sampleRate;

/// The same for an adapter that exists: whether a processor was made. What it held before is forgotten and
/// not deleted, on purpose: a host that reopens calls close first.
- (BOOL)createProcessor:(NSString*)path numOfChannels:(int)numOfChannels sampleRate:(double)sampleRate;
- (BOOL)createStemSeparator:(id<NSFastEnumeration>)paths
              numOfChannels:(int)numOfChannels
                 sampleRate:(double)sampleRate;

/// Deletes the processor. Harmless when there is none.
- (void)close;

- (void)addAudio:(const float**)channels numOfSamples:(int)numOfSamples;
- (void)addAudioInterleaved:(const float*)samples numOfSamples:(int)numOfSamples;
- (int)getNumOfPendingSamples;
- (BOOL)getAudio:(float* const*)channels numOfSamples:(int)numOfSamples;
- (BOOL)getAudioInterleaved:(float*)samples numOfSamples:(int)numOfSamples;
- (void)resetProcessorState;
- (ProcessorInfo)getProcessorInfo;

- (float)getParameterValueFor:(int)parameter;
- (void)setParameterFor:(int)parameter to:(float)value;

@end
