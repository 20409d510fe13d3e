// The LADSPA plug-ins as a host has them: loaded from their file, port by port.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <ladspa.h>

#include <map>
#include <set>

#include "plugins/AudioThread.h"
#include "plugins/PluginHost.h"

namespace zevrant {
namespace {

class LadspaTest : public testing::Test {
  protected:
    void SetUp() override {
        library = dlopen(LADSPA_FILE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        describe = reinterpret_cast<LADSPA_Descriptor_Function>(dlsym(library, "ladspa_descriptor"));
        ASSERT_NE(describe, nullptr);
    }
    void TearDown() override { dlclose(library); }

    void* library = nullptr;
    LADSPA_Descriptor_Function describe = nullptr;
};

// Projects hold labels, numbers and names of ports.
TEST_F(LadspaTest, namesAndNumbersStay) {
    std::map<std::string, std::vector<std::string>> found;
    std::set<unsigned long> numbers;
    for (unsigned long i = 0; const LADSPA_Descriptor* descriptor = describe(i); ++i) {
        auto& names = found[descriptor->Label];
        EXPECT_TRUE(numbers.insert(descriptor->UniqueID).second);
        EXPECT_LT(descriptor->UniqueID, 1u << 24);
        names.push_back(std::to_string(descriptor->UniqueID));
        for (unsigned long port = 0; port < descriptor->PortCount; ++port)
            names.emplace_back(descriptor->PortNames[port]);
        EXPECT_THAT(descriptor->Name, testing::StartsWith("Zevrant "));
    }
    EXPECT_EQ(found.size(), plugins::getShippedModels().size());
    const auto makeNames = [](const std::string& number, const std::string& bus,
                              const std::string& residual) {
        return std::vector<std::string>{number,
                                        "Input left",
                                        "Input right",
                                        "Output left",
                                        "Output right",
                                        bus + " level",
                                        residual + " level",
                                        bus + " sensitivity",
                                        residual + " sensitivity",
                                        "Bypass",
                                        "latency"};
    };
    EXPECT_EQ(found["center-sides"], makeNames("12559001", "Center", "Sides"));
    EXPECT_EQ(found["drums"], makeNames("3548986", "Drums", "Rest"));
    EXPECT_EQ(found["harmonic-percussive"], makeNames("13045232", "Harmonic", "Percussive"));
    EXPECT_EQ(found["hiss-reduction"], makeNames("15983248", "Clean", "Noise"));
    EXPECT_EQ(found["speech"], makeNames("9220311", "Speech", "Background"));
}

TEST_F(LadspaTest, playsWhatTheSeparationGives) {
    for (unsigned long i = 0; const LADSPA_Descriptor* descriptor = describe(i); ++i)
        for (double rate : {44100.0, 48000.0}) {
            SCOPED_TRACE(testing::Message() << descriptor->Label << " at " << rate << " Hz");
            const int length = 32000;
            const Audio in = makeNoise(2, length, 1);
            Audio out = in;  // in place
            std::vector<float> controls(descriptor->PortCount);
            controls[4] = -12.0f;
            LADSPA_Handle plugin = descriptor->instantiate(descriptor, static_cast<unsigned long>(rate));
            ASSERT_NE(plugin, nullptr);
            const auto connect = [&](int start) {
                for (unsigned long port = 0; port < descriptor->PortCount; ++port)
                    descriptor->connect_port(plugin, port,
                                             port < 4 ? out[port % 2].data() + start : &controls[port]);
            };
            const float& latency = controls.back();
            const Separated expected =
                separate(descriptor->Label, in, rate, separation::Output::Mix, {-12.0f});
            for (int round = 0; round < 2; ++round) {
                out = in;
                descriptor->activate(plugin);
                connect(0);
                descriptor->run(plugin, 0);
                EXPECT_EQ(latency, static_cast<float>(expected.latency));
                const Watch watch = runOnAudioThread([&] {
                    for (int start = 0, size = 32; start < length; start += size, size = size % 1024 + 31) {
                        size = std::min(size, length - start);
                        connect(start);
                        descriptor->run(plugin, static_cast<unsigned long>(size));
                    }
                });
                EXPECT_TRUE(isQuiet(watch));
                EXPECT_EQ(out, expected.audio);
            }
            controls[controls.size() - 2] = 1.0f;  // bypass
            descriptor->activate(plugin);
            out = in;
            connect(0);
            descriptor->run(plugin, length);
            for (std::size_t k = static_cast<std::size_t>(latency); k < length; ++k)
                ASSERT_EQ(out[1][k], in[1][k - static_cast<std::size_t>(latency)]);
            descriptor->cleanup(plugin);
        }
}

}  // namespace
}  // namespace zevrant
