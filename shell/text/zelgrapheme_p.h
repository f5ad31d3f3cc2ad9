// SPDX-License-Identifier: MIT
#ifndef ZELGRAPHEME_P_H
#define ZELGRAPHEME_P_H

#include <QByteArray>

/**
 * What a person sees as one character: a grapheme cluster of Unicode's Annex 29, with the columns it takes.
 *
 * Pure functions over UTF-8 bytes. A byte that is no part of a sequence is a character of its own.
 */
struct ZELGrapheme
{
    int length = 1; ///< bytes
    int width = 1; ///< columns, at least 1; 0 for a line feed only
    bool isPlain = true; ///< shows as its own bytes, and every terminal agrees about its width
};

/// The character that begins at \a at, which lies inside of \a text.
ZELGrapheme zelGraphemeAt(const QByteArray &text, int at);
/// Where the character before \a at begins; 0 at the beginning.
int zelGraphemeBefore(const QByteArray &text, int at);
/// A place at or before \a at where a character begins for certain, whatever stands before it.
int zelGraphemeStart(const QByteArray &text, int at);
/// The bytes that show the character: a mark without a base stands on a dotted circle, what cannot be shown is U+FFFD.
QByteArray zelShownGrapheme(const QByteArray &text, int at, const ZELGrapheme &grapheme);
/// The columns of a text without line feeds.
int zelColumns(const QByteArray &text);
/// True for the letters and digits that words are made of; \a at is the beginning of a character.
bool zelIsWordAt(const QByteArray &text, int at);
/**
 * The length of the UTF-8 sequence at \a bytes: 0 when it is none, -1 when \a available bytes are the beginning of one.
 */
int zelSequenceLength(const char *bytes, int available);

#endif
