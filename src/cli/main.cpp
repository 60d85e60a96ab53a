#include "cli/CliRunner.h"
#include "support/HugePages.h"

#include <QCoreApplication>

int main(int argc, char** argv) {
    cutlark::HugePages::restartWithHugePages(argv);
    QCoreApplication app(argc, argv);
    cutlark::CliRunner runner(stdout, stderr);
    return runner.run(QCoreApplication::arguments().mid(1));
}
