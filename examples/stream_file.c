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

#include "zevrant.h"

#define BLOCK_SIZE 480
#define BUS_GAIN(bus) (256 + (bus))

/* ---- WAV files ------------------------------------------------------------------------------ */

struct WavFile {
    FILE* file;
    int format; /* 1: integer, 3: float */
    int numOfChannels;
    int sampleRate;
    int bytesPerSample;
    long numOfFrames; /* samples per channel that are still to be read */
};

static unsigned getNumber(const unsigned char* bytes, int numOfBytes) {
    unsigned value = 0;
    while (numOfBytes > 0) value = value << 8 | bytes[--numOfBytes];
    return value;
}

static void putNumber(unsigned char* bytes, int numOfBytes, unsigned value) {
    for (int i = 0; i < numOfBytes; ++i) bytes[i] = (unsigned char)(value >> 8 * i & 0xff);
}

/* Reads chunks up to the samples. Knows integers of 16, 24 and 32 bits and floats of 32. */
static bool openWav(struct WavFile* wav, const char* path) {
    unsigned char header[40];
    memset(wav, 0, sizeof *wav);
    wav->file = fopen(path, "rb");
    if (!wav->file || fread(header, 1, 12, wav->file) != 12) return false;
    if (memcmp(header, "RIFF", 4) != 0 || memcmp(header + 8, "WAVE", 4) != 0) return false;
    while (fread(header, 1, 8, wav->file) == 8) {
        const unsigned size = getNumber(header + 4, 4);
        if (memcmp(header, "data", 4) == 0) {
            if (wav->numOfChannels < 1 || wav->sampleRate < 1) return false;
            wav->numOfFrames = (long)(size / (unsigned)(wav->numOfChannels * wav->bytesPerSample));
            return true;
        }
        long rest = (long)size + (long)(size & 1);
        if (memcmp(header, "fmt ", 4) == 0) {
            const size_t numOfBytes = size < sizeof header ? size : sizeof header;
            if (size < 16 || fread(header, 1, numOfBytes, wav->file) != numOfBytes) return false;
            rest -= (long)numOfBytes;
            wav->format = (int)getNumber(header, 2);
            if (wav->format == 0xfffe && size >= 26) wav->format = (int)getNumber(header + 24, 2);
            wav->numOfChannels = (int)getNumber(header + 2, 2);
            wav->sampleRate = (int)getNumber(header + 4, 4);
            wav->bytesPerSample = (int)getNumber(header + 14, 2) / 8;
            const bool isInteger = wav->format == 1 && wav->bytesPerSample >= 2 && wav->bytesPerSample <= 4;
            if (!isInteger && !(wav->format == 3 && wav->bytesPerSample == 4)) return false;
        }
        if (fseek(wav->file, rest, SEEK_CUR) != 0) return false;
    }
    return false;
}

/* One sample from its bytes: integers to -1 up to 1, floats as they are. */
static float decodeSample(const struct WavFile* wav, const unsigned char* bytes) {
    const unsigned bits = getNumber(bytes, wav->bytesPerSample);
    if (wav->format == 3) {
        float value;
        memcpy(&value, &bits, sizeof value);
        return value;
    }
    const int shift = 32 - 8 * wav->bytesPerSample;
    return (float)((double)(int32_t)(bits << shift) / 2147483648.0);
}

/* Reads up to numOfFrames interleaved frames and returns how many there were. */
static int readWav(struct WavFile* wav, float* samples, int numOfFrames) {
    unsigned char bytes[4];
    int frame = 0;
    for (; frame < numOfFrames && wav->numOfFrames > 0; ++frame, --wav->numOfFrames)
        for (int c = 0; c < wav->numOfChannels; ++c) {
            const size_t size = (size_t)wav->bytesPerSample;
            if (fread(bytes, 1, size, wav->file) != size) return frame;
            *samples++ = decodeSample(wav, bytes);
        }
    return frame;
}

static bool writeWavHeader(FILE* file, int numOfChannels, int sampleRate, long numOfFrames) {
    unsigned char header[44];
    const unsigned frameSize = 4u * (unsigned)numOfChannels;
    const unsigned dataSize = frameSize * (unsigned)numOfFrames;
    memcpy(header, "RIFF....WAVEfmt ", 16);
    putNumber(header + 4, 4, 36 + dataSize);
    putNumber(header + 16, 4, 16);
    putNumber(header + 20, 2, 3); /* float */
    putNumber(header + 22, 2, (unsigned)numOfChannels);
    putNumber(header + 24, 4, (unsigned)sampleRate);
    putNumber(header + 28, 4, (unsigned)sampleRate * frameSize);
    putNumber(header + 32, 2, frameSize);
    putNumber(header + 34, 2, 32);
    memcpy(header + 36, "data", 4);
    putNumber(header + 40, 4, dataSize);
    return fwrite(header, 1, sizeof header, file) == sizeof header;
}

static bool writeSamples(FILE* file, const float* samples, size_t count) {
    unsigned char bytes[4];
    for (size_t i = 0; i < count; ++i) {
        uint32_t bits;
        memcpy(&bits, samples + i, sizeof bits);
        putNumber(bytes, 4, bits);
        if (fwrite(bytes, 1, 4, file) != 4) return false;
    }
    return true;
}

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
