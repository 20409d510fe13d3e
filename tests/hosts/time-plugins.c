/* Plays a minute of noise through each plug-in of a LADSPA and of a CLAP file, and tells what it costs on the
 * thread's own clock, which other programs do not slow down.
 *
 *   time-plugins LADSPA_FILE CLAP_FILE
 *
 * A line each: format, name, rate, samples per block, latency in samples, processor time in percent of the
 * sound's, and the slowest block in milliseconds and in percent of its own length. */
#include <dlfcn.h>
#include <ladspa.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "clap/entry.h"
#include "clap/ext/latency.h"
#include "clap/plugin-factory.h"

enum { mostPorts = 64, longestBlock = 256 };

static float audio[4][longestBlock], controls[mostPorts];

static double getSeconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

/* A plug-in under some format: what runs a block of it. */
typedef void Run(const void* plugin, unsigned long size);

static void play(const char* format, const char* name, Run* run, const void* plugin, unsigned long rate,
                 unsigned long size, double latency) {
    unsigned random = 1;
    double slowest = 0.0, sum = 0.0;
    for (unsigned long done = 0; done < 60 * rate; done += size) {
        for (unsigned long i = 0; i < 2 * size; ++i) {
            random = random * 1664525u + 1013904223u;
            audio[i % 2][i / 2] = (float)(int)random / 4294967296.0f;
        }
        const double start = getSeconds();
        run(plugin, size);
        const double seconds = getSeconds() - start;
        sum += seconds;
        if (seconds > slowest && done > rate) slowest = seconds;
    }
    printf("%-7s %-29s %6lu Hz %5lu samples %8.0f latency %6.2f %% %8.2f ms %6.0f %%\n", format, name, rate,
           size, latency, 100.0 * sum / 60.0, 1e3 * slowest, 100.0 * slowest * (double)rate / (double)size);
    fflush(stdout);
}

typedef struct {
    const LADSPA_Descriptor* descriptor;
    LADSPA_Handle handle;
} Ladspa;

static void runLadspa(const void* plugin, unsigned long size) {
    const Ladspa* ladspa = plugin;
    ladspa->descriptor->run(ladspa->handle, size);
}

static void playLadspa(const LADSPA_Descriptor* descriptor, unsigned long rate, unsigned long size) {
    const Ladspa ladspa = {descriptor, descriptor->instantiate(descriptor, rate)};
    if (!ladspa.handle) return;
    for (unsigned long port = 0; port < descriptor->PortCount; ++port)
        descriptor->connect_port(ladspa.handle, port, port < 4 ? audio[port] : &controls[port]);
    descriptor->activate(ladspa.handle);
    runLadspa(&ladspa, 0); /* fills the latency */
    play("LADSPA", descriptor->Label, runLadspa, &ladspa, rate, size,
         (double)controls[descriptor->PortCount - 1]);
    descriptor->cleanup(ladspa.handle);
}

static const void* getNothing(const clap_host_t* host, const char* name) {
    return (void)host, (void)name, NULL;
}
static void ignore(const clap_host_t* host) {
    (void)host;
}
static uint32_t countNone(const clap_input_events_t* events) {
    return (void)events, 0;
}
static const clap_event_header_t* getNone(const clap_input_events_t* events, uint32_t index) {
    return (void)events, (void)index, NULL;
}
static bool refuse(const clap_output_events_t* events, const clap_event_header_t* event) {
    return (void)events, (void)event, false;
}

static void runClap(const void* plugin, unsigned long size) {
    float* inputs[] = {audio[0], audio[1]};
    float* outputs[] = {audio[2], audio[3]};
    const clap_audio_buffer_t in = {.data32 = inputs, .channel_count = 2};
    clap_audio_buffer_t out = {.data32 = outputs, .channel_count = 2};
    const clap_input_events_t changes = {NULL, countNone, getNone};
    const clap_output_events_t reports = {NULL, refuse};
    const clap_process_t block = {.steady_time = -1,
                                  .frames_count = (uint32_t)size,
                                  .audio_inputs = &in,
                                  .audio_outputs = &out,
                                  .audio_inputs_count = 1,
                                  .audio_outputs_count = 1,
                                  .in_events = &changes,
                                  .out_events = &reports};
    ((const clap_plugin_t*)plugin)->process(plugin, &block);
}

static void playClap(const clap_plugin_factory_t* factory, uint32_t index, unsigned long rate,
                     unsigned long size) {
    const clap_host_t host = {CLAP_VERSION_INIT, NULL,   "time-plugins", "",    "", "1",
                              getNothing,        ignore, ignore,         ignore};
    const clap_plugin_descriptor_t* descriptor = factory->get_plugin_descriptor(factory, index);
    const clap_plugin_t* plugin = factory->create_plugin(factory, &host, descriptor->id);
    if (!plugin || !plugin->init(plugin) || !plugin->activate(plugin, (double)rate, 1, longestBlock)) return;
    const clap_plugin_latency_t* latency = plugin->get_extension(plugin, CLAP_EXT_LATENCY);
    plugin->start_processing(plugin);
    play("CLAP", descriptor->id, runClap, plugin, rate, size, latency ? (double)latency->get(plugin) : -1.0);
    plugin->stop_processing(plugin);
    plugin->deactivate(plugin);
    plugin->destroy(plugin);
}

static void* find(const char* file, const char* name) {
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    void* const found = library ? dlsym(library, name) : NULL;
    if (!found) {
        fprintf(stderr, "time-plugins: no plug-ins in %s\n", file);
        exit(1);
    }
    return found;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    LADSPA_Descriptor_Function describe;
    *(void**)&describe = find(argv[1], "ladspa_descriptor");
    const clap_plugin_entry_t* entry = find(argv[2], "clap_entry");
    if (!entry->init(argv[2])) return 1;
    const clap_plugin_factory_t* factory = entry->get_factory(CLAP_PLUGIN_FACTORY_ID);
    const unsigned long rates[] = {44100, 48000}, sizes[] = {64, 256};
    for (int variant = 0; variant < 4; ++variant) {
        for (unsigned long i = 0; describe(i); ++i)
            playLadspa(describe(i), rates[variant / 2], sizes[variant % 2]);
        for (uint32_t i = 0; i < factory->get_plugin_count(factory); ++i)
            playClap(factory, i, rates[variant / 2], sizes[variant % 2]);
    }
    entry->deinit();
    return 0;
}
