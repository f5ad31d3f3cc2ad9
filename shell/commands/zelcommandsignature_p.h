// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDSIGNATURE_P_H
#define ZELCOMMANDSIGNATURE_P_H

#include "zelcommandfunction.h"

#include <QStringList>
#include <QVarLengthArray>
#include <QVector>
#include <optional>

/// One parameter: its type, and what the host said of it.
struct ZELCommandParameter
{
    enum class Completion { None, Tree, Files };

    ZELCommandType type;
    QStringList names; ///< an argument's single one; an option's with their dashes
    QString help;
    bool isOption = false;
    std::optional<std::pair<ZELCommandBound, ZELCommandBound>> range;
    QVector<ZELCommandChoice> choices;
    std::optional<QString> defaultWord;
    std::optional<ZELCommandValue> defaultValue; ///< made of the word above
    ZELCommandCompleter completer;
    Completion completion = Completion::None;

    const QString &name() const { return names.first(); }
    /// An option without a value behind it.
    bool isFlag() const { return isOption && type.kind == ZELCommandType::Boolean && !type.isList; }
    bool isRequired() const;
    bool hasName(const QString &name) const { return isOption && names.contains(name); }
    /// The words that it may be; empty when there are others, too.
    QStringList words() const;
    /// "whole number from 1 to 8", "slow or fast".
    QString typeText() const;
    /// The name of the type for programs: "integer", "number", "text", ...
    QString typeName() const;
    /// The limits as text; empty without any.
    QString leastText() const;
    QString mostText() const;
};

using ZELCommandValues = QVarLengthArray<ZELCommandValue, 6>;

/**
 * All parameters of a command, in the order of the function's. Complete and unchanged once the command is in a tree;
 * any thread.
 *
 *     ZELCommandValues values;
 *     const QString problem = signature.bind(words, values);
 *     if (problem.isEmpty())
 *         call(args, values.data());
 */
class ZELCommandSignature
{
public:
    QVector<ZELCommandParameter> parameters;

    /// Names what the host did not name and converts the defaults; a text for each mistake found.
    QStringList complete();
    /// Converts the words, quotes kept, behind the first one, which is the command's; the reason when they do not fit,
    /// with nothing of the values to be used.
    QString bind(const QStringList &words, ZELCommandValues &values) const;
    /// "number mode [note...] [--fast] [--note TEXT]".
    QString usage() const;
    const ZELCommandParameter *option(const QString &name) const;
    /// The parameter that the last of the words, the first of which is the command's, stands for; null for none, and
    /// for the name of an option.
    const ZELCommandParameter *parameterOf(const QStringList &words) const;
    /// False when words that begin with "-" are arguments.
    bool hasOptions() const;
};

/// What the host says of a command beside its parameters.
struct ZELCommandTraits
{
    QString group;
    QString replacement; ///< of a deprecated one
    QString role; ///< empty: everybody's
    bool hidden = false;
};

/// A function with the parameters it takes; unchanged once the command is in a tree, any thread.
struct ZELTypedCommand
{
    /// Binds the record's words and calls the function. Words that do not fit are an error of the record.
    QVariant run(const ZELArguments &args) const;

    ZELCommandFunction function;
    ZELCommandSignature signature;
};

/// What a builder collects.
struct ZELCommandDraft
{
    QByteArray path; ///< of an application command
    QByteArray name;
    ZELTypedCommand typed;
    ZELCommandTraits traits;
    QString help;
    bool multiRun = false;
    int timeLimit = -1;
};

/// Converts a word, without quotes, for a parameter; empty when that went well, else what it must be.
QString zelConvertWord(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value);

/// "; did you mean 'fast'?" with the nearest of the words, or nothing when none is near.
QString zelSuggestion(const QString &typed, const QStringList &words);

#endif
