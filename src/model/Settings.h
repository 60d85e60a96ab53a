#pragma once

#include "engines/ColorComponents.h"
#include "engines/MaskEdits.h"
#include "vectorize/TraceParams.h"

#include <QColor>
#include <QImage>
#include <QJsonObject>
#include <QRectF>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace cutlark {

enum class BGRemovalMode { white, subject };
enum class BackgroundKind { color, gradient, image };

// The 43 settings, declared once, in their fixed order. Everything that lists settings — the record,
// the model's field enum, its setters, snapshot/apply, the sidebar's ranges, the command line's
// --set parser, its help and `cutlark-cli settings` — is derived from this table.
//
// X(Type, name, Name, default, minimum, maximum, unit, meaning, switch)
// `switch` names the on/off setting without which this one has no effect (empty: always has one).
// clang-format off
// The range applies to numbers only (the sliders' range; values outside it are refused when typed
// or read from a preset); 0, 0 elsewhere.
#define CUTLARK_SETTINGS(X)                                                                                \
    X(qint64, quarterTurns, QuarterTurns, 0, 0, 3, "", "quarter turns clockwise, after the mirror (any whole number, taken modulo 4)", "") \
    X(bool, mirrored, Mirrored, false, 0, 0, "", "mirror left to right before turning", "")                    \
    X(bool, manualCropEnabled, ManualCropEnabled, false, 0, 0, "", "crop by hand to manualCropRect", "")       \
    X(QRectF, manualCropRect, ManualCropRect, QRectF(0, 0, 1, 1), 0, 0, "", "the hand crop: x,y,w,h as fractions of the turned image", "manualCropEnabled") \
    X(bool, trimEnabled, TrimEnabled, false, 0, 0, "", "trim to the artwork's box", "")                        \
    X(double, threshold, Threshold, 25, 0, 100, "%", "how far from white and transparent a pixel must be to count as artwork", "trimEnabled") \
    X(bool, keyWhiteEnabled, KeyWhiteEnabled, false, 0, 0, "", "remove the background", "")                    \
    X(BGRemovalMode, bgRemovalMode, BgRemovalMode, BGRemovalMode::white, 0, 0, "", "white: key out a white background; subject: cut out the subject of a photograph", "keyWhiteEnabled") \
    X(double, keyThreshold, KeyThreshold, 30, 0, 100, "%", "how far from white a pixel may be and still be keyed out", "keyWhiteEnabled") \
    X(bool, keyInternal, KeyInternal, false, 0, 0, "", "key out enclosed white too, not only the background around the subject", "keyWhiteEnabled") \
    X(MaskEdits, maskEdits, MaskEdits, MaskEdits(), 0, 0, "", "the subject cutout touched up by hand: \"erase|restore SIZE SOFTNESS x,y x,y…; drop x,y\", sizes as fractions of the longer side, points as fractions of the unturned source", "keyWhiteEnabled") \
    X(bool, stickerEnabled, StickerEnabled, false, 0, 0, "", "a white sticker outline with a soft shadow", "") \
    X(double, strokeWidth, StrokeWidth, 14, 0, 40, "px", "width of the sticker outline", "stickerEnabled")                   \
    X(bool, paddingEnabled, PaddingEnabled, false, 0, 0, "", "transparent padding around the picture", "")    \
    X(bool, paddingUniform, PaddingUniform, true, 0, 0, "", "the same padding on every side", "paddingEnabled")             \
    X(double, padAmount, PadAmount, 40, 0, 512, "px", "padding on every side", "paddingEnabled")                             \
    X(double, padTop, PadTop, 40, 0, 512, "px", "padding at the top", "paddingEnabled")                                      \
    X(double, padRight, PadRight, 40, 0, 512, "px", "padding on the right", "paddingEnabled")                                \
    X(double, padBottom, PadBottom, 40, 0, 512, "px", "padding at the bottom", "paddingEnabled")                             \
    X(double, padLeft, PadLeft, 40, 0, 512, "px", "padding on the left", "paddingEnabled")                                   \
    X(bool, backgroundEnabled, BackgroundEnabled, false, 0, 0, "", "lay a background behind the picture", "") \
    X(BackgroundKind, backgroundKind, BackgroundKind, BackgroundKind::color, 0, 0, "", "color, gradient or image", "backgroundEnabled") \
    X(QColor, backgroundColor, BackgroundColor, QColor(0xFF, 0xFF, 0xFF), 0, 0, "", "the background colour, #RRGGBB or #RRGGBBAA", "backgroundEnabled") \
    X(QColor, gradientStart, GradientStart, QColor(0x87, 0xCF, 0xFA), 0, 0, "", "the gradient's first colour", "backgroundEnabled") \
    X(QColor, gradientEnd, GradientEnd, QColor(0x26, 0x63, 0xC7), 0, 0, "", "the gradient's last colour", "backgroundEnabled") \
    X(double, gradientAngle, GradientAngle, 90, 0, 360, "°", "direction of the gradient, clockwise on screen", "backgroundEnabled") \
    X(QImage, backgroundImage, BackgroundImage, QImage(), 0, 0, "", "the background picture (comes with backgroundImageURL)", "backgroundEnabled") \
    X(QString, backgroundImageURL, BackgroundImageURL, QString(), 0, 0, "", "the background picture's file", "backgroundEnabled") \
    X(bool, resizeEnabled, ResizeEnabled, false, 0, 0, "", "resize the result, or its canvas", "")            \
    X(double, resizeWidth, ResizeWidth, 1024, 1, 100000, "px", "width of the result", "resizeEnabled")                      \
    X(double, resizeHeight, ResizeHeight, 1024, 1, 100000, "px", "height of the result", "resizeEnabled")                   \
    X(bool, resizeLockAspect, ResizeLockAspect, true, 0, 0, "", "keep the proportion: a width sets the height and back", "resizeEnabled") \
    X(bool, resizeCanvas, ResizeCanvas, false, 0, 0, "", "change the canvas to the size without scaling", "resizeEnabled")  \
    X(bool, vectorizeEnabled, VectorizeEnabled, false, 0, 0, "", "trace the result into SVG", "")              \
    X(VectorizeStyle, vectorizeStyle, VectorizeStyle, VectorizeStyle::silhouette, 0, 0, "", "silhouette or outline", "vectorizeEnabled") \
    X(double, vectorStrokeWidth, VectorStrokeWidth, 3, 0.5, 12, "‰", "the outline's stroke, in thousandths of the long side", "vectorizeEnabled") \
    X(bool, vectorFullColor, VectorFullColor, false, 0, 0, "", "trace every flat colour into a layer of its own", "vectorizeEnabled") \
    X(double, vectorTolerance, VectorTolerance, 45, 0, 100, "", "how far colours may differ and still make one layer", "vectorFullColor") \
    X(double, vectorMinFeature, VectorMinFeature, 0, 0, 100, "", "smallest colour region kept, on a logarithmic scale from 0.003 % to 0.38 % of the picture", "vectorFullColor") \
    X(double, vectorDenoise, VectorDenoise, 2, 1, 3, "passes", "median passes over the picture before colour tracing", "vectorFullColor") \
    X(double, vectorCleanup, VectorCleanup, 3, 0, 10, "passes", "clean-up passes over the colour regions (0: none)", "vectorFullColor") \
    X(bool, vectorCurves, VectorCurves, false, 0, 0, "", "fit smooth curves to the traced outlines, keeping the corners where they really turn", "vectorizeEnabled") \
    X(bool, vectorStacked, VectorStacked, false, 0, 0, "", "stack the colour layers: the bottom one covers the picture, each other runs a few pixels under the ones above it, so no backdrop shows between colours", "vectorFullColor")
// clang-format on

/// One row of the table, readable at run time: for help texts, validation and the sidebar's ranges.
struct SettingInfo {
    const char* name;
    const char* type; ///< "bool", "number", "integer", "rect", "color", "path", "picture", or the choices
    double minimum;   ///< for numbers
    double maximum;
    const char* unit; ///< "px", "%", "°", "‰", "passes", or empty
    const char* meaning;
    const char* switchName; ///< the on/off setting this one needs, or empty
    bool isNumber() const { return minimum != maximum; }
};

/// One item's dormant copy of the 43 settings; `Settings()` holds the defaults.
struct Settings {
#define CUTLARK_DECLARE_FIELD(Type, name, Name, def, ...) Type name = def;
    CUTLARK_SETTINGS(CUTLARK_DECLARE_FIELD)
#undef CUTLARK_DECLARE_FIELD

    /// Field-by-field equality; pictures compare by identity (`cacheKey`), not by pixels.
    bool operator==(const Settings& other) const;

    /// Names of the 43 fields in table order.
    static const QStringList& names();

    /// The table's rows, in table order.
    static const std::vector<SettingInfo>& table();
    /// The row called `name`, or null.
    static const SettingInfo* info(const QString& name);

    /// Writes `text` into the field called `name` of `into`, parsing it as that field's kind:
    /// booleans `true|false`, numbers, enum case names, colours `#RRGGBB` or `#RRGGBBAA`,
    /// rectangles `x,y,w,h`, and a file path for `backgroundImageURL` (which also loads `backgroundImage`).
    /// Returns an error text naming the field when the name is unknown, the value doesn't parse, or
    /// a number is not finite or lies outside the table's range; `into` is then unchanged.
    static std::optional<QString> parseInto(Settings& into, const QString& name, const QString& text);

    /// Reads a JSON object of field names to values (strings, numbers or booleans) into `into`.
    static std::optional<QString> parseJsonInto(Settings& into, const QJsonObject& object);

    /// The first switch the setting `name` needs that is off in these settings — its own (the
    /// table's switch column), or the one that switch needs in turn — or empty when all are on.
    QString offSwitch(const QString& name) const;

    /// For each of `names` that can have no effect in `settings` because a switch it needs is off
    /// (its own, or the one that switch needs in turn), a notice saying so: "resizeWidth has no
    /// effect while resizeEnabled is false". Unknown names and repeats are passed over.
    static QStringList idleNotices(const Settings& settings, const QStringList& names);

    /// The settings as JSON, every field by name (`backgroundImage` as its size, or null).
    QJsonObject toJson() const;

    /// The same settings for a picture `scale` times the size: every length in pixels (the table's
    /// "px" unit) multiplied by it. What a draft of the picture at a smaller size is built with.
    Settings scaledPixels(double scale) const;
};

QString toString(BGRemovalMode mode);
QString toString(BackgroundKind kind);
QString toString(VectorizeStyle style);

} // namespace cutlark
