#include "cli/CliOptions.h"

#include "io/ImageFile.h"
#include "model/Settings.h"
#include "support/DidYouMean.h"
#include "support/RegularFile.h"

#include <QCommandLineParser>
#include <QJsonDocument>
#include <QJsonObject>

#include <utility>

namespace cutlark {

namespace {

using Command = CliOptions::Command;

constexpr unsigned kProcess = 1, kTrace = 2, kSplit = 4, kInfo = 8, kManifest = 16;
constexpr unsigned kReaders = kProcess | kTrace | kSplit | kInfo; // the commands that read pictures

// A switch's reader: sets the field.
template <bool CliOptions::*field> std::optional<QString> turnOn(const QString&, CliOptions& out) {
    out.*field = true;
    return std::nullopt;
}

std::optional<int> integer(const QString& text, int lo, int hi) {
    bool ok = false;
    const int n = text.toInt(&ok);
    if (!ok || n < lo || n > hi) return std::nullopt;
    return n;
}

// A value that is a file's name: given, not empty.
std::optional<QString> fileValue(const QString& value, QString& into, const char* option) {
    if (value.isEmpty()) return QStringLiteral("--%1 needs a file").arg(QLatin1String(option));
    into = value;
    return std::nullopt;
}

std::optional<QString> readSet(const QString& v, CliOptions& out) {
    const qsizetype eq = v.indexOf(QLatin1Char('='));
    if (v.isEmpty()) return QStringLiteral("--set needs NAME=VALUE");
    if (eq <= 0) return QStringLiteral("--set needs NAME=VALUE, got “%1”").arg(v);
    out.sets.append({v.left(eq).trimmed(), v.mid(eq + 1)});
    return std::nullopt;
}

std::optional<QString> readOutput(const QString& v, CliOptions& out) {
    if (v.isEmpty()) return QStringLiteral("-o needs a folder");
    out.outputDir = v; // trace's -o is taken as its SVG's name once the command is known
    return std::nullopt;
}

std::optional<QString> readJobs(const QString& v, CliOptions& out) {
    const auto n = integer(v, 1, 256);
    if (!n) return QStringLiteral("--jobs needs a number from 1 to 256");
    out.jobs = *n;
    return std::nullopt;
}

std::optional<QString> readFormat(const QString& v, CliOptions& out) {
    const QString type = ImageFile::typeForExtension(v.toLower());
    if (type.isEmpty() || !ImageFile::encodableTypes().contains(type))
        return QStringLiteral("--format needs one of png, jpeg, webp, tiff, heic, gif, bmp");
    out.format = type;
    return std::nullopt;
}

std::optional<QString> readQuality(const QString& v, CliOptions& out) {
    const auto q = integer(v, 1, 100);
    if (!q) return QStringLiteral("--quality needs a number from 1 to 100");
    out.quality = *q;
    return std::nullopt;
}

std::optional<QString> readShard(const QString& v, CliOptions& out) {
    const auto sliced = Shard::parse(v);
    if (!sliced) return QStringLiteral("--shard needs K/N, K from 0 to N−1");
    out.shard = *sliced;
    return std::nullopt;
}

std::optional<QString> readMaxMegapixels(const QString& v, CliOptions& out) {
    bool ok = false;
    const double n = v.toDouble(&ok);
    if (!ok || !(n >= 1 && n <= 100000))
        return QStringLiteral("--max-megapixels needs a number from 1 to 100000");
    out.maxMegapixels = n;
    return std::nullopt;
}

// The later of --strip and --keep-metadata wins, as with any pair of switches: the rows are read in
// the order they were given.
std::optional<QString> readStrip(const QString&, CliOptions& out) {
    out.strip = true;
    out.metadataGiven = true;
    return std::nullopt;
}
std::optional<QString> readKeepMetadata(const QString&, CliOptions& out) {
    out.strip = false;
    out.metadataGiven = true;
    return std::nullopt;
}

const std::vector<CliOptions::Option> kOptions = {
    {"set", "", "NAME=VALUE", kProcess | kTrace,
     "a setting (cutlark-cli help settings lists them); repeatable", readSet},
    {"preset", "", "FILE.json", kProcess | kTrace, "settings from a JSON object; --set wins over it",
     [](const QString& v, CliOptions& o) { return fileValue(v, o.presetPath, "preset"); }},
    {"output", "o", "DIR", kProcess | kSplit,
     "write into DIR (made when missing) instead of beside each input", readOutput},
    {"output", "o", "DIR", kTrace,
     "write into DIR (made when missing) instead of beside each input; with\n"
     "one input, a name ending in .svg is the file to write",
     readOutput},
    {"recursive", "r", "", kReaders,
     "go into the folders named and all their subfolders; below -o DIR each\n"
     "result keeps its place, as cp -r keeps it",
     turnOn<&CliOptions::recursive>},
    {"files-from", "", "FILE", kReaders,
     "more inputs from FILE, one a line (- for standard input); for lists\ntoo long for the command line",
     [](const QString& v, CliOptions& o) { return fileValue(v, o.filesFrom, "files-from"); }},
    {"null", "0", "", kReaders, "the names of --files-from end in NUL bytes (find -print0), not line feeds",
     turnOn<&CliOptions::nulSeparated>},
    {"in-place", "", "", kProcess,
     "write over each input (a result with transparency in a JPEG or BMP\ngoes to a PNG beside it)",
     turnOn<&CliOptions::inPlace>},
    {"overwrite", "", "", kProcess | kTrace | kSplit,
     "replace results that exist already (never an input itself)", turnOn<&CliOptions::overwrite>},
    {"format", "", "TYPE", kProcess,
     "write png, jpeg, webp, tiff, heic, gif or bmp (default: the input's\n"
     "own type, PNG when a result with transparency can't be kept in it)",
     readFormat},
    {"quality", "", "N", kProcess,
     "1 to 100: for jpeg, webp and heic the quality (default: JPEG 92, WebP\n"
     "as the source was stored, HEIC 92); for png the compression effort,\n"
     "zlib's level N × 9 / 100 rounded up (default: level 6, as 60 gives)",
     readQuality},
    {"keep-metadata", "", "", kProcess,
     "carry each input's EXIF and XMP over to its result, orientation set\n"
     "to upright and sizes to the result's (the default; JPEG, PNG, WebP,\n"
     "TIFF and HEIC results hold them, GIF and BMP results don't)",
     readKeepMetadata},
    {"strip", "", "", kProcess, "write results without the input's EXIF and XMP", readStrip},
    {"stdout", "", "", kProcess | kTrace,
     "write the one result to standard output (the JSON then goes to\nstandard error); also -o -",
     turnOn<&CliOptions::toStdout>},
    {"jobs", "j", "N", kProcess, "images at once (default: the cores this process may use)", readJobs},
    {"shard", "", "K/N", kProcess,
     "only the K-th of N slices of the inputs (K from 0), the same slices\n"
     "on every machine: by a hash of each input's path relative to the\n"
     "folder given (or as given, for a file)",
     readShard},
    {"manifest", "", "FILE", kProcess, "append one JSON line per finished input, once its result is on disk",
     [](const QString& v, CliOptions& o) { return fileValue(v, o.manifestPath, "manifest"); }},
    {"resume", "", "FILE", kProcess,
     "skip the inputs FILE records as done with the same settings, and go on\n"
     "recording there (unless --manifest names another file)",
     [](const QString& v, CliOptions& o) { return fileValue(v, o.resumePath, "resume"); }},
    {"network", "", "FILE", kProcess | kInfo,
     "cut subjects out with the segmentation network FILE.onnx (its input\n"
     "size, normalisation and output read from FILE.json beside it);\n"
     "info --network FILE describes it without inputs",
     [](const QString& v, CliOptions& o) { return fileValue(v, o.networkPath, "network"); }},
    {"verbose", "v", "", kReaders,
     "let the libraries underneath speak too (image readers' warnings such\n"
     "as libpng's, kept off standard error without it)",
     turnOn<&CliOptions::verbose>},
    {"json", "", "", kManifest, "the summary as one JSON object", turnOn<&CliOptions::json>},
    {"max-megapixels", "", "N", kReaders,
     "open pictures of up to N megapixels whatever their file's size\n"
     "(without it: 40, or 20 pixels per byte of the file, whichever is\n"
     "more, so that a small file can't claim gigabytes)",
     readMaxMegapixels},
};

std::optional<Command> commandNamed(const QString& word) {
    for (const auto& [name, command] : CliOptions::commandNames())
        if (word == name) return command;
    // The forms a person types for help and version, besides the commands' own names.
    static const QList<QPair<QString, Command>> aliases = {{QStringLiteral("--help"), Command::help},
                                                           {QStringLiteral("-h"), Command::help},
                                                           {QStringLiteral("--version"), Command::version},
                                                           {QStringLiteral("-V"), Command::version}};
    for (const auto& [name, command] : aliases)
        if (word == name) return command;
    return std::nullopt;
}

// The commands' names; with `all` false only those that have a help of their own.
QStringList commandWords(bool all = true) {
    QStringList words;
    for (const auto& [name, command] : CliOptions::commandNames())
        if (all || (command != Command::help && command != Command::version)) words << name;
    return words;
}

// The rows the command takes, each long name once.
std::vector<const CliOptions::Option*> rowsOf(Command command) {
    std::vector<const CliOptions::Option*> rows;
    for (const CliOptions::Option& o : kOptions)
        if (o.commands & CliOptions::commandBit(command)) rows.push_back(&o);
    return rows;
}

QCommandLineOption qtOption(const CliOptions::Option& o) {
    QStringList names;
    if (*o.shortName) names << QLatin1String(o.shortName);
    names << QLatin1String(o.name);
    return *o.placeholder ? QCommandLineOption(names, QString(), QLatin1String(o.placeholder))
                          : QCommandLineOption(names);
}

// Qt's parser's failure in the program's own words: an unknown option, or the option whose value
// is missing (its reader says what it needs).
QString parseFailure(const QCommandLineParser& parser, const QString& command,
                     const std::vector<const CliOptions::Option*>& rows) {
    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty()) {
        const QString name =
            (unknown.first().size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + unknown.first();
        if (rows.empty()) return QStringLiteral("%1 takes no option “%2”").arg(command, name);
        QStringList known;
        for (const CliOptions::Option* o : rows)
            known << QStringLiteral("--") + QLatin1String(o->name);
        return QStringLiteral("unknown option “%1”").arg(name) + DidYouMean::hint(name, known);
    }
    const QString error = parser.errorText();
    for (const CliOptions::Option* o : rows) {
        if (!*o->placeholder) continue;
        for (const char* letters : {o->shortName, o->name}) {
            const QString n = QString::fromLatin1(letters);
            const QString given = (n.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + n;
            CliOptions ignored;
            if (!n.isEmpty() && error.contains(QLatin1Char('\'') + given + QLatin1Char('\'')))
                return *o->read(QString(), ignored);
        }
    }
    return error;
}

// Reads the options given, in the order given, through their rows.
std::optional<QString> readGiven(const QCommandLineParser& parser,
                                 const std::vector<const CliOptions::Option*>& rows, CliOptions& out) {
    QHash<QString, int> seen; // how many values of each option were taken so far
    for (const QString& given : parser.optionNames()) {
        for (const CliOptions::Option* o : rows) {
            if (given != QLatin1String(o->name) && given != QLatin1String(o->shortName)) continue;
            const QString longName = QLatin1String(o->name);
            const QStringList values = parser.values(longName);
            const QString value = *o->placeholder ? values.value(seen[longName]++) : QString();
            if (auto error = o->read(value, out)) return error;
        }
    }
    return std::nullopt;
}

// Options that make no sense together, or for the command.
std::optional<QString> checkCombinations(CliOptions& out) {
    if (out.outputDir == QLatin1String("-")) { // "-o -" is standard output, not a folder named "-"
        out.outputDir.clear();
        out.toStdout = true;
    }
    if (out.toStdout && out.command == Command::split)
        return QStringLiteral("split writes a file for each piece; --stdout isn’t for it");
    if (out.toStdout && out.inPlace) return QStringLiteral("--stdout and --in-place exclude each other");
    if (out.toStdout && !out.outputDir.isEmpty())
        return QStringLiteral("--stdout and -o DIR exclude each other");
    if (out.inPlace && !out.outputDir.isEmpty())
        return QStringLiteral("-o and --in-place exclude each other");
    if (out.inputs.count(QStringLiteral("-")) > 1)
        return QStringLiteral("standard input (“-”) can be read only once");
    if (out.command == Command::process && out.inputs.contains(QStringLiteral("-")) && !out.toStdout &&
        out.outputDir.isEmpty())
        return QStringLiteral("the result of standard input (“-”) needs --stdout or -o DIR");
    if (out.command != Command::settings && out.command != Command::help && out.command != Command::version &&
        out.inputs.isEmpty() && out.filesFrom.isEmpty() &&
        !(out.command == Command::info && !out.networkPath.isEmpty()))
        return QStringLiteral("no input given");
    if (out.manifestPath.isEmpty()) out.manifestPath = out.resumePath; // a resumed run goes on recording
    if (out.toStdout && !out.manifestPath.isEmpty())
        return QStringLiteral("--manifest and --resume record files written, not --stdout");
    if (out.command == Command::trace && out.toStdout && out.inputs.size() != 1)
        return QStringLiteral("trace --stdout takes one input");
    if (out.filesFrom == QLatin1String("-") && out.inputs.contains(QStringLiteral("-")))
        return QStringLiteral("standard input can’t be both the list and a picture");
    return std::nullopt;
}

// An option of the table given to a command that doesn't take it, said with the commands it is for.
std::optional<QString> foreignOption(const QString& command, Command which, const QStringList& arguments) {
    const unsigned bit = CliOptions::commandBit(which);
    for (const QString& a : arguments) {
        if (a == QLatin1String("--")) break;
        for (const CliOptions::Option& o : kOptions) {
            const QString name = QStringLiteral("--") + QLatin1String(o.name);
            const QString letter =
                *o.shortName ? QStringLiteral("-") + QLatin1String(o.shortName) : QString();
            const bool given =
                a == name || a.startsWith(name + QLatin1Char('=')) ||
                (!letter.isEmpty() && !a.startsWith(QLatin1String("--")) && a.startsWith(letter));
            if (!given || (o.commands & bit)) continue;
            // Another row of the same name may be the command's (-o for process and for trace).
            bool theirs = false;
            for (const CliOptions::Option& other : kOptions)
                theirs = theirs || (qstrcmp(other.name, o.name) == 0 && (other.commands & bit));
            if (theirs) continue;
            if (bit == 0)
                return QStringLiteral("%1 takes no option “%2”")
                    .arg(command, a.section(QLatin1Char('='), 0, 0));
            return QStringLiteral("%1 is for %2, not %3")
                .arg(letter.isEmpty() || a.startsWith(QLatin1String("--")) ? name : letter,
                     CliOptions::commandsTaking(o.commands, QStringLiteral(" and ")), command);
        }
    }
    return std::nullopt;
}

} // namespace

const std::vector<CliOptions::Option>& CliOptions::options() {
    return kOptions;
}

const QList<QPair<QString, CliOptions::Command>>& CliOptions::commandNames() {
    static const QList<QPair<QString, Command>> names = {
        {QStringLiteral("process"), Command::process},   {QStringLiteral("trace"), Command::trace},
        {QStringLiteral("split"), Command::split},       {QStringLiteral("info"), Command::info},
        {QStringLiteral("manifest"), Command::manifest}, {QStringLiteral("settings"), Command::settings},
        {QStringLiteral("help"), Command::help},         {QStringLiteral("version"), Command::version}};
    return names;
}

QString CliOptions::commandsTaking(unsigned bits, const QString& between) {
    QStringList names;
    for (const auto& [name, command] : commandNames())
        if (bits & commandBit(command)) names << name;
    return names.join(between);
}

unsigned CliOptions::commandBit(Command command) {
    switch (command) {
    case Command::process:
        return kProcess;
    case Command::trace:
        return kTrace;
    case Command::split:
        return kSplit;
    case Command::info:
        return kInfo;
    case Command::manifest:
        return kManifest;
    case Command::settings:
    case Command::help:
    case Command::version:
        break;
    }
    return 0;
}

std::optional<QString> CliOptions::parse(const QStringList& arguments, CliOptions& out) {
    out = CliOptions();
    if (arguments.isEmpty()) return QStringLiteral("no command given");
    const QString& command = arguments.first();
    const auto named = commandNamed(command);
    if (!named)
        return QStringLiteral("unknown command “%1”").arg(command) +
               DidYouMean::hint(command, commandWords());
    out.command = *named;

    // "help COMMAND" is that command's help; "--help" anywhere before "--" is the command's.
    if (out.command == Command::help && arguments.size() > 1) {
        const auto which = commandNamed(arguments[1]);
        if (!which || *which == Command::help || *which == Command::version)
            return QStringLiteral("no help on “%1”: the commands are %2")
                       .arg(arguments[1], commandWords(false).join(QStringLiteral(", "))) +
                   DidYouMean::hint(arguments[1], commandWords(false));
        out.command = *which;
        out.help = true;
        return std::nullopt;
    }
    for (qsizetype i = 1; i < arguments.size() && arguments[i] != QLatin1String("--"); ++i) {
        if (arguments[i] == QLatin1String("--help") || arguments[i] == QLatin1String("-h")) {
            out.help = true;
            return std::nullopt;
        }
    }
    if (auto foreign = foreignOption(command, out.command, arguments.mid(1))) return foreign;

    // Qt's parser gives the forms Linux tools have: "--jobs 4", "--jobs=4", "-j4", "-j 4", "-oDIR",
    // "--" before inputs that start with "-", and "-" as an input.
    const std::vector<const Option*> rows = rowsOf(out.command);
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    for (const Option* o : rows) {
        parser.addOption(qtOption(*o));
        if (*o->placeholder) continue;
        const QString given = QStringLiteral("--") + QLatin1String(o->name);
        for (const QString& a : arguments.mid(1)) {
            if (a == QLatin1String("--")) break;
            if (a.startsWith(given + QLatin1Char('='))) return QStringLiteral("%1 takes no value").arg(given);
        }
    }
    // Qt's parser reads the program's name first.
    if (!parser.parse(QStringList{QStringLiteral("cutlark-cli")} + arguments.mid(1)))
        return parseFailure(parser, command, rows);
    if (auto error = readGiven(parser, rows, out)) return error;
    out.inputs = parser.positionalArguments();
    return checkCombinations(out);
}

bool CliOptions::mayCutOutSubjects() const {
    if (command != Command::process && command != Command::trace) return false;
    for (const auto& [name, value] : sets)
        if (name == QLatin1String("bgRemovalMode")) return value.trimmed() == QLatin1String("subject");
    if (presetPath.isEmpty()) return false;
    // The preset as the run will read it; only a regular file can be read twice.
    RegularFile file;
    if (!file.open(presetPath) || file.file().size() > (qint64(1) << 20)) return false;
    const QJsonObject preset = QJsonDocument::fromJson(file.file().readAll()).object();
    return preset.value(QStringLiteral("bgRemovalMode")).toString() == QLatin1String("subject");
}

} // namespace cutlark
