#pragma once

#include "cli/Shard.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace cutlark {

/// What `cutlark-cli` was asked to do, as read from its arguments.
struct CliOptions {
    enum class Command { settings, info, process, trace, split, manifest, help, version };

    Command command = Command::help;
    QList<QPair<QString, QString>> sets; ///< --set NAME=VALUE, in the order given
    QString presetPath;                  ///< --preset FILE.json
    QString outputDir;                   ///< -o DIR (process, split)
    bool inPlace = false;                ///< --in-place
    bool overwrite = false;              ///< --overwrite: replace results that exist already
    bool toStdout = false;               ///< --stdout or -o -: the one result to standard output
    QString format;                      ///< --format: the results' MIME type; empty: the save rules
    int quality = -1;                    ///< --quality 1…100 for the lossy types; -1: the save rules
    bool strip = false;                  ///< --strip: results without the source's EXIF and XMP
    bool metadataGiven = false;          ///< --strip or --keep-metadata was given
    Shard shard;                         ///< --shard K/N: this run's slice of the inputs
    QString manifestPath;                ///< --manifest FILE: one line per finished input
    QString resumePath;                  ///< --resume FILE: skip what it records as done
    int jobs = 0;                        ///< --jobs N; 0 until given: the cores this process may use
    double maxMegapixels = 0;            ///< --max-megapixels N: pictures that big open whatever their file
    bool recursive = false;              ///< -r: folders' subfolders too, mirrored below -o
    QString filesFrom;                   ///< --files-from FILE: more inputs, one a line ("-": standard input)
    bool nulSeparated = false;           ///< -0: the list's names end in NUL bytes, not line feeds
    QString networkPath;                 ///< --network FILE.onnx: the subject network to run
    bool verbose = false;                ///< --verbose: the libraries' own messages too
    bool json = false;                   ///< --json (manifest): the summary as JSON
    bool help = false;                   ///< --help after a command: that command's help
    QStringList inputs;

    /// Reads the arguments after the program name; an error text when they don't make sense.
    /// Long options also take their value after "=" (`--jobs=4`), short ones right after the
    /// letter (`-j4`, `-oDIR`).
    static std::optional<QString> parse(const QStringList& arguments, CliOptions& out);

    /// True when these options may cut out subjects: `bgRemovalMode=subject` set, or a preset (a
    /// regular file) that sets it. Read from what `parse` made, never from the arguments again.
    bool mayCutOutSubjects() const;

    /// The whole usage, or one command's help with its options and examples.
    static QString usage();
    static QString usage(Command command);
    /// How a usage error ends: where to read more.
    static QString seeHelp(Command command);
    static QString version();
    /// Every setting of the table: type, range, unit, default, the switch it needs, meaning.
    static QString settingsHelp();

    /// One command-line option, declared once: the parser, the usage of each command, the man
    /// pages and the shell completion (both written from the usage) all come from these rows.
    struct Option {
        const char* name;        ///< the long name, without "--"
        const char* shortName;   ///< one letter, or ""
        const char* placeholder; ///< what its value is called in the usage ("N", "DIR"); "" for a switch
        unsigned commands;       ///< the commands that take it (`commandBit`)
        const char* help;        ///< its lines in the usage, "\n" between them
        /// Reads the value (empty for a switch) into `out`; an error text when it isn't one.
        std::optional<QString> (*read)(const QString& value, CliOptions& out);
    };
    /// The rows, in the order the usage lists them.
    static const std::vector<Option>& options();
    static unsigned commandBit(Command command);
    /// The commands by name, in the order the usage lists them.
    static const QList<QPair<QString, Command>>& commandNames();
    /// The commands `bits` stands for, named: "process and trace".
    static QString commandsTaking(unsigned bits, const QString& between);
};

} // namespace cutlark
