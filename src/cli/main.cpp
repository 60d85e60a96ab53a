#include "cli/CliRunner.h"
#include "support/HugePages.h"
#include "support/NativePath.h"

#include <QCoreApplication>

#include <fstream>
#include <string>
#include <string_view>

namespace {

// The restart into huge pages costs about as much as the whole start (~60 ms). Since the pool of
// pixel stores advises huge pages for its own blocks, what is left to gain is in the subject
// network's many large tensors (two 12-MP cutouts: 12.1 s in small pages, 10.2 s in huge ones), while
// a batch of keying, trimming and resizing runs as fast without it. So only a run that may cut out
// subjects restarts: `--set bgRemovalMode=subject`, or a preset that names it.
bool mayCutOutSubjects(int argc, char** argv) {
    if (argc < 3) return false;
    const std::string_view command = argv[1];
    if (command != "process" && command != "trace") return false;
    for (int i = 2; i < argc; ++i) {
        const std::string_view a = argv[i];
        if (a == "--") break;
        if (a == "--help" || a == "-h") return false;
        if (a.find("bgRemovalMode=subject") != std::string_view::npos) return true;
        const bool presetNext = a == "--preset" && i + 1 < argc;
        if (presetNext || a.starts_with("--preset=")) {
            std::ifstream preset(presetNext ? argv[i + 1] : argv[i] + 9);
            std::string text(1 << 16, '\0');
            preset.read(text.data(), std::streamsize(text.size()));
            text.resize(size_t(preset.gcount()));
            if (text.find("subject") != std::string::npos) return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    if (mayCutOutSubjects(argc, argv)) cutlark::HugePages::restartWithHugePages(argv);
    QCoreApplication app(argc, argv);
    cutlark::CliRunner runner(stdout, stderr);
    // The arguments as bytes: a file name that isn't UTF-8 stays the name of its file.
    return runner.run(cutlark::NativePath::arguments(argc, argv).mid(1));
}
