// Drives the window offscreen through a few states and writes a PNG of each, for the README.
#include "engines/VisionEngine.h"
#include "ui/ColorPickerPopover.h"
#include "ui/ContentView.h"
#include "ui/CropEditorSheet.h"
#include "ui/MainWindow.h"
#include "ui/QtPanels.h"
#include "ui/RefineCanvas.h"
#include "ui/RefineSheet.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QIcon>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QProgressDialog>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <tuple>

using namespace cutlark;

namespace {

void settle(CropModel& model, int ms = 400) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms || model.isVectorizing() || model.isDetectingSubject()) {
        QApplication::processEvents(QEventLoop::AllEvents, 20);
        if (timer.elapsed() > 60000) break;
    }
}

QImage logo() {
    QImage image(900, 640, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(232, 92, 60));
    p.drawEllipse(QPointF(330, 330), 150, 150);
    p.setBrush(QColor(38, 99, 199));
    p.drawRoundedRect(QRectF(420, 230, 200, 200), 40, 40);
    p.setBrush(Qt::white);
    p.drawEllipse(QPointF(330, 330), 60, 60);
    p.setPen(QPen(QColor(30, 30, 30), 18, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(QPointF(250, 520), QPointF(600, 520));
    return image;
}

QImage subject(const QColor& colour) {
    QImage image(700, 520, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QPainterPath body;
    body.setFillRule(Qt::WindingFill);
    body.addEllipse(QRectF(160, 130, 300, 240));
    body.addEllipse(QRectF(400, 90, 150, 150));
    p.fillPath(body.simplified(), colour);
    p.setBrush(QColor(250, 190, 40));
    p.setPen(Qt::NoPen);
    p.drawPolygon(QPolygonF({QPointF(540, 160), QPointF(610, 175), QPointF(540, 195)}));
    p.setBrush(QColor(20, 20, 20));
    p.drawEllipse(QPointF(495, 150), 11, 11);
    return image;
}

// A dark scheme as desktops give it: light text on dark grey, the accent kept.
QPalette darkPalette() {
    QPalette p;
    p.setColor(QPalette::Window, QColor(45, 45, 48));
    p.setColor(QPalette::WindowText, QColor(230, 230, 230));
    p.setColor(QPalette::Base, QColor(30, 30, 32));
    p.setColor(QPalette::AlternateBase, QColor(55, 55, 60));
    p.setColor(QPalette::Text, QColor(230, 230, 230));
    p.setColor(QPalette::Button, QColor(60, 60, 64));
    p.setColor(QPalette::ButtonText, QColor(230, 230, 230));
    p.setColor(QPalette::Highlight, QColor(61, 174, 233));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::PlaceholderText, QColor(150, 150, 150));
    p.setColor(QPalette::ToolTipBase, QColor(60, 60, 64));
    p.setColor(QPalette::ToolTipText, QColor(230, 230, 230));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(120, 120, 120));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(120, 120, 120));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(120, 120, 120));
    return p;
}

bool shoot(QWidget& window, const QString& path) {
    QApplication::processEvents();
    const bool ok = window.grab().save(path);
    std::printf("%s %s\n", ok ? "wrote" : "couldn't write", qPrintable(path));
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    cutlark::setUpIcons();
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("docs/screenshots");
    QDir().mkpath(out);
    QTemporaryDir dir;
    const QString logoPath = dir.filePath(QStringLiteral("logo.png"));
    logo().save(logoPath);
    QStringList birds;
    const QColor colours[] = {QColor(70, 160, 90), QColor(120, 80, 190), QColor(230, 130, 40)};
    for (int i = 0; i < 3; ++i) {
        birds << dir.filePath(QStringLiteral("bird-%1.png").arg(i + 1));
        subject(colours[i]).save(birds.last());
    }

    bool ok = true;
    {
        MainWindow window;
        window.resize(900, 640);
        window.show();
        ok &= shoot(window, out + QStringLiteral("/01-empty.png"));
    }
    {
        MainWindow window;
        window.resize(900, 640);
        window.show();
        CropModel& model = window.content()->model();
        model.open({logoPath});
        model.setTrimEnabled(true);
        model.setKeyWhiteEnabled(true);
        model.setBgRemovalMode(BGRemovalMode::white);
        settle(model);
        ok &= shoot(window, out + QStringLiteral("/02-trim-and-key.png"));
    }
    {
        MainWindow window;
        window.resize(900, 900);
        window.show();
        CropModel& model = window.content()->model();
        model.open(birds);
        model.setStickerEnabled(true);
        model.setBackgroundEnabled(true);
        model.setBackgroundKind(BackgroundKind::gradient);
        model.setPaddingEnabled(true);
        settle(model);
        ok &= shoot(window, out + QStringLiteral("/03-queue-sticker-gradient.png"));
    }
    {
        MainWindow window;
        window.resize(900, 900);
        window.show();
        CropModel& model = window.content()->model();
        model.open({logoPath});
        model.setVectorizeEnabled(true);
        model.setVectorFullColor(true);
        model.setVectorCurves(true);
        model.setVectorStacked(true);
        settle(model, 800);
        ok &= shoot(window, out + QStringLiteral("/04-vectorize.png"));
    }
    {
        // The crop sheet with a handle selected, so the loupe shows.
        MainWindow window;
        window.resize(900, 640);
        window.show();
        CropModel& model = window.content()->model();
        model.open({logoPath});
        window.content()->openCropEditor();
        CropEditorSheet* sheet = window.content()->cropEditor();
        if (sheet) {
            sheet->resize(760, 600);
            sheet->overlay()->setCrop(QRectF(0.2, 0.3, 0.5, 0.45));
            sheet->overlay()->setSelectedHandle(CropHandle::e);
            QApplication::processEvents();
            const bool wrote = sheet->grab().save(out + QStringLiteral("/05-crop-editor.png"));
            std::printf("%s %s\n", wrote ? "wrote" : "couldn't write",
                        qPrintable(out + QStringLiteral("/05-crop-editor.png")));
            ok &= wrote;
        }
    }
    if (const QString photo = QDir::homePath() + QStringLiteral("/.cache/cutlark/testdata/chelsea.png");
        QFileInfo::exists(photo) && VisionEngine::isAvailable()) {
        // The refine sheet on a photograph's real cutout, a stroke of each brush drawn.
        MainWindow window;
        window.resize(900, 640);
        window.show();
        CropModel& model = window.content()->model();
        model.open({photo});
        model.setBgRemovalMode(BGRemovalMode::subject);
        model.setKeyWhiteEnabled(true);
        settle(model);
        window.content()->openRefineSheet();
        if (RefineSheet* sheet = window.content()->refineSheet()) {
            sheet->resize(900, 640);
            QApplication::processEvents();
            sheet->setBrushSize(0.05);
            sheet->setTool(MaskEdit::Kind::erase);
            sheet->canvas()->beginStroke({0.1, 0.15});
            for (int i = 1; i <= 20; ++i)
                sheet->canvas()->extendStroke({0.1 + i * 0.01, 0.15 + i * 0.012});
            sheet->canvas()->endStroke();
            sheet->setTool(MaskEdit::Kind::restore);
            sheet->canvas()->beginStroke({0.8, 0.8});
            for (int i = 1; i <= 12; ++i)
                sheet->canvas()->extendStroke({0.8 + i * 0.01, 0.8 - i * 0.01});
            sheet->canvas()->endStroke();
            QApplication::processEvents();
            const QString path = out + QStringLiteral("/12-refine.png");
            const bool wrote = sheet->grab().save(path);
            std::printf("%s %s\n", wrote ? "wrote" : "couldn't write", qPrintable(path));
            ok &= wrote;
            // An erase stroke drawn with the mouse, the loupe showing while the button is down.
            RefineCanvas* canvas = sheet->canvas();
            sheet->setTool(MaskEdit::Kind::erase);
            sheet->setBrushSize(0.02);
            const QRectF r = canvas->imageRect();
            const auto at = [&](double u, double v) {
                return QPointF(r.left() + u * r.width(), r.top() + v * r.height());
            };
            const auto send = [&](QEvent::Type type, const QPointF& p, Qt::MouseButtons buttons) {
                QMouseEvent e(type, p, canvas->mapToGlobal(p), Qt::LeftButton, buttons, Qt::NoModifier);
                QApplication::sendEvent(canvas, &e);
            };
            send(QEvent::MouseButtonPress, at(0.45, 0.55), Qt::LeftButton);
            for (int i = 1; i <= 10; ++i)
                send(QEvent::MouseMove, at(0.45 + i * 0.01, 0.55 + i * 0.005), Qt::LeftButton);
            QApplication::processEvents();
            const QString loupe = out + QStringLiteral("/13-refine-loupe.png");
            const bool wroteLoupe = sheet->grab().save(loupe);
            send(QEvent::MouseButtonRelease, at(0.55, 0.6), Qt::NoButton);
            std::printf("%s %s\n", wroteLoupe ? "wrote" : "couldn't write", qPrintable(loupe));
            ok &= wroteLoupe;
        }
    }
    {
        // The colour picker beside its swatch.
        QColor colour = QColor::fromRgbF(0.53f, 0.81f, 0.98f);
        QWidget host;
        host.resize(260, 60);
        auto* row = new ColorSwatchRow(
            QStringLiteral("Background color"), [&] { return colour; }, [&](const QColor& c) { colour = c; },
            &host);
        row->setGeometry(10, 18, 200, 24);
        host.show();
        row->click();
        QApplication::processEvents();
        if (row->popover()) {
            QWidget* frame = row->popover()->parentWidget();
            frame->setAutoFillBackground(true);
            const bool wrote = frame->grab().save(out + QStringLiteral("/06-color-picker.png"));
            std::printf("%s %s\n", wrote ? "wrote" : "couldn't write",
                        qPrintable(out + QStringLiteral("/06-color-picker.png")));
            ok &= wrote;
        }
    }
    {
        // Opening many files: the progress dialog with Cancel (shown at once here; after half a
        // second in real use).
        MainWindow window;
        window.resize(720, 540);
        window.show();
        QtPanels panels(&window);
        panels.setProgressDelay(0);
        CropModel& model = window.content()->model();
        model.setPanels(&panels);
        QTemporaryDir pictures;
        QStringList many;
        for (int i = 0; i < 24; ++i) {
            many << pictures.filePath(QStringLiteral("opening-%1.png").arg(i));
            subject(QColor::fromHsv(i * 15, 160, 200)).scaled(1600, 1200).save(many.last());
        }
        bool shot = false;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [&] {
            auto* dialog = window.findChild<QProgressDialog*>();
            if (shot || !dialog || dialog->value() < 2) return;
            shot = true;
            const bool wrote = dialog->grab().save(out + QStringLiteral("/07-opening.png"));
            std::printf("%s %s\n", wrote ? "wrote" : "couldn't write",
                        qPrintable(out + QStringLiteral("/07-opening.png")));
            ok &= wrote;
        });
        poll.start(10);
        model.open(many);
        ok &= shot;
    }
    {
        // Half a 1366-pixel laptop screen, two images, a 12-point font.
        QFont font = QApplication::font();
        const QFont saved = font;
        font.setPointSizeF(12);
        QApplication::setFont(font);
        MainWindow window;
        window.resize(683, 768);
        window.show();
        CropModel& model = window.content()->model();
        model.open({birds[0], birds[1]});
        model.setKeyWhiteEnabled(true);
        model.setStickerEnabled(true);
        model.setPaddingEnabled(true);
        settle(model);
        ok &= shoot(window, out + QStringLiteral("/08-laptop-12pt.png"));
        QApplication::setFont(saved);
    }
    {
        // A 14-point font in a window of 900 pixels with every section a product shot uses on, and
        // the narrowest window at 12 points: labels and columns grow with the font.
        QFont font = QApplication::font();
        const QFont saved = font;
        for (const auto& [points, width, name] :
             {std::tuple{14.0, 900, "/10-14pt.png"}, std::tuple{12.0, 660, "/11-narrow-12pt.png"}}) {
            font.setPointSizeF(points);
            QApplication::setFont(font);
            MainWindow window;
            window.resize(width, 800);
            window.show();
            CropModel& model = window.content()->model();
            model.open({birds[0], birds[1]});
            model.setKeyWhiteEnabled(true);
            model.setStickerEnabled(true);
            model.setBackgroundEnabled(true);
            model.setBackgroundKind(BackgroundKind::gradient);
            settle(model);
            ok &= shoot(window, out + QLatin1String(name));
        }
        QApplication::setFont(saved);
    }
    {
        // A dark colour scheme.
        const QPalette saved = QApplication::palette();
        QApplication::setPalette(darkPalette());
        MainWindow window;
        window.resize(900, 700);
        window.show();
        CropModel& model = window.content()->model();
        model.open({logoPath, birds[2]});
        model.setKeyWhiteEnabled(true);
        model.setBackgroundEnabled(true);
        model.setBackgroundKind(BackgroundKind::gradient);
        model.setVectorizeEnabled(false);
        settle(model);
        ok &= shoot(window, out + QStringLiteral("/09-dark.png"));
        QApplication::setPalette(saved);
    }
    return ok ? 0 : 1;
}
