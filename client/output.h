// SPDX-License-Identifier: MIT
#ifndef OUTPUT_H
#define OUTPUT_H

#include <zelshellclient.h>

/**
 * Writes packets to standard output and standard error: as the command's text, or as one JSON object each.
 *
 * Text: what was printed on STDOUT and STDINFO goes to standard output and everything else to standard error, with the
 * line ends of this system. The last packet gives the value of the command, or the reason of its failure to standard
 * error; its report that the command is complete is left out.
 */
class Output
{
public:
    explicit Output(bool json);
    void write(const ZELShellProcessHeader &packet);
    /// False once standard output took no more.
    bool isGood() const { return m_good; }

private:
    void writeText(const ZELShellProcessHeader &packet);
    void writeJson(const ZELShellProcessHeader &packet);
    void put(bool toError, const QByteArray &bytes);

    const bool m_json;
    bool m_good = true;
};

#endif
