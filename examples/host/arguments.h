// SPDX-License-Identifier: MIT
#ifndef ARGUMENTS_H
#define ARGUMENTS_H

#include <zelarguments.h>

// What the commands of this host share.

/// Prints one message as it stands on the ordinary output channel.
void print(const ZELArguments &args, const QString &text);

/// Lets the command fail with this text. It goes on to a plain return, so that its locals are destroyed as usual, which
/// a raised error would not do.
void refuse(const ZELArguments &args, const QString &why);

/// 1536 is "1.5 KiB".
QString inBytes(qint64 bytes);

#endif
