// SPDX-License-Identifier: MIT
#ifndef ZELPALETTE_H
#define ZELPALETTE_H

#include "zelshell_export.h"

#include <QString>

/**
 * A small palette for prompts and answers, of the colours that every terminal has (ECMA-48, "Select Graphic
 * Rendition").
 *
 * Texts stay as they are where colours are off: with the environment variable NO_COLOR set to something, or
 * TERM=dumb. Threads: any.
 *
 *     server.setPrompt([](const ZELShell &) { return ZELPalette::paint(ZELPalette::Green, "board> "); });
 */
class ZELSHELL_EXPORT ZELPalette
{
public:
    enum Colour { Red = 31, Green, Yellow, Blue, Magenta, Cyan, White, Grey = 90, Bold = 1 };

    static bool isOn();
    static QString paint(Colour colour, const QString &text);
};

#endif
