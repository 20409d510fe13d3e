/* Plays a minute of noise through each plug-in of a LADSPA file, and tells what it costs on the thread's own
 * clock, which other programs do not slow down.
 *
 *   time-ladspa FILE
 *
 * A line each: label, rate, samples per block, latency in samples, processor time in percent of the sound's,
 * and the slowest block in milliseconds and in percent of its own length. */
#include <dlfcn.h>
#include <ladspa.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { mostPorts = 64, longestBlock = 256 };

static float audio[4][longestBlock], controls[mostPorts];

static double getSeconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

static void play(const LADSPA_Descriptor* descriptor, unsigned long rate, unsigned long size) {
    LADSPA_Handle plugin = descriptor->instantiate(descriptor, rate);
    if (!plugin) return;
    for (unsigned long port = 0; port < descriptor->PortCount; ++port)
        descriptor->connect_port(plugin, port, port < 4 ? audio[port] : &controls[port]);
    descriptor->activate(plugin);
    unsigned random = 1;
    double slowest = 0.0, sum = 0.0;
    for (unsigned long done = 0; done < 60 * rate; done += size) {
        for (unsigned long i = 0; i < 2 * size; ++i) {
            random = random * 1664525u + 1013904223u;
            audio[i % 2][i / 2] = (float)(int)random / 4294967296.0f;
        }
        const double start = getSeconds();
        descriptor->run(plugin, size);
        const double seconds = getSeconds() - start;
        sum += seconds;
        if (seconds > slowest && done > rate) slowest = seconds;
    }
    printf("%-22s %6lu Hz %5lu samples %8.0f latency %6.2f %% %8.2f ms %6.0f %%\n", descriptor->Label, rate,
           size, (double)controls[descriptor->PortCount - 1], 100.0 * sum / 60.0, 1e3 * slowest,
           100.0 * slowest * (double)rate / (double)size);
    descriptor->cleanup(plugin);
}

int main(int argc, char** argv) {
    void* const library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : NULL;
    LADSPA_Descriptor_Function describe = NULL;
    if (library) *(void**)&describe = dlsym(library, "ladspa_descriptor");
    if (!describe) {
        fprintf(stderr, "time-ladspa: no plug-ins\n");
        return 1;
    }
    const unsigned long rates[] = {44100, 48000}, sizes[] = {64, 256};
    for (unsigned long i = 0; describe(i); ++i)
        for (int variant = 0; variant < 4; ++variant)
            play(describe(i), rates[variant / 2], sizes[variant % 2]);
    return 0;
}
