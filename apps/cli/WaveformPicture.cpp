#include "WaveformPicture.h"

#include <cairo-svg.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "ExitCode.h"
#include "TimeRange.h"

namespace vorrel::cli {
namespace {

constexpr double kMargin = 12.0;
constexpr double kTitleHeight = 30.0;
constexpr double kScaleHeight = 26.0;
constexpr double kTallestStrip = 160.0, kLowestStrip = 60.0;
constexpr double kStripsHeight = 640.0;  // shared by many channels
constexpr std::size_t kMostFigures = 16;

struct Colour {
    double red, green, blue;
};
constexpr Colour kBackground{0.98, 0.98, 0.97};
constexpr Colour kStrip{0.93, 0.94, 0.95};
constexpr Colour kAxis{0.70, 0.72, 0.75};
constexpr Colour kPeaks{0.36, 0.55, 0.75};
constexpr Colour kAverage{0.13, 0.29, 0.48};
constexpr Colour kClipped{0.85, 0.15, 0.15};
constexpr Colour kMark{0.85, 0.45, 0.10};
constexpr Colour kText{0.20, 0.22, 0.25};

/// Gives back what cairo keeps of fonts for a next picture, which there is not. Released last.
struct FontRelease {
    FontRelease() = default;
    ~FontRelease() {
        ::cairo_debug_reset_static_data();
        ::FcFini();
    }
    FontRelease(const FontRelease&) = delete;
    FontRelease& operator=(const FontRelease&) = delete;
};

struct SurfaceRelease {
    void operator()(cairo_surface_t* surface) const { ::cairo_surface_destroy(surface); }
};
struct ContextRelease {
    void operator()(cairo_t* context) const { ::cairo_destroy(context); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceRelease>;
using Context = std::unique_ptr<cairo_t, ContextRelease>;

void Use(cairo_t* context, const Colour& colour) {
    ::cairo_set_source_rgb(context, colour.red, colour.green, colour.blue);
}

void Fill(cairo_t* context, const Colour& colour, double x, double y, double width, double height) {
    Use(context, colour);
    ::cairo_rectangle(context, x, y, width, height);
    ::cairo_fill(context);
}

/// One outline around all columns of a channel, from the tops rightwards and back below.
template <typename Top, typename Bottom>
void FillShape(cairo_t* context, const Colour& colour, std::size_t columns, double left,
               double columnWidth, Top top, Bottom bottom) {
    Use(context, colour);
    for (std::size_t column = 0; column < columns; ++column) {
        const double x = left + columnWidth * static_cast<double>(column);
        ::cairo_line_to(context, x, top(column));
        ::cairo_line_to(context, x + columnWidth, top(column));
    }
    for (std::size_t column = columns; column-- > 0;) {
        const double x = left + columnWidth * static_cast<double>(column);
        ::cairo_line_to(context, x + columnWidth, bottom(column));
        ::cairo_line_to(context, x, bottom(column));
    }
    ::cairo_close_path(context);
    ::cairo_fill(context);
}

void DrawChannel(cairo_t* context, const PeakSummary& peaks, std::size_t channel, double top,
                 double height) {
    const double middle = top + height / 2.0;
    const double scale = height / 2.0 - 1.0;
    const double columnWidth =
        static_cast<double>(kPictureColumns) / static_cast<double>(peaks.Columns());
    Fill(context, kStrip, kMargin, top, kPictureColumns, height);
    Fill(context, kAxis, kMargin, middle - 0.5, kPictureColumns, 1.0);
    // At least a hair, so that silence is seen to be recorded.
    constexpr double kHair = 0.5;
    FillShape(
        context, kPeaks, peaks.Columns(), kMargin, columnWidth,
        [&](std::size_t column) {
            return middle - kHair - scale * peaks.At(channel, column).highest;
        },
        [&](std::size_t column) {
            return middle + kHair - scale * peaks.At(channel, column).lowest;
        });
    FillShape(
        context, kAverage, peaks.Columns(), kMargin, columnWidth,
        [&](std::size_t column) { return middle - kHair - scale * peaks.At(channel, column).rms; },
        [&](std::size_t column) { return middle + kHair + scale * peaks.At(channel, column).rms; });
    constexpr double kHighest = 32767.0 / 32768.0;
    for (std::size_t column = 0; column < peaks.Columns(); ++column) {
        const PeakColumn peak = peaks.At(channel, column);
        if (peak.highest >= kHighest || peak.lowest <= -1.0) {
            Fill(context, kClipped, kMargin + columnWidth * static_cast<double>(column), top,
                 std::max(columnWidth, 1.0), 3.0);
        }
    }
}

void Write(cairo_t* context, const std::string& text, double x, double y) {
    ::cairo_move_to(context, x, y);
    ::cairo_show_text(context, text.c_str());
}

void DrawScale(cairo_t* context, const PictureTexts& texts, double top, double bottom) {
    Use(context, kText);
    const double step = TimeStep(texts.seconds, kMostFigures);
    for (double seconds = 0.0; step > 0.0 && seconds <= texts.seconds; seconds += step) {
        const double x = kMargin + kPictureColumns * seconds / texts.seconds;
        Fill(context, kAxis, x, bottom, 1.0, 5.0);
        Use(context, kText);
        Write(context, ClockText(seconds), std::min(x + 3.0, kMargin + kPictureColumns - 60.0),
              bottom + 18.0);
    }
    for (const double mark : texts.marks) {
        if (texts.seconds > 0.0) {
            Fill(context, kMark, kMargin + kPictureColumns * mark / texts.seconds, top, 1.5,
                 bottom - top);
        }
    }
}

}  // namespace

double TimeStep(double seconds, std::size_t most) {
    constexpr std::array kSteps = {0.1,    0.2,    0.5,    1.0,     2.0,     5.0,     10.0,
                                   15.0,   30.0,   60.0,   120.0,   300.0,   600.0,   900.0,
                                   1800.0, 3600.0, 7200.0, 14400.0, 21600.0, 43200.0, 86400.0};
    for (const double step : kSteps) {
        if (seconds / step < static_cast<double>(most)) {
            return step;
        }
    }
    return std::ceil(seconds / static_cast<double>(most) / kSteps.back()) * kSteps.back();
}

void DrawWaveform(const PeakSummary& peaks, const PictureTexts& texts, const std::string& path,
                  PictureKind kind) {
    const FontRelease fonts;
    const auto channels = static_cast<double>(std::max<std::size_t>(peaks.Channels(), 1));
    const double strip = std::clamp(kStripsHeight / channels, kLowestStrip, kTallestStrip);
    const double top = kMargin + kTitleHeight;
    const double bottom = top + channels * (strip + 6.0) - 6.0;
    const double width = kPictureColumns + 2.0 * kMargin;
    const double height = bottom + kScaleHeight;
    const bool svg = kind == PictureKind::Svg;

    const Surface surface(svg ? ::cairo_svg_surface_create(path.c_str(), width, height)
                              : ::cairo_image_surface_create(CAIRO_FORMAT_RGB24,
                                                             static_cast<int>(width),
                                                             static_cast<int>(height)));
    cairo_status_t status = CAIRO_STATUS_SUCCESS;
    {
        const Context context(::cairo_create(surface.get()));
        ::cairo_select_font_face(context.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                                 CAIRO_FONT_WEIGHT_NORMAL);
        ::cairo_set_font_size(context.get(), 13.0);
        Fill(context.get(), kBackground, 0.0, 0.0, width, height);
        Use(context.get(), kText);
        Write(context.get(), texts.title, kMargin, kMargin + 14.0);
        for (std::size_t channel = 0; channel < peaks.Channels(); ++channel) {
            DrawChannel(context.get(), peaks, channel,
                        top + static_cast<double>(channel) * (strip + 6.0), strip);
        }
        DrawScale(context.get(), texts, top, bottom);
        // A context that has met an error draws nothing any more, and the surface does not know.
        status = ::cairo_status(context.get());
    }
    if (status == CAIRO_STATUS_SUCCESS) {
        status = ::cairo_surface_status(surface.get());
    }
    if (!svg && status == CAIRO_STATUS_SUCCESS) {
        status = ::cairo_surface_write_to_png(surface.get(), path.c_str());
    }
    ::cairo_surface_finish(surface.get());
    if (status == CAIRO_STATUS_SUCCESS) {
        status = ::cairo_surface_status(surface.get());
    }
    if (status != CAIRO_STATUS_SUCCESS) {
        throw Failure(ExitCode::Storage, ::cairo_status_to_string(status));
    }
}

}  // namespace vorrel::cli
