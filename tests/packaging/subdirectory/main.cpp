// A host that looks inside: it links the static engine and calls the C interface and a class of the engine.
#include "DspCore/AudioFormat.h"
#include "interface/zevrant.h"

int main() {
    if (zevrantCreateProcessor("no-such-file.model", 2, 48000.0)) return 1;
    zevrant::AudioFormat format;
    format.createDefaultChannelMapping(2);
    return format.sampleRate == 0.0 ? 0 : 2;
}
