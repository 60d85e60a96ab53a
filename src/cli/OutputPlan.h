#pragma once

#include "cli/CliInputs.h"
#include "cli/CliOptions.h"

#include <QSet>
#include <QString>
#include <QStringList>

#include <vector>

/// Where each input's result goes. A result's name depends only on its own input and the run's
/// options, never on which other inputs there are: "<stem>-out.<ext>" beside the input, or with
/// -o DIR below DIR at the input's place (the folder it was found in, kept as `cp -r` keeps it), or
/// the one file -o names. Two inputs whose results could land on one file are both refused.
namespace cutlark::OutputPlan {

struct Plan {
    QString input;          ///< as expanded from the arguments
    QString folder;         ///< where a new result goes (unused with --in-place), absolute
    QStringList extensions; ///< every extension the result can end up with
    QString file;           ///< the one result -o names, when it names a file; else empty
    /// The other input whose result could land on the same file, when there is one: this one is
    /// refused, naming it.
    QString clashesWith;
};

/// The plans for `inputs`, in order. `transparencyPossible`: a result may need PNG where its own
/// type has no alpha.
std::vector<Plan> plan(const QList<CliInputs::Input>& inputs, const CliOptions& options,
                       bool transparencyPossible);

/// Every file the plans could write, absolute.
QSet<QString> results(const std::vector<Plan>& plans);

/// True when -o names a file rather than a folder: a name with an image type's extension that
/// isn't a folder already.
bool namesFile(const QString& output);

} // namespace cutlark::OutputPlan
