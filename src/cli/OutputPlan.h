#pragma once

#include "cli/CliOptions.h"

#include <QSet>
#include <QString>
#include <QStringList>

#include <vector>

/// Where each input's result goes, worked out for the whole run before any work starts, so that
/// no two inputs of the run can write the same file whatever type each result takes.
namespace cutlark::OutputPlan {

struct Plan {
    QString input;          ///< as expanded from the arguments
    QString folder;         ///< where a new result goes (unused with --in-place), absolute
    int number = 1;         ///< 1: <stem>-out.<ext>; n: <stem>-out-n.<ext>
    QStringList extensions; ///< every extension the result can end up with
};

/// The plans for `inputs` in order: within one folder and stem, each input takes the lowest number
/// none of whose names is spoken for yet. `transparencyPossible`: a result may need PNG where its
/// own type has no alpha.
std::vector<Plan> plan(const QStringList& inputs, const CliOptions& options, bool transparencyPossible);

/// Every file the plans could write, absolute.
QSet<QString> results(const std::vector<Plan>& plans);

} // namespace cutlark::OutputPlan
