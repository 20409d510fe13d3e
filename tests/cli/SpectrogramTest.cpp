#include <gtest/gtest.h>

#include <cairo.h>

#include <cmath>
#include <memory>

#include "Program.h"
#include "Sound.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

// A picture as anyone who opens the file sees it.
class Png {
  public:
    explicit Png(const std::string& path)
        : surface(cairo_image_surface_create_from_png(path.c_str()), cairo_surface_destroy) {
        EXPECT_EQ(cairo_surface_status(surface.get()), CAIRO_STATUS_SUCCESS);
    }

    int width() const { return cairo_image_surface_get_width(surface.get()); }
    int height() const { return cairo_image_surface_get_height(surface.get()); }

    // Brightness to the eye, 0 to 255 (Rec. 709 weights on coded values).
    double getBrightness(int x, int y) const {
        const unsigned char* row =
            cairo_image_surface_get_data(surface.get()) + y * cairo_image_surface_get_stride(surface.get());
        const unsigned char* pixel = row + 4 * x;  // blue, green, red
        return 0.0722 * pixel[0] + 0.7152 * pixel[1] + 0.2126 * pixel[2];
    }

    int findBrightestRow(int x, int top, int bottom) const {
        int brightest = top;
        for (int y = top; y < bottom; ++y)
            if (getBrightness(x, y) > getBrightness(x, brightest)) brightest = y;
        return brightest;
    }

  private:
    std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)> surface;
};

// Where the plot lies: the margins are part of what the picture promises to the eye.
constexpr int left = 66, right = 84, top = 8 + 26, panelDistance = 26, bottom = 46;

class SpectrogramTest : public testing::Test {
  protected:
    // A sine in the first half of a second or two, silence after it.
    std::string makeTone(const std::string& name, double frequency, int sampleRate, double seconds) {
        Sound sound{2, sampleRate};
        const int length = static_cast<int>(seconds * sampleRate);
        for (int i = 0; i < 2 * length; ++i)
            sound.values.push_back(
                i / 2 < length / 2
                    ? static_cast<float>(0.5 * std::sin(2.0 * M_PI * frequency * (i / 2) / sampleRate))
                    : 0.0f);
        return write(folder.getPath(name), sound);
    }

    TemporaryFolder folder;
};

TEST_F(SpectrogramTest, tonesAppearAtTheirTimeAndFrequency) {
    const std::string high = makeTone("high.wav", 3000.0, 48000, 2.0),
                      low = makeTone("low.wav", 440.0, 16000, 1.0);
    constexpr int width = 800, panelHeight = 200;
    for (const bool isLinear : {false, true}) {
        std::vector<std::string> arguments{"spectrogram", high,  low,        "-o",  folder.getPath("out.png"),
                                           "--width",     "800", "--height", "200", "--max-frequency",
                                           "10000"};
        if (isLinear) arguments.push_back("--linear");
        const Outcome outcome = run(arguments);
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const Png png(folder.getPath("out.png"));
        EXPECT_EQ(png.width(), width);
        EXPECT_EQ(png.height(), 8 + 2 * (panelDistance + panelHeight) + bottom);

        const int plotWidth = width - left - right;
        for (const int panel : {0, 1}) {
            const double frequency = panel == 0 ? 3000.0 : 440.0;
            const double position =
                isLinear ? frequency / 10000.0 : std::log(frequency / 40.0) / std::log(10000.0 / 40.0);
            const int panelTop = top + panel * (panelDistance + panelHeight);
            const double endOfTone = (panel == 0 ? 0.5 : 0.25) * plotWidth;
            const auto inTone = static_cast<int>(left + 0.5 * endOfTone),
                       behind = static_cast<int>(left + 1.3 * endOfTone);
            const int row = png.findBrightestRow(inTone, panelTop, panelTop + panelHeight);
            EXPECT_NEAR(row - panelTop, (1.0 - position) * panelHeight, 2.5) << panel << isLinear;
            EXPECT_GT(png.getBrightness(inTone, row), 200.0);
            EXPECT_LT(png.getBrightness(behind, row), 20.0);
        }
        // The shorter sound ends in the middle, and the plain background begins.
        const int lower = top + panelDistance + panelHeight + 100;
        EXPECT_LT(png.getBrightness(left + plotWidth / 2 - 3, lower), 20.0);
        EXPECT_GT(png.getBrightness(left + plotWidth / 2 + 3, lower), 220.0);

        // Colours get brighter all the way up the bar, evenly, and the axes have something written beside
        // them.
        const int barTop = top + 2, barBottom = top + 2 * panelHeight + panelDistance - 3;
        for (int y = barTop; y + 20 < barBottom; y += 20)
            EXPECT_GT(png.getBrightness(left + plotWidth + 26, y),
                      png.getBrightness(left + plotWidth + 26, y + 20) + 2.0);
        int numOfDarkPixels = 0;
        for (int y = top; y < top + panelHeight; ++y)
            for (int x = 20; x < left - 6; ++x) numOfDarkPixels += png.getBrightness(x, y) < 128.0;
        EXPECT_GT(numOfDarkPixels, 100);
    }
}

// The scale is that of a sine: its level stands at the upper end of the bar, raised to 5 dB.
TEST_F(SpectrogramTest, soundsOfAllLengthsAreDrawn) {
    for (const int length : {1, 2, 100, 5000, 200000}) {
        const std::string input =
            write(folder.getPath("in.wav"), makeNoise(1, 44100, SF_FORMAT_WAV | SF_FORMAT_FLOAT, length));
        const Outcome outcome =
            run({"spectrogram", input, "-o", folder.getPath("out.png"), "--width", "500"});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const Png png(folder.getPath("out.png"));
        for (int x = left + 5; x < 500 - right - 5; x += 7)
            EXPECT_GT(png.getBrightness(x, png.findBrightestRow(x, top, top + 240)), 100.0)
                << length << " at " << x;
    }
    write(folder.getPath("none.wav"), Sound{1, 44100});
    EXPECT_EQ(run({"spectrogram", folder.getPath("none.wav"), "-o", folder.getPath("none.png")}).status, 3);
}

}  // namespace
}  // namespace zevrant
