#include "cli/SpectrogramPicture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>

#include <cairo.h>

#include "cli/Failure.h"

namespace zevrant::cli {

namespace {

constexpr double ink = 0.15;       // grey of text and axes
constexpr double fontSize = 12.0;  // pixels

struct CairoDeleter {
    void operator()(cairo_t* context) const { cairo_destroy(context); }
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, CairoDeleter>;
using Context = std::unique_ptr<cairo_t, CairoDeleter>;

Surface makeSurface(int width, int height) {
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS)
        throw Failure(ExitStatus::WrongUsage, "a picture of " + std::to_string(width) + " x " +
                                                  std::to_string(height) + " pixels cannot be drawn");
    return surface;
}

// ---- colours -----------------------------------------------------------------------------------

struct LinearColour {
    double red, green, blue;
    bool isInRange() const {
        return std::min({red, green, blue}) >= 0.0 && std::max({red, green, blue}) <= 1.0;
    }
};

LinearColour fromOklab(double lightness, double a, double b) {
    const double l = std::pow(lightness + 0.3963377774 * a + 0.2158037573 * b, 3.0);
    const double m = std::pow(lightness - 0.1055613458 * a - 0.0638541728 * b, 3.0);
    const double s = std::pow(lightness - 0.0894841775 * a - 1.2914855480 * b, 3.0);
    return {4.0767416621 * l - 3.3077115913 * m + 0.2309699292 * s,
            -1.2684380046 * l + 2.6097574011 * m - 0.3413193965 * s,
            -0.0041960863 * l - 0.7034186147 * m + 1.7076147010 * s};
}

std::uint32_t toByte(double linear) {
    const double value = std::clamp(linear, 0.0, 1.0);
    const double coded = value <= 0.0031308 ? 12.92 * value : 1.055 * std::pow(value, 1.0 / 2.4) - 0.055;
    return static_cast<std::uint32_t>(std::lround(255.0 * coded));
}

// ---- axes --------------------------------------------------------------------------------------

// The step of 1, 2 or 5 times a power of ten that puts marks no nearer than least.
double chooseStep(double least) {
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (factor * power >= least * 0.999) return factor * power;
    return 10.0 * power;
}

// Steps of a clock where marks lie more than a few seconds apart.
double chooseTimeStep(double least) {
    if (least <= 10.0) return chooseStep(least);
    for (const double step : {15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0})
        if (step >= least) return step;
    return 3600.0 * std::ceil(least / 3600.0);
}

std::string formatTime(double time, double step) {
    char text[32];
    if (step >= 15.0)
        std::snprintf(text, sizeof text, "%d:%02d", static_cast<int>(time) / 60, static_cast<int>(time) % 60);
    else
        std::snprintf(text, sizeof text, "%.*f",
                      step >= 1.0 ? 0 : static_cast<int>(std::ceil(-std::log10(step))), time);
    return text;
}

std::string formatFrequency(double frequency) {
    char text[32];
    if (frequency >= 1000.0)
        std::snprintf(text, sizeof text, "%gk", frequency / 1000.0);
    else
        std::snprintf(text, sizeof text, "%g", frequency);
    return text;
}

std::vector<double> chooseFrequencyMarks(const FrequencyScale& scale, int panelHeight) {
    std::vector<double> marks;
    if (scale.isLogarithmic) {
        for (double decade = 1.0; decade <= scale.highest; decade *= 10.0)
            for (const double factor : {1.0, 2.0, 5.0})
                if (factor * decade >= scale.lowest && factor * decade <= scale.highest)
                    marks.push_back(factor * decade);
        return marks;
    }
    const double step = chooseStep((scale.highest - scale.lowest) * 28.0 / panelHeight);
    for (double mark = std::ceil(scale.lowest / step) * step; mark <= scale.highest; mark += step)
        marks.push_back(mark);
    return marks;
}

enum class Align { Left, Centre, Right };

class Drawing {
  public:
    Drawing(const SpectrogramPicture& contents, cairo_surface_t* surface)
        : picture(contents),
          context(cairo_create(surface)),
          colours(makeColourMap()),
          plotWidth(SpectrogramPicture::getPlotWidth(contents.width)) {
        cairo_set_source_rgb(get(), 1.0, 1.0, 1.0);
        cairo_paint(get());
        cairo_set_line_width(get(), 1.0);
        cairo_set_font_size(get(), fontSize);
    }

    void draw() {
        const int numOfPanels = static_cast<int>(picture.panels.size());
        for (int i = 0; i < numOfPanels; ++i)
            drawPanel(picture.panels[static_cast<std::size_t>(i)], getPanelTop(i), i + 1 == numOfPanels);
        drawColourBar(getPanelTop(0), getPanelTop(numOfPanels - 1) + picture.panelHeight);
        const int height = SpectrogramPicture::getHeight(numOfPanels, picture.panelHeight);
        write("time in " + std::string(chooseTimeMarks() >= 15.0 ? "minutes" : "seconds"),
              SpectrogramPicture::leftMargin + plotWidth / 2.0, height - 10.0, Align::Centre);
    }

  private:
    cairo_t* get() const { return context.get(); }

    int getPanelTop(int index) const {
        return SpectrogramPicture::topMargin +
               index * (SpectrogramPicture::titleHeight + picture.panelHeight) +
               SpectrogramPicture::titleHeight;
    }

    double chooseTimeMarks() const { return chooseTimeStep(picture.seconds * 70.0 / plotWidth); }

    void write(const std::string& text, double x, double y, Align align, bool isBold = false) {
        cairo_select_font_face(get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                               isBold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
        cairo_text_extents_t extents;
        cairo_text_extents(get(), text.c_str(), &extents);
        if (align == Align::Centre) x -= extents.x_advance / 2.0;
        if (align == Align::Right) x -= extents.x_advance;
        cairo_set_source_rgb(get(), ink, ink, ink);
        cairo_move_to(get(), std::round(x), std::round(y));
        cairo_show_text(get(), text.c_str());
    }

    // Along pixel centres, so that lines are sharp.
    void drawLine(double x0, double y0, double x1, double y1) {
        cairo_set_source_rgb(get(), ink, ink, ink);
        cairo_move_to(get(), x0 + 0.5, y0 + 0.5);
        cairo_line_to(get(), x1 + 0.5, y1 + 0.5);
        cairo_stroke(get());
    }

    void drawFrame(double x, double y, double width, double height) {
        cairo_set_source_rgb(get(), ink, ink, ink);
        cairo_rectangle(get(), x - 0.5, y - 0.5, width + 1.0, height + 1.0);
        cairo_stroke(get());
    }

    std::uint32_t getColour(double level) const {
        const double position = 1.0 + (level - picture.highestLevel) / picture.range;
        return colours[static_cast<std::size_t>(std::lround(255.0 * std::clamp(position, 0.0, 1.0)))];
    }

    template <class GetColour>
    void paintPixels(int x, int y, int width, int height, const GetColour& getPixel) {
        const Surface pixels = makeSurface(width, height);
        cairo_surface_flush(pixels.get());
        unsigned char* data = cairo_image_surface_get_data(pixels.get());
        const int stride = cairo_image_surface_get_stride(pixels.get());
        for (int row = 0; row < height; ++row) {
            auto* line = reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(row) * stride);
            for (int column = 0; column < width; ++column) line[column] = getPixel(row, column);
        }
        cairo_surface_mark_dirty(pixels.get());
        cairo_set_source_surface(get(), pixels.get(), x, y);
        cairo_rectangle(get(), x, y, width, height);
        cairo_fill(get());
    }

    void drawPanel(const SpectrogramPanel& panel, int top, bool isLast) {
        const int left = SpectrogramPicture::leftMargin, height = picture.panelHeight;
        write(panel.title, left, top - 8.0, Align::Left, true);
        cairo_set_source_rgb(get(), 0.92, 0.92, 0.92);  // where a shorter sound has ended
        cairo_rectangle(get(), left, top, plotWidth, height);
        cairo_fill(get());
        paintPixels(left, top, std::min(panel.grid.width, plotWidth), height,
                    [&](int row, int column) { return getColour(double{panel.grid.get(row, column)}); });
        drawFrame(left, top, plotWidth, height);

        double lastY = 1e9;
        for (const double mark : chooseFrequencyMarks(picture.scale, height)) {
            const double y = std::round(top + height * (1.0 - picture.scale.toPosition(mark)));
            drawLine(left - 5.0, y, left - 1.0, y);
            if (lastY - y < 13.0) continue;
            write(formatFrequency(mark), left - 8.0, y + 4.0, Align::Right);
            lastY = y;
        }
        cairo_save(get());
        cairo_translate(get(), 14.0, top + height / 2.0);
        cairo_rotate(get(), -1.5707963267948966);
        write("frequency in Hz", 0.0, 0.0, Align::Centre);
        cairo_restore(get());

        const double step = chooseTimeMarks();
        for (int i = 0; i * step <= picture.seconds * 1.0001; ++i) {
            const double x = std::round(left + plotWidth * i * step / picture.seconds);
            drawLine(x, top + height, x, top + height + 4.0);
            if (isLast) write(formatTime(i * step, step), x, top + height + 18.0, Align::Centre);
        }
    }

    void drawColourBar(int top, int bottom) {
        const int left = SpectrogramPicture::leftMargin + plotWidth + 18, height = bottom - top;
        constexpr int barWidth = 16;
        paintPixels(left, top, barWidth, height, [&](int row, int) {
            return getColour(picture.highestLevel - picture.range * (row + 0.5) / height);
        });
        drawFrame(left, top, barWidth, height);
        write("dB", left, top - 8.0, Align::Left, true);
        const double step = std::max(chooseStep(picture.range * 40.0 / height), 5.0);
        const double lowest = picture.highestLevel - picture.range;
        for (double mark = std::ceil(lowest / step) * step; mark <= picture.highestLevel + 1e-9;
             mark += step) {
            const double y = std::round(top + height * (picture.highestLevel - mark) / picture.range);
            drawLine(left + barWidth, y, left + barWidth + 4.0, y);
            char text[16];
            std::snprintf(text, sizeof text, "%.0f", mark + 0.0);
            write(text, left + barWidth + 8.0, y + 4.0, Align::Left);
        }
    }

    const SpectrogramPicture& picture;
    Context context;
    std::array<std::uint32_t, 256> colours;
    int plotWidth;
};

// Takes PNG bytes from cairo. C code stands in between, so an exception waits until that has returned.
struct PngTarget {
    audiofiles::OutputFile& file;
    std::exception_ptr failure;

    static cairo_status_t write(void* closure, const unsigned char* bytes, unsigned int count) {
        auto& target = *static_cast<PngTarget*>(closure);
        try {
            audiofiles::writeFully(target.file.getDescriptor(), bytes, count, target.file.getPath().string());
            return CAIRO_STATUS_SUCCESS;
        } catch (...) {
            target.failure = std::current_exception();
            return CAIRO_STATUS_WRITE_ERROR;
        }
    }
};

}  // namespace

std::array<std::uint32_t, 256> makeColourMap() {
    std::array<std::uint32_t, 256> colours{};
    for (std::size_t i = 0; i < colours.size(); ++i) {
        const double part = static_cast<double>(i) / 255.0;
        const double lightness = 0.10 + 0.88 * part;
        const double hue = (285.0 + 170.0 * std::pow(part, 0.8)) * 3.14159265358979323846 / 180.0;
        double chroma = 0.20 * std::pow(std::sin(3.14159265358979323846 * (0.06 + 0.88 * part)), 0.8);
        while (chroma > 0.0 &&
               !fromOklab(lightness, chroma * std::cos(hue), chroma * std::sin(hue)).isInRange())
            chroma -= 0.002;
        const LinearColour colour = fromOklab(lightness, std::max(chroma, 0.0) * std::cos(hue),
                                              std::max(chroma, 0.0) * std::sin(hue));
        colours[i] = toByte(colour.red) << 16 | toByte(colour.green) << 8 | toByte(colour.blue);
    }
    return colours;
}

void SpectrogramPicture::write(audiofiles::OutputFile& file) const {
    const Surface surface = makeSurface(width, getHeight(static_cast<int>(panels.size()), panelHeight));
    Drawing(*this, surface.get()).draw();
    PngTarget target{file, nullptr};
    const cairo_status_t status = cairo_surface_write_to_png_stream(surface.get(), PngTarget::write, &target);
    if (target.failure) std::rethrow_exception(target.failure);
    if (status != CAIRO_STATUS_SUCCESS)
        throw Failure(ExitStatus::BadOutput, file.getPath().string() + ": " + cairo_status_to_string(status));
}

}  // namespace zevrant::cli
