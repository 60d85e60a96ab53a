#pragma once

#include <QColor>
#include <QImage>
#include <QJsonObject>
#include <QRectF>
#include <QString>
#include <QStringList>

#include <optional>

namespace cutlark {

enum class BGRemovalMode { white, subject };
enum class BackgroundKind { color, gradient, image };
enum class VectorizeStyle { silhouette, outline };

// The 40 settings, declared once, in their fixed order. Everything that lists settings — the record,
// the model's field enum, its setters, snapshot/apply, the CLI's --set parser and `cutlark-cli settings` —
// is derived from this table.
//
// X(Type, name, Name, default value, value kind)
#define CUTLARK_SETTINGS(X)                                                                                \
    X(qint64, quarterTurns, QuarterTurns, 0, Int)                                                            \
    X(bool, mirrored, Mirrored, false, Bool)                                                                 \
    X(bool, manualCropEnabled, ManualCropEnabled, false, Bool)                                               \
    X(QRectF, manualCropRect, ManualCropRect, QRectF(0, 0, 1, 1), Rect)                                      \
    X(bool, trimEnabled, TrimEnabled, false, Bool)                                                           \
    X(double, threshold, Threshold, 25, Double)                                                              \
    X(bool, keyWhiteEnabled, KeyWhiteEnabled, false, Bool)                                                   \
    X(BGRemovalMode, bgRemovalMode, BgRemovalMode, BGRemovalMode::white, RemovalMode)                        \
    X(double, keyThreshold, KeyThreshold, 30, Double)                                                        \
    X(bool, keyInternal, KeyInternal, false, Bool)                                                           \
    X(bool, stickerEnabled, StickerEnabled, false, Bool)                                                     \
    X(double, strokeWidth, StrokeWidth, 14, Double)                                                          \
    X(bool, paddingEnabled, PaddingEnabled, false, Bool)                                                     \
    X(bool, paddingUniform, PaddingUniform, true, Bool)                                                      \
    X(double, padAmount, PadAmount, 40, Double)                                                              \
    X(double, padTop, PadTop, 40, Double)                                                                    \
    X(double, padRight, PadRight, 40, Double)                                                                \
    X(double, padBottom, PadBottom, 40, Double)                                                              \
    X(double, padLeft, PadLeft, 40, Double)                                                                  \
    X(bool, backgroundEnabled, BackgroundEnabled, false, Bool)                                               \
    X(BackgroundKind, backgroundKind, BackgroundKind, BackgroundKind::color, Background)                     \
    X(QColor, backgroundColor, BackgroundColor, QColor::fromRgbF(1, 1, 1, 1), Color)                         \
    X(QColor, gradientStart, GradientStart, QColor::fromRgbF(0.53f, 0.81f, 0.98f, 1), Color)                 \
    X(QColor, gradientEnd, GradientEnd, QColor::fromRgbF(0.15f, 0.39f, 0.78f, 1), Color)                     \
    X(double, gradientAngle, GradientAngle, 90, Double)                                                      \
    X(QImage, backgroundImage, BackgroundImage, QImage(), Image)                                             \
    X(QString, backgroundImageURL, BackgroundImageURL, QString(), Path)                                      \
    X(bool, resizeEnabled, ResizeEnabled, false, Bool)                                                       \
    X(double, resizeWidth, ResizeWidth, 1024, Double)                                                        \
    X(double, resizeHeight, ResizeHeight, 1024, Double)                                                      \
    X(bool, resizeLockAspect, ResizeLockAspect, true, Bool)                                                  \
    X(bool, resizeCanvas, ResizeCanvas, false, Bool)                                                         \
    X(bool, vectorizeEnabled, VectorizeEnabled, false, Bool)                                                 \
    X(VectorizeStyle, vectorizeStyle, VectorizeStyle, VectorizeStyle::silhouette, Style)                     \
    X(double, vectorStrokeWidth, VectorStrokeWidth, 3, Double)                                               \
    X(bool, vectorFullColor, VectorFullColor, false, Bool)                                                   \
    X(double, vectorTolerance, VectorTolerance, 45, Double)                                                  \
    X(double, vectorMinFeature, VectorMinFeature, 0, Double)                                                 \
    X(double, vectorDenoise, VectorDenoise, 2, Double)                                                       \
    X(double, vectorCleanup, VectorCleanup, 3, Double)

/// One item's dormant copy of the 40 settings; `Settings()` holds the defaults.
struct Settings {
#define CUTLARK_DECLARE_FIELD(Type, name, Name, def, kind) Type name = def;
    CUTLARK_SETTINGS(CUTLARK_DECLARE_FIELD)
#undef CUTLARK_DECLARE_FIELD

    /// Field-by-field equality; pictures compare by identity (`cacheKey`), not by pixels.
    bool operator==(const Settings& other) const;

    /// Names of the 40 fields in table order.
    static const QStringList& names();

    /// Writes `text` into the field called `name` of `into`, parsing it as that field's kind:
    /// booleans `true|false`, numbers, enum case names, colours `#RRGGBB` or `#RRGGBBAA`,
    /// rectangles `x,y,w,h`, and a file path for `backgroundImageURL` (which also loads `backgroundImage`).
    /// Returns an error text naming the field when the name is unknown or the value doesn't parse.
    static std::optional<QString> parseInto(Settings& into, const QString& name, const QString& text);

    /// Reads a JSON object of field names to values (strings, numbers or booleans) into `into`.
    static std::optional<QString> parseJsonInto(Settings& into, const QJsonObject& object);

    /// The settings as JSON, every field by name (`backgroundImage` as its size, or null).
    QJsonObject toJson() const;
};

QString toString(BGRemovalMode mode);
QString toString(BackgroundKind kind);
QString toString(VectorizeStyle style);
/// `#RRGGBB`, or `#RRGGBBAA` when the colour isn't opaque.
QString colorToHex(const QColor& color);
std::optional<QColor> colorFromHex(const QString& text);

} // namespace cutlark
