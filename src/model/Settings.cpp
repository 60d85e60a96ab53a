#include "model/Settings.h"

#include "io/ImageFile.h"
#include "support/DidYouMean.h"

#include <QJsonValue>

#include <cmath>
#include <string_view>
#include <type_traits>

namespace cutlark {

namespace {

// --- parsing, one overload per value type of the table ---

bool parseValue(const QString& text, bool& out) {
    const QString t = text.trimmed().toLower();
    if (t == QLatin1String("true") || t == QLatin1String("1") || t == QLatin1String("yes")) {
        out = true;
        return true;
    }
    if (t == QLatin1String("false") || t == QLatin1String("0") || t == QLatin1String("no")) {
        out = false;
        return true;
    }
    return false;
}

bool parseValue(const QString& text, double& out) {
    bool ok = false;
    const double v = text.trimmed().toDouble(&ok);
    if (!ok) return false;
    out = v;
    return true;
}

// Numbers must be finite and inside the table's range; everything else has no range.
QString numberText(double v) {
    return QString::number(v, 'g', 10);
}
std::optional<QString> outOfRange(double v, double lo, double hi, const char* unit, const QString& name) {
    const QString u = *unit ? QLatin1Char(' ') + QString::fromUtf8(unit) : QString();
    if (!std::isfinite(v)) return QStringLiteral("%1 must be a finite number").arg(name);
    if (v < lo || v > hi)
        return QStringLiteral("%1 = %2 is outside %3 to %4%5")
            .arg(name, numberText(v), numberText(lo), numberText(hi), u);
    return std::nullopt;
}
template <class T> std::optional<QString> outOfRange(const T&, double, double, const char*, const QString&) {
    return std::nullopt;
}

const char* typeName(bool) {
    return "bool";
}
const char* typeName(double) {
    return "number";
}
const char* typeName(qint64) {
    return "integer";
}
const char* typeName(const QRectF&) {
    return "rect";
}
const char* typeName(const QColor&) {
    return "color";
}
const char* typeName(BGRemovalMode) {
    return "white|subject";
}
const char* typeName(BackgroundKind) {
    return "color|gradient|image";
}
const char* typeName(VectorizeStyle) {
    return "silhouette|outline";
}
const char* typeName(const QImage&) {
    return "picture";
}
const char* typeName(const QString&) {
    return "path";
}
const char* typeName(const MaskEdits&) {
    return "edits";
}

bool parseValue(const QString& text, MaskEdits& out) {
    const auto edits = MaskEditing::fromText(text);
    if (!edits) return false;
    out = *edits;
    return true;
}

bool parseValue(const QString& text, qint64& out) {
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok);
    if (!ok) return false;
    // Every writer of the quarter turns takes them modulo 4.
    out = ((v % 4) + 4) % 4;
    return true;
}

bool parseValue(const QString& text, QRectF& out) {
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != 4) return false;
    double v[4];
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        v[i] = parts[i].trimmed().toDouble(&ok);
        if (!ok || !std::isfinite(v[i])) return false;
    }
    out = QRectF(v[0], v[1], v[2], v[3]);
    return true;
}

bool parseValue(const QString& text, QColor& out) {
    const auto c = colorFromHex(text);
    if (!c) return false;
    out = *c;
    return true;
}

bool parseValue(const QString& text, BGRemovalMode& out) {
    const QString t = text.trimmed();
    if (t == QLatin1String("white"))
        out = BGRemovalMode::white;
    else if (t == QLatin1String("subject"))
        out = BGRemovalMode::subject;
    else
        return false;
    return true;
}

bool parseValue(const QString& text, BackgroundKind& out) {
    const QString t = text.trimmed();
    if (t == QLatin1String("color"))
        out = BackgroundKind::color;
    else if (t == QLatin1String("gradient"))
        out = BackgroundKind::gradient;
    else if (t == QLatin1String("image"))
        out = BackgroundKind::image;
    else
        return false;
    return true;
}

bool parseValue(const QString& text, VectorizeStyle& out) {
    const QString t = text.trimmed();
    if (t == QLatin1String("silhouette"))
        out = VectorizeStyle::silhouette;
    else if (t == QLatin1String("outline"))
        out = VectorizeStyle::outline;
    else
        return false;
    return true;
}

// The picture itself can't be written as text; it comes with its path.
QString pictureByItself() {
    return QStringLiteral("“backgroundImage” can’t be given: name the picture’s file as backgroundImageURL");
}

bool parseValue(const QString&, QImage&) {
    return false;
}

// A path is stored as given; the caller loads the picture behind it.
bool parseValue(const QString& text, QString& out) {
    out = text;
    return true;
}

// --- JSON, one overload per value type ---

QJsonValue jsonValue(bool v) {
    return v;
}
QJsonValue jsonValue(double v) {
    return v;
}
QJsonValue jsonValue(qint64 v) {
    return v;
}
QJsonValue jsonValue(const QRectF& r) {
    return QString::number(r.x()) + QLatin1Char(',') + QString::number(r.y()) + QLatin1Char(',') +
           QString::number(r.width()) + QLatin1Char(',') + QString::number(r.height());
}
QJsonValue jsonValue(const QColor& c) {
    return colorToHex(c);
}
QJsonValue jsonValue(BGRemovalMode v) {
    return toString(v);
}
QJsonValue jsonValue(BackgroundKind v) {
    return toString(v);
}
QJsonValue jsonValue(VectorizeStyle v) {
    return toString(v);
}
QJsonValue jsonValue(const QImage& image) {
    if (image.isNull()) return QJsonValue::Null;
    return QString::number(image.width()) + QLatin1Char('x') + QString::number(image.height());
}
QJsonValue jsonValue(const MaskEdits& edits) {
    return MaskEditing::toText(edits);
}
QJsonValue jsonValue(const QString& s) {
    return s.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(s);
}

QString jsonToText(const QJsonValue& v) {
    switch (v.type()) {
    case QJsonValue::Bool:
        return v.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QJsonValue::Double:
        return QString::number(v.toDouble(), 'g', 17);
    case QJsonValue::String:
        return v.toString();
    default:
        return QString();
    }
}

// A path brings its picture with it.
template <class T> std::optional<QString> afterParse(Settings&, const T&, const QString&) {
    return std::nullopt;
}
std::optional<QString> afterParse(Settings& into, const QString& path, const QString& name) {
    if (path.isEmpty()) {
        into.backgroundImage = QImage();
        return std::nullopt;
    }
    auto loaded = ImageFile::load(path);
    if (!loaded) return QStringLiteral("can't read the picture “%1” for %2").arg(path, name);
    into.backgroundImage = loaded->image;
    return std::nullopt;
}

bool sameImage(const QImage& a, const QImage& b) {
    return a.isNull() == b.isNull() && a.cacheKey() == b.cacheKey();
}
template <class T> bool same(const T& a, const T& b) {
    return a == b;
}
bool same(const QImage& a, const QImage& b) {
    return sameImage(a, b);
}

} // namespace

namespace {
template <class T> void scaleIfPixels(T& value, const char* unit, double scale) {
    if constexpr (std::is_same_v<T, double>)
        if (std::string_view(unit) == "px") value *= scale;
}
} // namespace

Settings Settings::scaledPixels(double scale) const {
    Settings out = *this;
#define CUTLARK_SCALE_PIXELS(Type, name, Name, def, lo, hi, unit, ...) scaleIfPixels(out.name, unit, scale);
    CUTLARK_SETTINGS(CUTLARK_SCALE_PIXELS)
#undef CUTLARK_SCALE_PIXELS
    return out;
}

bool Settings::operator==(const Settings& other) const {
#define CUTLARK_COMPARE(Type, name, Name, def, ...)                                                          \
    if (!same(name, other.name)) return false;
    CUTLARK_SETTINGS(CUTLARK_COMPARE)
#undef CUTLARK_COMPARE
    return true;
}

const QStringList& Settings::names() {
    static const QStringList list = {
#define CUTLARK_NAME(Type, name, Name, def, ...) QStringLiteral(#name),
        CUTLARK_SETTINGS(CUTLARK_NAME)
#undef CUTLARK_NAME
    };
    return list;
}

const std::vector<SettingInfo>& Settings::table() {
    static const std::vector<SettingInfo> rows = {
#define CUTLARK_INFO(Type, name, Name, def, lo, hi, unit, meaning, switchName)                               \
    {#name, typeName(Type()), lo, hi, unit, meaning, switchName},
        CUTLARK_SETTINGS(CUTLARK_INFO)
#undef CUTLARK_INFO
    };
    return rows;
}

const SettingInfo* Settings::info(const QString& name) {
    for (const SettingInfo& row : table())
        if (name == QLatin1String(row.name)) return &row;
    return nullptr;
}

namespace {

template <class T> bool asSwitch(const T&) {
    return false;
}
bool asSwitch(bool on) {
    return on;
}

// The value of the switch called `name`; false for a name that isn't a switch.
bool switchValue(const Settings& s, const QString& name) {
#define CUTLARK_SWITCH_VALUE(Type, field, ...)                                                               \
    if (name == QLatin1String(#field)) return asSwitch(s.field);
    CUTLARK_SETTINGS(CUTLARK_SWITCH_VALUE)
#undef CUTLARK_SWITCH_VALUE
    return false;
}

} // namespace

QString Settings::offSwitch(const QString& name) const {
    // Up the switches: a colour layer's setting needs full colour, which needs tracing.
    for (const SettingInfo* row = info(name); row && *row->switchName;
         row = info(QLatin1String(row->switchName))) {
        const QString switchName = QLatin1String(row->switchName);
        if (!switchValue(*this, switchName)) return switchName;
    }
    return QString();
}

QStringList Settings::idleNotices(const Settings& settings, const QStringList& names) {
    QStringList notices;
    for (const QString& name : names) {
        const QString off = info(name) ? settings.offSwitch(name) : QString();
        if (off.isEmpty()) continue;
        const QString notice = QStringLiteral("%1 has no effect while %2 is false").arg(name, off);
        if (!notices.contains(notice)) notices << notice;
    }
    return notices;
}

std::optional<QString> Settings::parseInto(Settings& into, const QString& name, const QString& text) {
    // Parsed into a copy, so a refused value leaves every field as it was.
#define CUTLARK_PARSE(Type, field, Name, def, lo, hi, unit, ...)                                             \
    if (name == QLatin1String(#field)) {                                                                     \
        Settings candidate = into;                                                                           \
        if (!parseValue(text, candidate.field))                                                              \
            return QStringLiteral("invalid value “%1” for %2").arg(text, name);                              \
        if (auto error = outOfRange(candidate.field, lo, hi, unit, name)) return error;                      \
        if (auto error = afterParse(candidate, candidate.field, name)) return error;                         \
        into = candidate;                                                                                    \
        return std::nullopt;                                                                                 \
    }
    if (name == QLatin1String("backgroundImage")) return pictureByItself();
    CUTLARK_SETTINGS(CUTLARK_PARSE)
#undef CUTLARK_PARSE
    return QStringLiteral("unknown setting “%1”").arg(name) + DidYouMean::hint(name, names());
}

std::optional<QString> Settings::parseJsonInto(Settings& into, const QJsonObject& object) {
    // Table order, so that a preset reads the same whatever order its keys were written in.
    for (const QString& key : object.keys()) {
        if (!names().contains(key))
            return QStringLiteral("unknown setting “%1”").arg(key) + DidYouMean::hint(key, names());
    }
    for (const QString& name : names()) {
        if (!object.contains(name)) continue;
        const QJsonValue v = object.value(name);
        // The picture is written as its size only; it comes back through its path. A file named
        // here instead would be silently lost: say where it goes.
        if (name == QLatin1String("backgroundImage")) {
            if (v.isString()) return pictureByItself();
            continue;
        }
        if (v.isNull()) {
            if (name == QLatin1String("backgroundImageURL")) {
                into.backgroundImageURL.clear();
                into.backgroundImage = QImage();
                continue;
            }
            return QStringLiteral("invalid value null for %1").arg(name);
        }
        if (auto error = parseInto(into, name, jsonToText(v))) return error;
    }
    return std::nullopt;
}

QJsonObject Settings::toJson() const {
    QJsonObject o;
#define CUTLARK_JSON(Type, name, Name, def, ...) o.insert(QStringLiteral(#name), jsonValue(name));
    CUTLARK_SETTINGS(CUTLARK_JSON)
#undef CUTLARK_JSON
    return o;
}

QString toString(BGRemovalMode mode) {
    return mode == BGRemovalMode::white ? QStringLiteral("white") : QStringLiteral("subject");
}

QString toString(BackgroundKind kind) {
    switch (kind) {
    case BackgroundKind::color:
        return QStringLiteral("color");
    case BackgroundKind::gradient:
        return QStringLiteral("gradient");
    case BackgroundKind::image:
        return QStringLiteral("image");
    }
    return QString();
}

QString toString(VectorizeStyle style) {
    return style == VectorizeStyle::silhouette ? QStringLiteral("silhouette") : QStringLiteral("outline");
}

} // namespace cutlark
