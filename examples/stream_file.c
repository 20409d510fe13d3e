/* Streams a WAV file through a model, block by block, as a host does with its audio device.
 *
 *   stream_file MODEL INPUT.wav OUTPUT.wav [BUS GAIN]
 *
 * Prints the latency and the busses, sets the linear gain of one bus when asked to, and writes what
 * comes out as 32-bit float. The output has the length of the input and lines up with it.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "wav.h"
#include "zevrant.h"

#define BLOCK_SIZE 480
#define BUS_GAIN(bus) (256 + (bus))

/* ---- the host ------------------------------------------------------------------------------- */

static int printProcessor(struct ProcessorState* processor) {
    struct ProcessorInfo info;
    zevrantGetProcessorInfo(processor, &info);
    printf("latency %d samples; the model takes %d channels at %.0f Hz, window %d, hop %d\n",
           (int)info.latency, (int)info.numOfChannels, info.sampleRate, (int)info.windowSize,
           (int)info.hopSize);
    for (int bus = 0; bus < zevrantGetNumOfOutputBusses(processor); ++bus) {
        char name[64];
        zevrantGetOutputBusName(processor, bus, name, (int)sizeof name);
        printf("bus %d: %s, gain %.2f\n", bus, name, zevrantGetParameterValue(processor, BUS_GAIN(bus)));
    }
    return info.latency;
}

/* Writes what is ready, up to numOfFrames, which it counts down; false when writing fails. */
static bool takePending(struct ProcessorState* processor, float* block, size_t numOfChannels, FILE* output,
                        long* numOfFrames) {
    for (;;) {
        const int pending = zevrantGetNumOfPendingSamples(processor);
        int count = *numOfFrames < BLOCK_SIZE ? (int)*numOfFrames : BLOCK_SIZE;
        if (count > pending) count = pending;
        if (count < 1 || !zevrantGetAudioInterleaved(processor, block, count)) return true;
        if (!writeSamples(output, block, (size_t)count * numOfChannels)) return false;
        *numOfFrames -= count;
    }
}

/* Pushes the file and, at its end, as much silence as it takes to get the last of it back. Sample k
 * that comes out belongs to sample k of the file. False when writing fails, or when the processor
 * keeps back more than its latency. */
static bool streamFile(struct ProcessorState* processor, struct WavFile* input, FILE* output, long latency) {
    const size_t numOfChannels = (size_t)input->numOfChannels;
    float* block = malloc(BLOCK_SIZE * numOfChannels * sizeof *block);
    long numOfFrames = input->numOfFrames;
    long mostBlocks = (numOfFrames + latency) / BLOCK_SIZE + 1;
    bool done = block != NULL;
    while (done && numOfFrames > 0 && mostBlocks-- > 0) {
        const size_t numOfRead = (size_t)readWav(input, block, BLOCK_SIZE);
        memset(block + numOfRead * numOfChannels, 0,
               (BLOCK_SIZE - numOfRead) * numOfChannels * sizeof *block);
        zevrantAddAudioInterleaved(processor, block, BLOCK_SIZE);
        done = takePending(processor, block, numOfChannels, output, &numOfFrames);
    }
    free(block);
    return done && numOfFrames == 0;
}

int main(int argc, char** argv) {
    if (argc != 4 && argc != 6) {
        fprintf(stderr, "usage: %s MODEL INPUT.wav OUTPUT.wav [BUS GAIN]\n", argv[0]);
        return 2;
    }
    struct WavFile input;
    if (!openWav(&input, argv[2])) {
        fprintf(stderr, "%s: not a WAV file of 16, 24 or 32 bits\n", argv[2]);
        return 1;
    }
    struct ProcessorState* processor =
        zevrantCreateProcessor(argv[1], input.numOfChannels, (double)input.sampleRate);
    if (!processor) {
        fprintf(stderr, "%s: not a model\n", argv[1]);
        return 1;
    }
    if (argc == 6) zevrantSetParameterValue(processor, BUS_GAIN(atoi(argv[4])), strtof(argv[5], NULL));
    const int latency = printProcessor(processor);

    FILE* output = fopen(argv[3], "wb");
    const long numOfFrames = input.numOfFrames;
    bool done = output && writeWavHeader(output, input.numOfChannels, input.sampleRate, numOfFrames) &&
                streamFile(processor, &input, output, latency);
    if (output && fclose(output) != 0) done = false;
    zevrantDeleteProcessor(processor);
    fclose(input.file);
    if (!done) {
        fprintf(stderr, "%s: cannot be written\n", argv[3]);
        return 1;
    }
    printf("%ld frames written\n", numOfFrames);
    return 0;
}
