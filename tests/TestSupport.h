#pragma once

#include "model/CropModel.h"
#include "model/Panels.h"

#include <QByteArray>
#include <QColor>
#include <QDir>
#include <QImage>
#include <QJsonObject>
#include <QMap>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

#include <deque>
#include <functional>

namespace cutlark::test {

/// A premultiplied RGBA image filled with one colour.
QImage solid(int w, int h, const QColor& color);

/// An image whose every pixel is distinct: red = x, green = y, blue = 7, alpha 255 (x, y < 256).
QImage coordinates(int w, int h);

/// An SVG document rendered at `size` on a transparent ARGB32 (premultiplied) picture.
QImage renderedSvg(const QString& svg, QSize size);

/// Stores premultiplied bytes as given at (x, y) of a 32-bit RGBA image.
void put(QImage& image, int x, int y, uchar r, uchar g, uchar b, uchar a);

/// Encodes `image` with Qt's writer for `format` ("png", "jpeg", …) and writes it to `path`.
bool writeImage(const QImage& image, const QString& path, const char* format, int quality = -1);
bool writeBytes(const QString& path, const QByteArray& bytes);
QByteArray readBytes(const QString& path);

/// A baseline JPEG of `image` carrying an EXIF orientation tag with `orientation` (1–8).
QByteArray jpegWithOrientation(const QImage& image, int orientation);

/// A PNG whose header claims `width` × `height` but which holds no pixel data worth the name.
QByteArray pngHeaderOnly(quint32 width, quint32 height);

/// A 6×4 red JPEG stored as CMYK, and a 5×3 two-frame animated GIF (blue, then yellow).
QByteArray cmykJpeg();
QByteArray animatedGif();

/// Writes a PNG of `image` into `dir` under `name` and returns its path (empty on failure).
QString savePng(const QTemporaryDir& dir, const QString& name, const QImage& image);

/// A photograph the set-up fetches into the cache folder (`coffee.png`, `rocket.jpg`, …).
QString testPhoto(const QString& name);

/// What a program run printed and how it ended; `lines` are the JSON objects of its standard output.
struct ProgramRun {
    int exitCode = -1; ///< -1 when it didn't end by itself within the time given
    QList<QJsonObject> lines;
    QByteArray out;
    QString err;
};

/// Runs `program` with `arguments` and `environment`, `input` on its standard input, and waits up
/// to `waitMs` for it; `setUp`, when given, runs in the child before the program starts.
ProgramRun runProgram(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                      const QByteArray& input = QByteArray(), int waitMs = 120000,
                      const std::function<void()>& setUp = {});

/// Lets the event loop run until `done` holds; false when `milliseconds` pass first.
bool waitUntil(const std::function<bool()>& done, int milliseconds = 120000);

/// Asks `model` for a save and turns the event loop until it has ended, written or failed: saves wait
/// for a cutout being made and write off the main thread.
void saveAndWait(CropModel& model, void (CropModel::*action)() = &CropModel::saveOverOriginal);

/// Intersection over union of two pixel sets of a w × h picture, each given by a test of (x, y).
double intersectionOverUnion(int w, int h, const std::function<bool(int, int)>& first,
                             const std::function<bool(int, int)>& second);

/// The panels answered from a script: each call takes the next answer; no answer means cancel.
class ScriptedPanels : public Panels {
public:
    std::deque<std::optional<QStringList>> openAnswers;
    std::deque<std::optional<QString>> saveAnswers;
    std::deque<std::optional<QString>> folderAnswers;
    std::deque<std::optional<QString>> fileAnswers;
    QStringList proposedNames;
    QStringList saveTypes;
    int openCalls = 0, saveCalls = 0, folderCalls = 0;

    std::optional<QStringList> openImages(bool) override;
    std::optional<QString> saveFile(const QString& directory, const QString& proposedName,
                                    const QString& type) override;
    std::optional<QString> openFile(const QString& type) override;
    std::optional<QString> chooseFolder(const QString&, const QString&, const QString&) override;
};

/// Counts the model's change notifications per field.
class ChangeCounter {
public:
    explicit ChangeCounter(CropModel& model);
    ~ChangeCounter();
    ChangeCounter(const ChangeCounter&) = delete;
    ChangeCounter& operator=(const ChangeCounter&) = delete;
    int count(CropModel::Field field) const { return m_counts.value(field, 0); }
    int rebuilds() const { return count(CropModel::Field::processedImage); }
    void reset() { m_counts.clear(); }

private:
    QMap<CropModel::Field, int> m_counts;
    QMetaObject::Connection m_connection;
};

} // namespace cutlark::test

// Readable QStrings in test failures.
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
