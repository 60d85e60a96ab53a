#include "app/SingleInstance.h"
#include "io/ImageFile.h"
#include "support/HugePages.h"
#include "support/NativePath.h"
#include "ui/ContentView.h"
#include "ui/FileOpenInbox.h"
#include "ui/MainWindow.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QFileInfo>
#include <QIcon>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    // --version and --help are answered before the window system is asked for anything, and
    // before the restart into huge pages, which would double their time.
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--version") == 0 || std::strcmp(argv[i], "-V") == 0) {
            std::fputs("cutlark " CUTLARK_VERSION "\n", stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(
                "Usage: cutlark [--max-megapixels N] [FILE | FOLDER]...\n"
                "Opens the images (a folder: its images, in name order) in the Cutlark window, or\n"
                "hands them to the window already open. A name that starts with \"-\" goes after \"--\".\n"
                "\n"
                "  --max-megapixels N  open pictures of up to N megapixels whatever their file's size\n"
                "                      (without it: 40, or 20 pixels per byte of the file, whichever\n"
                "                      is more); for the window this command starts\n"
                "\n"
                "For batches, see cutlark-cli --help.\n",
                stdout);
            return 0;
        }
    }
    // The window cuts out subjects and holds a queue of photographs: the large blocks outside the
    // pool of pixel stores (the network's tensors, Qt's conversions) go into huge pages too.
    cutlark::HugePages::restartWithHugePages(argv);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Cutlark"));
    QApplication::setDesktopFileName(QStringLiteral("cutlark"));
    cutlark::setUpIcons();
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("cutlark")));

    // What Qt didn't take is files; an option we don't know is a mistake, not a file to look for.
    QStringList files;
    bool onlyFiles = false;
    // As bytes: a file name that isn't UTF-8 stays the name of its file.
    const QStringList arguments = cutlark::NativePath::arguments(argc, argv).mid(1);
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& arg = arguments[i];
        const QString limit = QStringLiteral("--max-megapixels");
        if (!onlyFiles && (arg == limit || arg.startsWith(limit + QLatin1Char('=')))) {
            const QString value = arg == limit ? arguments.value(++i) : arg.mid(limit.size() + 1);
            bool ok = false;
            const double megapixels = value.toDouble(&ok);
            if (!ok || !(megapixels >= 1 && megapixels <= 100000)) {
                std::fprintf(stderr, "cutlark: --max-megapixels needs a number from 1 to 100000\n");
                return 2;
            }
            cutlark::ImageFile::setMaxMegapixels(megapixels);
        } else if (!onlyFiles && arg == QLatin1String("--")) {
            onlyFiles = true;
        } else if (!onlyFiles && arg.startsWith(QLatin1String("--"))) {
            std::fprintf(stderr, "cutlark: unknown option “%s”; see cutlark --help\n", qPrintable(arg));
            return 2;
        } else {
            files << QFileInfo(arg).absoluteFilePath();
        }
    }

    // A running window takes the files; this process then has nothing more to do.
    cutlark::SingleInstance instance;
    if (instance.handOver(files)) return 0;
    instance.listen();

    // The command line's files wait in the inbox; the window takes them when it appears.
    if (!files.isEmpty()) cutlark::FileOpenInbox::instance().deliver(files);
    cutlark::MainWindow window;
    window.show();
    QObject::connect(&instance, &cutlark::SingleInstance::filesReceived, &window,
                     [&](const QStringList& handed) {
                         if (!handed.isEmpty()) cutlark::FileOpenInbox::instance().deliver(handed);
                         window.raise();
                         window.activateWindow();
                     });

    // The subject network is not loaded here: it costs seconds of CPU and hundreds of megabytes, and
    // loads when subject mode is first asked for.
    return app.exec();
}
