#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <optional>

namespace cutlark {

/// What `cutlark-cli` was asked to do, as read from its arguments.
struct CliOptions {
    enum class Command { settings, info, process, trace, split, help };

    Command command = Command::help;
    QList<QPair<QString, QString>> sets; ///< --set NAME=VALUE, in the order given
    QString presetPath;                  ///< --preset FILE.json
    QString outputDir;                   ///< -o DIR (process, split)
    QString svgPath;                     ///< -o OUT.svg (trace)
    bool inPlace = false;                ///< --in-place
    bool overwrite = false;              ///< --overwrite: replace results that exist already
    int jobs = 1;                        ///< --jobs N
    QStringList inputs;

    /// Reads the arguments after the program name; an error text when they don't make sense.
    static std::optional<QString> parse(const QStringList& arguments, CliOptions& out);

    static QString usage();
};

} // namespace cutlark
