#include "engines/SubjectNetwork.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QStringList>

#include <algorithm>
#include <cmath>

namespace cutlark {

namespace {

constexpr qint64 kLargestDescriptor = 64 * 1024; // a few numbers; anything bigger isn't one
constexpr int kSmallestSide = 16;
constexpr int kLargestSide = 4096;

// Reads one number or three into `out`; false when the value is neither.
bool readTriple(const QJsonValue& v, std::array<double, 3>& out) {
    if (v.isDouble()) {
        out.fill(v.toDouble());
        return true;
    }
    const QJsonArray a = v.toArray();
    if (!v.isArray() || a.size() != 3) return false;
    for (int i = 0; i < 3; ++i) {
        if (!a[i].isDouble()) return false;
        out[size_t(i)] = a[i].toDouble();
    }
    return true;
}

bool wholeSide(const QJsonValue& v, int& out) {
    const double d = v.toDouble(-1);
    if (!v.isDouble() || d != std::floor(d) || d < kSmallestSide || d > kLargestSide) return false;
    out = int(d);
    return true;
}

} // namespace

QString SubjectNetwork::descriptorPath(const QString& onnxPath) {
    const QFileInfo info(onnxPath);
    const QString name = info.fileName();
    const QString base = name.endsWith(QLatin1String(".onnx"), Qt::CaseInsensitive) ? name.chopped(5) : name;
    return info.dir().filePath(base + QStringLiteral(".json"));
}

QString SubjectNetwork::displayName() const {
    if (path.isEmpty()) return QStringLiteral("IS-Net");
    const QString name = QFileInfo(path).fileName();
    return name.endsWith(QLatin1String(".onnx"), Qt::CaseInsensitive) ? name.chopped(5) : name;
}

QString SubjectNetwork::userFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/cutlark/networks");
}

QStringList SubjectNetwork::userNetworks() {
    const QDir folder(userFolder());
    QStringList paths;
    const QFileInfoList found = folder.entryInfoList({QStringLiteral("*.onnx")}, QDir::Files | QDir::Readable,
                                                     QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo& info : found)
        paths << info.filePath();
    return paths;
}

std::optional<SubjectNetwork> SubjectNetwork::read(const QString& onnxPath, QString* error) {
    const auto fail = [&](const QString& why) {
        if (error) *error = why;
        return std::optional<SubjectNetwork>();
    };
    const QFileInfo network(onnxPath);
    if (!network.exists()) return fail(QStringLiteral("“%1” doesn’t exist").arg(onnxPath));
    if (!network.isFile()) return fail(QStringLiteral("“%1” isn’t a file").arg(onnxPath));
    SubjectNetwork choice;
    choice.path = onnxPath;
    const QString descriptor = descriptorPath(onnxPath);
    const QFileInfo info(descriptor);
    if (!info.exists()) return choice;
    QFile file(descriptor);
    if (!info.isFile() || info.size() > kLargestDescriptor || !file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("“%1” can’t be read as a network’s descriptor").arg(descriptor));
    QJsonParseError parsed{};
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &parsed);
    if (parsed.error != QJsonParseError::NoError || !doc.isObject())
        return fail(QStringLiteral("“%1” isn’t a JSON object (%2)")
                        .arg(descriptor, parsed.error != QJsonParseError::NoError
                                             ? parsed.errorString()
                                             : QStringLiteral("not an object")));
    const QJsonObject o = doc.object();
    const auto bad = [&](const char* key, const char* needs) {
        return fail(QStringLiteral("“%1”: \"%2\" needs %3")
                        .arg(descriptor, QLatin1String(key), QLatin1String(needs)));
    };
    for (auto it = o.begin(); it != o.end(); ++it) {
        const QString key = it.key();
        if (key == QLatin1String("size")) {
            const QJsonArray a = it->toArray();
            if (!it->isArray() || a.size() != 2 || !wholeSide(a[0], choice.width) ||
                !wholeSide(a[1], choice.height))
                return bad("size", "two whole numbers from 16 to 4096: [width, height]");
            choice.sizeGiven = true;
        } else if (key == QLatin1String("mean")) {
            if (!readTriple(*it, choice.mean) ||
                !std::all_of(choice.mean.begin(), choice.mean.end(),
                             [](double m) { return std::isfinite(m) && std::abs(m) <= 10; }))
                return bad("mean", "one number or three (R, G, B) from −10 to 10, on values scaled to 0…1");
        } else if (key == QLatin1String("std")) {
            if (!readTriple(*it, choice.stdDev) ||
                !std::all_of(choice.stdDev.begin(), choice.stdDev.end(),
                             [](double s) { return std::isfinite(s) && s >= 1e-3 && s <= 100; }))
                return bad("std", "one number or three (R, G, B) from 0.001 to 100");
        } else if (key == QLatin1String("sigmoid")) {
            if (!it->isBool()) return bad("sigmoid", "true (the output is a logit) or false (a probability)");
            choice.sigmoid = it->toBool();
        } else {
            return fail(
                QStringLiteral("“%1”: \"%2\" isn’t a key of a network’s descriptor (they are \"size\", "
                               "\"mean\", \"std\" and \"sigmoid\")")
                    .arg(descriptor, key));
        }
    }
    return choice;
}

} // namespace cutlark
