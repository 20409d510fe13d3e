/* Separates a WAV file into one file per bus, block by block, at the file's own sample rate.
 *
 *   stream_stems MODEL INPUT.wav PREFIX
 *
 * MODEL is a path or the name of an installed model. Bus 0 goes to PREFIX0.wav and so on, as 32-bit
 * floats that line up with the input and add up to it.
 */
#include <stdio.h>
#include <stdlib.h>

#include "wav.h"
#include "zevrant_separation.h"

#define BLOCK_SIZE 480
#define MOST_BUSSES 16

static int fail(const ZevrantSeparation* separation) {
    char text[512];
    zevrantSeparationGetLastError(separation, text, sizeof text);
    fprintf(stderr, "%s\n", text);
    return 1;
}

/* Takes what is pending, leaves the first *numOfSilent samples out, and writes each bus to its file. */
static bool writePending(ZevrantSeparation* separation, float* block, int numOfChannels, FILE** outputs,
                         int numOfBusses, int* numOfSilent) {
    for (int count; (count = zevrantSeparationGetNumOfPendingSamples(separation)) > 0;) {
        if (count > BLOCK_SIZE) count = BLOCK_SIZE;
        if (*numOfSilent > 0 && count > *numOfSilent) count = *numOfSilent;
        if (zevrantSeparationTakeInterleaved(separation, block, count) != ZEVRANT_SEPARATION_OK) return false;
        const bool isSilent = *numOfSilent > 0;
        if (isSilent) *numOfSilent -= count;
        for (int i = 0; i < count && !isSilent; ++i)
            for (int bus = 0; bus < numOfBusses; ++bus) {
                const float* frame = block + (i * numOfBusses + bus) * numOfChannels;
                if (!writeSamples(outputs[bus], frame, (size_t)numOfChannels)) return false;
            }
    }
    return true;
}

int main(int argc, char** argv) {
    struct WavFile input;
    if (argc != 4 || !openWav(&input, argv[2])) {
        fprintf(stderr, "usage: %s MODEL INPUT.wav PREFIX, with a WAV file of 16, 24 or 32 bits\n", argv[0]);
        return 2;
    }
    const ZevrantSeparationOptions options = {.size = sizeof options,
                                              .model = argv[1],
                                              .sampleRate = input.sampleRate,
                                              .numOfChannels = input.numOfChannels,
                                              .longestBlock = BLOCK_SIZE,
                                              .output = ZEVRANT_SEPARATION_BUSSES};
    ZevrantSeparation* separation;
    if (zevrantSeparationOpen(&options, &separation) != ZEVRANT_SEPARATION_OK) {
        const int status = fail(separation);
        zevrantSeparationClose(separation);
        return status;
    }
    ZevrantSeparationInfo info = {.size = sizeof info};
    zevrantSeparationGetInfo(separation, &info);
    printf("latency %d samples, %d of them for the conversion of rates\n", (int)info.latency,
           (int)info.conversionLatency);

    FILE* outputs[MOST_BUSSES] = {NULL};
    bool isWritten = true;
    for (int bus = 0; bus < info.numOfBusses; ++bus) {
        char name[64], path[4096];
        zevrantSeparationGetBusName(separation, bus, name, sizeof name);
        snprintf(path, sizeof path, "%s%d.wav", argv[3], bus);
        printf("%s: %s\n", path, name);
        outputs[bus] = fopen(path, "wb");
        isWritten = isWritten && outputs[bus] &&
                    writeWavHeader(outputs[bus], input.numOfChannels, input.sampleRate, input.numOfFrames);
    }

    float* block = malloc(BLOCK_SIZE * (size_t)info.numOfOutputChannels * sizeof *block);
    int numOfSilent = info.latency;
    bool isPlaying = block && isWritten;
    while (isPlaying) {
        const int count = readWav(&input, block, BLOCK_SIZE);
        if (count == 0) zevrantSeparationFlush(separation);
        isPlaying = count > 0;
        if (isPlaying && zevrantSeparationAddInterleaved(separation, block, count) != ZEVRANT_SEPARATION_OK)
            fail(separation);
        if (!writePending(separation, block, input.numOfChannels, outputs, info.numOfBusses, &numOfSilent))
            isWritten = isPlaying = false;
    }
    for (int bus = 0; bus < info.numOfBusses; ++bus)
        if (outputs[bus] && fclose(outputs[bus]) != 0) isWritten = false;
    free(block);
    zevrantSeparationClose(separation);
    fclose(input.file);
    if (!isWritten) fprintf(stderr, "%s: the stems cannot be written\n", argv[3]);
    return isWritten ? 0 : 1;
}
