#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "Program.h"
#include "Sound.h"
#include "TestModels.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class StemsTest : public testing::Test {
  protected:
    std::string makeModel(const TestModel& model) {
        describeModel(model).write(folder.getPath("model.zevrant"));
        return folder.getPath("model.zevrant");
    }

    Outcome split(const std::string& input, const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments{
            "stems", input, "-m", folder.getPath("model.zevrant"), "-d", folder.getPath("deep/stems")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        fs::remove_all(folder.getPath("deep"));
        return run(arguments);
    }

    std::vector<Sound> readStems(const std::vector<std::string>& names,
                                 const std::string& extension = ".wav") {
        std::vector<Sound> stems;
        for (const std::string& name : names)
            stems.push_back(read(folder.getPath("deep/stems/" + name + extension)));
        return stems;
    }

    static double calcNullDepth(const std::vector<Sound>& stems, const Sound& input) {
        double difference = 0.0, energy = 0.0;
        for (std::size_t i = 0; i < input.values.size(); ++i) {
            double sum = -input.values[i];
            for (const Sound& stem : stems) sum += stem.values.at(i);
            difference += sum * sum;
            energy += double{input.values[i]} * input.values[i];
        }
        return 10.0 * std::log10(difference / energy);
    }

    static double getNumberBehind(const std::string& text, const std::string& words) {
        return std::stod(text.substr(text.find(words) + words.size()));
    }

    TemporaryFolder folder;
};

// At every rate, converted or not, for masks and spectra, in groups or not: the stems add up to the input,
// and the depth that is printed is the one that the files have.
TEST_F(StemsTest, stemsAddUpToTheInput) {
    const struct {
        int channels, sampleRate, sampleFormat;
        double deepest;
    } inputs[] = {{1, 8000, SF_FORMAT_FLOAT, -120.0},
                  {2, 44100, SF_FORMAT_FLOAT, -120.0},
                  {6, 96000, SF_FORMAT_FLOAT, -120.0},
                  {2, 48000, SF_FORMAT_PCM_24, -115.0},
                  {2, 48000, SF_FORMAT_PCM_16, -70.0}};
    for (const int mode : {0, 1}) {
        makeModel({.channels = 2, .delay = 2, .processingMode = mode, .busGains = {0.6f, 0.3f}});
        for (const auto& [channels, sampleRate, sampleFormat, deepest] : inputs)
            for (const auto& options : std::vector<std::vector<std::string>>{
                     {}, {"--resample", "--block", "501"}, {"--split", "2", "--no-extrapolation"}}) {
                SCOPED_TRACE(testing::Message() << "mode " << mode << ", " << channels << " channels at "
                                                << sampleRate << ", " << testing::PrintToString(options));
                const Sound noise = makeNoise(channels, sampleRate, SF_FORMAT_WAV | sampleFormat, 7001);
                const std::string input = write(folder.getPath("in.wav"), noise);
                const Outcome outcome = split(input, options);
                ASSERT_EQ(outcome.status, 0) << outcome.err;
                EXPECT_EQ(outcome.err, "");
                const auto stems = readStems({"Bus 0", "Bus 1", "Residual"});
                for (const Sound& stem : stems) {
                    EXPECT_EQ(stem.channels, channels);
                    EXPECT_EQ(stem.sampleRate, sampleRate);
                    EXPECT_EQ(stem.format, noise.format);
                    ASSERT_EQ(stem.length(), 7001);
                    EXPECT_GT(calcDifference(stem, noise, 0.0), -40.0) << "a stem is as good as silent";
                }
                const double depth = calcNullDepth(stems, read(input));
                EXPECT_LT(depth, deepest);
                EXPECT_NEAR(getNumberBehind(outcome.out, "null depth: "), depth, depth < -130.0 ? 6.0 : 0.1);
            }
    }
}

// A stem is what processing gives when all other busses are silent.
TEST_F(StemsTest, aStemIsItsBusAlone) {
    const std::string model = makeModel({.channels = 1, .delay = 1, .busGains = {0.6f, 0.3f}});
    const Sound noise = makeNoise(2, 44100, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 6000);
    const std::string input = write(folder.getPath("in.flac"), noise);
    for (const auto& options : std::vector<std::vector<std::string>>{
             {},
             {"--resample"},
             {"--sensitivity", "Bus 1=50", "--sensitivity", "Residual=-20", "--split", "1"}}) {
        const Outcome outcome = split(input, options);
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const auto stems = readStems({"Bus 0", "Bus 1", "Residual"}, ".flac");
        for (int bus = 0; bus < 3; ++bus) {
            std::vector<std::string> arguments{
                "process",          input, "-m", model, "-o", folder.getPath("solo.flac"), "--solo",
                std::to_string(bus)};
            arguments.insert(arguments.end(), options.begin(), options.end());
            ASSERT_EQ(run(arguments).status, 0);
            EXPECT_LT(calcDifference(stems[static_cast<std::size_t>(bus)], read(folder.getPath("solo.flac"))),
                      -105.0)
                << "bus " << bus << ", " << testing::PrintToString(options);
        }
    }
}

TEST_F(StemsTest, fileNamesAreSafeAndTellBussesApart) {
    const std::vector<std::string> names{"../up", "",       "..",    ".hidden",         "-rf", "a/b", "A/B",
                                         "a:b",   "x\n\ty", "dot. ", "Stimmen \xC3\xBC"};
    std::vector<float> gains(names.size() - 1, 0.05f);
    makeModel({.busGains = gains, .names = names});
    const std::string input =
        write(folder.getPath("in.wav"), makeNoise(1, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 500));
    const Outcome outcome = split(input);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder.getPath("deep")))
        if (entry.is_regular_file()) {
            EXPECT_EQ(entry.path().parent_path(), folder.getPath("deep/stems"));
            found.insert(entry.path().filename().string());
        }
    EXPECT_THAT(found, testing::UnorderedElementsAre("_.._up.wav", "bus.wav", "bus-2.wav", "_.hidden.wav",
                                                     "_-rf.wav", "a_b.wav", "A_B-2.wav", "a_b-3.wav",
                                                     "x__y.wav", "dot.wav", "Stimmen \xC3\xBC.wav"));
}

TEST_F(StemsTest, formatsAreTheInputsUnlessAskedFor) {
    makeModel({});
    const std::string input =
        write(folder.getPath("in.flac"), makeNoise(1, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 500));
    ASSERT_EQ(split(input).status, 0);
    EXPECT_EQ(readStems({"Residual"}, ".flac")[0].format, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    ASSERT_EQ(split(input, {"--format", "wav", "--sample-format", "float"}).status, 0);
    EXPECT_EQ(readStems({"Residual"})[0].format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
}

// A long window with a longer transform comes out too loud, on purpose of the engine, and the check finds it.
TEST_F(StemsTest, stemsThatDoNotAddUpAreTold) {
    makeModel({.fftSize = 512, .windowSize = 256, .hopSize = 64});
    const std::string input =
        write(folder.getPath("in.wav"), makeNoise(1, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 3000));
    const Outcome outcome = split(input);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("do not add up"));
    EXPECT_EQ(readStems({"Residual"})[0].length(), 3000);
}

}  // namespace
}  // namespace zevrant
