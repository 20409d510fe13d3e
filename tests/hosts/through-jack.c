/* Plays a recording into two ports of a JACK server and records two others, aligned by the server's own
 * clock, and as fast as the graph can, so that no deadline is missed on a busy machine, or live.
 *
 *   through-jack IN OUT LENGTH SINK SINK SOURCE SOURCE [live]
 *
 * IN and OUT are stereo floats without a header; OUT has LENGTH samples per channel, of which sample k is
 * what came back in the period in which sample k of IN went out. Prints the server's rate and period, and the
 * latency that the first source has told it. */
#include <jack/jack.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { channels = 2 };

static float *played, *recorded;
static long numOfPlayed, length;
static jack_client_t *player, *recorder;
static jack_port_t *outputs[channels], *inputs[channels];
static bool isLive;
static atomic_bool isReady;
static _Atomic unsigned start;           /* frame of the server that is sample 0, live; 0: not yet */
static atomic_long place, numOfRecorded; /* sample that the period starts with */

/* Live, periods may be missed, and the server's clock tells. Otherwise the recorder, which hangs on the
 * player, runs behind it in every period. */
static int play(jack_nframes_t count, void* unused) {
    (void)unused;
    if (!isReady) {
        place = -8 * (long)count;
    } else if (isLive) {
        if (!start) start = jack_last_frame_time(player) + 8 * count;
        place = (long)(int)(jack_last_frame_time(player) - start);
    } else {
        place += (long)count;
    }
    const long first = place;
    for (int c = 0; c < channels; ++c) {
        float* out = jack_port_get_buffer(outputs[c], count);
        for (long i = 0; i < (long)count; ++i) {
            const long k = first + i;
            out[i] = k >= 0 && k < numOfPlayed ? played[k * channels + c] : 0.0f;
        }
    }
    return 0;
}

static int record(jack_nframes_t count, void* unused) {
    (void)unused;
    if (!isReady || (isLive && !start)) return 0;
    const long first = isLive ? (long)(int)(jack_last_frame_time(recorder) - start) : place;
    for (int c = 0; c < channels; ++c) {
        const float* in = jack_port_get_buffer(inputs[c], count);
        for (long i = 0; i < (long)count; ++i)
            if (first + i >= 0 && first + i < length) recorded[(first + i) * channels + c] = in[i];
    }
    numOfRecorded = first + (long)count;
    return 0;
}

static void fail(const char* text) {
    fprintf(stderr, "through-jack: %s\n", text);
    exit(1);
}

static void connect(const char* from, const char* to) {
    for (int attempt = 0; attempt < 100; ++attempt, usleep(100000)) {
        if (jack_port_by_name(recorder, from) && jack_port_by_name(recorder, to) &&
            jack_connect(recorder, from, to) == 0)
            return;
    }
    fprintf(stderr, "through-jack: %s to %s: cannot be connected\n", from, to);
    exit(1);
}

int main(int argc, char** argv) {
    if (argc != 8 && argc != 9) fail("IN OUT LENGTH SINK SINK SOURCE SOURCE [live]");
    length = atol(argv[3]);
    FILE* file = fopen(argv[1], "rb");
    played = calloc((size_t)length * channels, sizeof(float));
    recorded = calloc((size_t)length * channels, sizeof(float));
    if (!file || !played || !recorded) fail("nothing to play, or no memory");
    numOfPlayed = (long)(fread(played, channels * sizeof(float), (size_t)length, file));
    fclose(file);

    player = jack_client_open("player", JackNoStartServer, NULL);
    recorder = jack_client_open("recorder", JackNoStartServer, NULL);
    if (!player || !recorder) fail("no server");
    for (int c = 0; c < channels; ++c) {
        const char* const name = c == 0 ? "left" : "right";
        outputs[c] = jack_port_register(player, name, JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        inputs[c] = jack_port_register(recorder, name, JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
    }
    jack_set_process_callback(player, play, NULL);
    jack_set_process_callback(recorder, record, NULL);
    jack_activate(player);
    jack_activate(recorder);
    for (int c = 0; c < channels; ++c) {
        connect(jack_port_name(outputs[c]), argv[4 + c]);
        connect(argv[6 + c], jack_port_name(inputs[c]));
    }
    sleep(1); /* for the graph to settle */
    jack_recompute_total_latencies(recorder);
    jack_nframes_t told = 0;
    for (jack_latency_callback_mode_t mode = JackCaptureLatency; mode <= JackPlaybackLatency; ++mode) {
        jack_latency_range_t range;
        jack_port_get_latency_range(jack_port_by_name(recorder, argv[6]), mode, &range);
        if (range.max > told) told = range.max;
    }
    printf("%u %u %u\n", jack_get_sample_rate(recorder), jack_get_buffer_size(recorder), told);
    isLive = argc == 9;
    if (!isLive) jack_set_freewheel(recorder, 1);
    isReady = true;
    while (numOfRecorded < length) usleep(50000);
    if (!isLive) jack_set_freewheel(recorder, 0);
    jack_client_close(player);
    jack_client_close(recorder);
    file = fopen(argv[2], "wb");
    if (!file || fwrite(recorded, channels * sizeof(float), (size_t)length, file) != (size_t)length)
        fail("cannot write");
    return fclose(file) != 0;
}
