#include "support/NaturalOrder.h"

#include <QCollator>
#include <QLocale>

namespace cutlark::NaturalOrder {

namespace {

int compareDigitRuns(const QString& a, qsizetype& i, const QString& b, qsizetype& j) {
    // Skip leading zeros, then a longer run is a larger number; equal lengths compare digit by digit.
    const qsizetype startA = i, startB = j;
    while (i < a.size() && a[i] == QLatin1Char('0'))
        ++i;
    while (j < b.size() && b[j] == QLatin1Char('0'))
        ++j;
    const qsizetype sigA = i, sigB = j;
    while (i < a.size() && a[i].isDigit())
        ++i;
    while (j < b.size() && b[j].isDigit())
        ++j;
    const qsizetype lenA = i - sigA, lenB = j - sigB;
    if (lenA != lenB) return lenA < lenB ? -1 : 1;
    for (qsizetype k = 0; k < lenA; ++k) {
        const int da = a[sigA + k].digitValue(), db = b[sigB + k].digitValue();
        if (da != db) return da < db ? -1 : 1;
    }
    // Same value: fewer leading zeros first.
    const qsizetype zerosA = sigA - startA, zerosB = sigB - startB;
    if (zerosA != zerosB) return zerosA < zerosB ? -1 : 1;
    return 0;
}

// As the user's language orders names ("été" before "f", case aside), numbers by their value.
const QCollator& collator() {
    thread_local const QCollator collator = [] {
        QLocale locale;
        // The bare C locale orders by code unit; a person in it still reads "é" as an "e".
        if (locale.language() == QLocale::C) locale = QLocale(QLocale::English, QLocale::UnitedStates);
        QCollator c(locale);
        c.setNumericMode(true);
        c.setCaseSensitivity(Qt::CaseInsensitive);
        return c;
    }();
    return collator;
}

} // namespace

int compare(const QString& a, const QString& b) {
    // Where the language's order finds no difference, the folded code units and the number of
    // leading zeros decide. Names that differ only in case rank equal, and keep their order.
    if (const int c = collator().compare(a, b)) return c < 0 ? -1 : 1;
    return codeUnitCompare(a, b);
}

Key key(const QString& name) {
    return Key{collator().sortKey(name), name};
}

int compare(const Key& a, const Key& b) {
    if (const int c = a.collation.compare(b.collation)) return c < 0 ? -1 : 1;
    return codeUnitCompare(a.name, b.name);
}

int codeUnitCompare(const QString& a, const QString& b) {
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            if (const int c = compareDigitRuns(a, i, b, j)) return c;
            continue;
        }
        const QString ca = QString(a[i]).toCaseFolded(), cb = QString(b[j]).toCaseFolded();
        if (const int c = ca.compare(cb)) return c < 0 ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

} // namespace cutlark::NaturalOrder
