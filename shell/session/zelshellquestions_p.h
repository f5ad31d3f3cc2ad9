// SPDX-License-Identifier: MIT
#ifndef ZELSHELLQUESTIONS_P_H
#define ZELSHELLQUESTIONS_P_H

#include <QString>

/// Lets ZELArguments::ask() and the like reach the sessions; any number of times.
void zelLetCommandsAsk();

/// base64 of "ANSWERS=ZEL_SHELL": the word by which a tagged statement takes questions.
QString zelAnswersTag();

#endif
