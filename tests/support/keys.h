// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_KEYS_H
#define TESTS_SUPPORT_KEYS_H

#include <QByteArray>
#include <utility>

/// Keys and terminal output by name: "ab<left>X" or "<back>" instead of bytes that nobody can read.
inline const std::pair<const char *, const char *> keyNames[] = {
    {"<up>", "\033[A"},
    {"<down>", "\033[B"},
    {"<right>", "\033[C"},
    {"<left>", "\033[D"},
    {"<del>", "\033[3~"},
    {"<bs>", "\177"},
    {"<ctrl-h>", "\b"},
    {"<back>", "\b \b"},
    {"<esc>", "\033"},
    {"<tab>", "\t"},
    {"<nl>", "\n"},
};

/// The bytes of a text with names.
inline QByteArray keys(QByteArray text)
{
    for (const auto &key : keyNames)
        text.replace(key.first, key.second);
    return text;
}

#endif
