// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDBUILDER_H
#define ZELCOMMANDBUILDER_H

#include "zelcommandfunction.h"
#include "zelcommandtype.h"
#include "zelshell_export.h"

#include <QLocale>
#include <functional>
#include <initializer_list>
#include <memory>

struct ZELCommandDraft;

/**
 * A command that is being described; it is registered at the end of the statement that describes it.
 *
 * Made by ZELShellServer::command() and systemCommand(). The declarations argument() and option() describe the
 * function's parameters in their order; parameters that none describes are arguments named "arg1", "arg2". What
 * stands behind a declaration (range(), choices(), defaultValue(), ...) concerns that argument or option.
 * Words are checked and converted before the function is called: a line that does not fit ends in the state
 * "EXECUTE_ERROR" with one line that says why.
 *
 * Misuse is warned of by qWarning() and left out. Threads: that of the statement; the function is called on the
 * sessions' threads, as slots of commands are.
 *
 *     server.command("board/pump", "start", [&](int number, Mode mode, std::optional<QString> note) { ... })
 *         .help("Starts a pump")
 *         .argument("number", "Which pump").range(1, 8)
 *         .argument("mode", "How fast").choices({{"slow", Mode::Slow}, {"fast", Mode::Fast}})
 *         .option("--note", "Kept in the log");
 */
class ZELSHELL_EXPORT ZELCommandBuilder
{
public:
    ZELCommandBuilder(ZELCommandBuilder &&other) noexcept;
    ZELCommandBuilder &operator=(ZELCommandBuilder &&) = delete;
    /// Registers the command, if add() was not called.
    ~ZELCommandBuilder();
    /// Registers the command now and tells whether that was done: false as for ZELShellServer::registerCmd().
    bool add();

    // The command.

    /// One line on what the command does; it is the description of ZELShellServer::commands(), too.
    ZELCommandBuilder &help(const ZELCommandText &text);
    /// Lets the command start while an earlier run of it is going.
    ZELCommandBuilder &multiRun(bool on = true);
    /// The limit of ZELShellServer::setCommandTimeout() for this command.
    ZELCommandBuilder &timeLimit(int ms);
    /// The heading under which the help of its directory lists it.
    ZELCommandBuilder &group(const ZELCommandText &name);
    /// Keeps it out of listings, completions and the help of its directory; it can be run all the same.
    ZELCommandBuilder &hidden(bool on = true);
    /// Says on the warning channel, whenever it is run, that `replacement` should be.
    ZELCommandBuilder &deprecated(const ZELCommandText &replacement);
    /// Only sessions with this role may see and run it; see ZELShell::setRoles().
    ZELCommandBuilder &role(const ZELCommandText &name);

    // Its parameters, in their order.

    /// A parameter that stands at a place of its own.
    ZELCommandBuilder &argument(const ZELCommandText &name, const ZELCommandText &help = "");
    /// A parameter that is named, "--note", with other names behind commas, "--note, -n". Typed "--note TEXT" or
    /// "--note=TEXT", a boolean one as "--fast" alone. It may be left out if it is a boolean, a list, a std::optional,
    /// or has a default.
    ZELCommandBuilder &option(const ZELCommandText &names, const ZELCommandText &help = "");

    // The argument or option that was declared last.

    /// The limits of a number, a size or a duration, both among it; of a list's and a text's length.
    ZELCommandBuilder &range(ZELCommandBound least, ZELCommandBound most);
    /// The only words it may be; upper and lower case are the same.
    ZELCommandBuilder &choices(std::initializer_list<ZELCommandChoice> list);
    /// What it is when it is left out, as one would type it.
    ZELCommandBuilder &defaultValue(const ZELCommandText &word);
    template <class T>
    std::enable_if_t<std::is_arithmetic_v<T>, ZELCommandBuilder &> defaultValue(T number)
    {
        if constexpr (std::is_same_v<T, bool>)
            return defaultValue(number ? "yes" : "no");
        else if constexpr (std::is_floating_point_v<T>)
            return defaultValue(QString::number(number, 'g', QLocale::FloatingPointShortest));
        else
            return defaultValue(QString::number(number));
    }
    /// What Tab offers; called on the session's thread in a try frame with a limit of 200 ms.
    ZELCommandBuilder &completer(ZELCommandCompleter function);
    /// It names a directory or a command of the tree, for Tab.
    ZELCommandBuilder &completeTree();
    /// It names a file of the machine, for Tab.
    ZELCommandBuilder &completeFiles();

private:
    friend class ZELShellServer;
    using Planter = std::function<bool(ZELCommandDraft &)>;
    ZELCommandBuilder(const char *path, const char *name, ZELCommandFunction function, Planter planter);

    std::unique_ptr<ZELCommandDraft> d; ///< null once it is registered or refused
    Planter m_planter;
};

#endif
