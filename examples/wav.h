/* WAV files for the examples: reads integers of 16, 24 and 32 bits and floats of 32, writes floats. */
#ifndef WAV_H
#define WAV_H

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

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

#endif
