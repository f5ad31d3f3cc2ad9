// SPDX-License-Identifier: MIT
#ifndef ARGUMENTS_H
#define ARGUMENTS_H

#include <QVariant>
#include <zelarguments.h>

/*
 * What the commands of this host share: checking their arguments and answering.
 *
 * A command refuses bad input by a state and a text in its record and a plain return. That way its locals are
 * destroyed as usual, which a raised error would not do.
 */

/// Prints one message as it stands on the ordinary output channel.
void print(const ZELArguments &args, const QString &text);

/// Ends the command as failed with this text; the value for the slot to return.
QVariant refuse(ZELArguments &args, const QString &why);

/// True when the command was given between least and most arguments; otherwise it has been refused.
bool takes(ZELArguments &args, int least, int most);

/// Reads argument index (1 is the first) into value; false when it is no whole number from least to most, in which
/// case the command has been refused.
bool takesNumber(ZELArguments &args, int index, const char *name, int least, int most, int *value);

/// An argument without the quotes that keep its blanks together.
QString unquoted(const QString &token);

/// 1536 is "1.5 KiB".
QString inBytes(qint64 bytes);

#endif
