#include "cli/CliOptions.h"
#include "cli/CliRunner.h"
#include "support/HugePages.h"
#include "support/NativePath.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

// What the libraries underneath say in passing (an image reader's "libpng warning: iCCP: known
// incorrect sRGB profile") is no news about the run: said only with --verbose. A fatal message
// still is.
void quiet(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (type == QtFatalMsg)
        std::fprintf(stderr, "cutlark-cli: %s\n", qPrintable(qFormatLogMessage(type, context, message)));
}

} // namespace

int main(int argc, char** argv) {
    // The arguments as bytes: a file name that isn't UTF-8 stays the name of its file. Read once.
    const QStringList arguments = cutlark::NativePath::arguments(argc, argv).mid(1);
    cutlark::CliOptions options;
    const std::optional<QString> error = cutlark::CliOptions::parse(arguments, options);
    // The restart into huge pages costs about as much as the whole start (~60 ms). Since the pool of
    // pixel stores advises huge pages for its own blocks, what is left to gain is in the subject
    // network's many large tensors (two 12-MP cutouts: 12.1 s in small pages, 10.2 s in huge ones),
    // while a batch of keying, trimming and resizing runs as fast without it. So only a run that may
    // cut out subjects restarts.
    if (!error && !options.help && options.mayCutOutSubjects())
        cutlark::HugePages::restartWithHugePages(argv);
    if (!options.verbose) qInstallMessageHandler(quiet);
    QCoreApplication app(argc, argv);
    cutlark::CliRunner runner(stdout, stderr);
    return runner.run(options, error);
}
