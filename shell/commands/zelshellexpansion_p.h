// SPDX-License-Identifier: MIT
#ifndef ZELSHELLEXPANSION_P_H
#define ZELSHELLEXPANSION_P_H

#include <QString>
#include <QStringList>
#include <functional>

// The words of a statement, as functions of their text alone; any thread.

/// The value of a variable by its name with the "$"; "NULL" for one that was never set.
using ZELVariableLookup = std::function<QString(const QString &)>;

/**
 * One word with its variables replaced: a word that begins with "$" as a whole; between double quotes every inner word
 * that does, the quotes stay; every other word, brackets and single quotes included, stays as it is. In one pass, so
 * what a value holds is not replaced in turn. A text of many variables is given up soon after the longest length.
 */
QString zelExpandWord(const QString &word, const ZELVariableLookup &lookup, int longest);

/// A statement's shape, by its words.
enum class ZELStatementKind {
    Command, ///< runs as it stands, variables in all words replaced
    Assignment, ///< "$x = words"
    Query, ///< "$x" alone
    Indirect ///< "$x words": only the first word is replaced
};
ZELStatementKind zelStatementKind(const QStringList &words);

/// A decimal number, whole or not, with or without exponent.
bool zelIsNumber(const QString &word);
/// True for a word between quotes or brackets of one kind.
bool zelIsQuoted(const QString &word);
/// The word without its quotes or brackets.
QString zelUnquoted(const QString &word);

/// "name#index" as typed: the index is empty without "#".
struct ZELCommandWord
{
    explicit ZELCommandWord(const QString &word);
    QString typed() const { return index.isEmpty() ? name : name + QLatin1Char('#') + index; }
    QString name;
    QString index;
};

/// The input without the protocol tag and the "=" of a base64 padding behind it, blanks around it left out.
QString zelWithoutTag(const QString &input, const QString &tag);

#endif
