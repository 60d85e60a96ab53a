#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include "cli/Shard.h"

#include <optional>

namespace cutlark {

/// What `cutlark-cli` was asked to do, as read from its arguments.
struct CliOptions {
    enum class Command { settings, info, process, trace, split, help, version };

    Command command = Command::help;
    QList<QPair<QString, QString>> sets; ///< --set NAME=VALUE, in the order given
    QString presetPath;                  ///< --preset FILE.json
    QString outputDir;                   ///< -o DIR (process, split)
    QString svgPath;                     ///< -o OUT.svg (trace)
    bool inPlace = false;                ///< --in-place
    bool overwrite = false;              ///< --overwrite: replace results that exist already
    bool toStdout = false;               ///< --stdout or -o -: the one result to standard output
    QString format;                      ///< --format: the results' MIME type; empty: the save rules
    int quality = -1;                    ///< --quality 1…100 for the lossy types; -1: the save rules
    bool strip = false;                  ///< --strip: results without the source's EXIF and XMP
    Shard shard;                         ///< --shard K/N: this run's slice of the inputs
    QString manifestPath;                ///< --manifest FILE: one line per finished input
    QString resumePath;                  ///< --resume FILE: skip what it records as done
    int jobs = 0;                        ///< --jobs N; 0 until given: the cores this process may use
    double maxMegapixels = 0;            ///< --max-megapixels N: pictures that big open whatever their file
    bool help = false;                   ///< --help after a command: that command's help
    QStringList inputs;

    /// Reads the arguments after the program name; an error text when they don't make sense.
    /// Long options also take their value after "=" (`--jobs=4`), short ones right after the
    /// letter (`-j4`, `-oDIR`).
    static std::optional<QString> parse(const QStringList& arguments, CliOptions& out);

    /// The whole usage, or one command's help with its options and examples.
    static QString usage();
    static QString usage(Command command);
    /// How a usage error ends: where to read more.
    static QString seeHelp(Command command);
    static QString version();
    /// Every setting of the table: type, range, unit, default, the switch it needs, meaning.
    static QString settingsHelp();
};

} // namespace cutlark
