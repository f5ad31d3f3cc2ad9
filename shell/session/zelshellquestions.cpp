// SPDX-License-Identifier: MIT
// What a command asks the user of its session. Runs in the command: a kill, a time limit or Ctrl-C may jump out of it.
#include "zelshellquestions_p.h"

#include "zelarguments_p.h"
#include "zeliodevice.h"
#include "zelshell_p.h"
#include "zelshellloop_p.h"
#include "zelshellreply_p.h"

#include <QDeadlineTimer>

namespace {

const char interruptKey = 3;
const char endKey = 4;

std::shared_ptr<ZELShellPrivate> sessionOf(const ZELArguments &args)
{
    const ZELCriticalSection section;
    const auto use = ZELArgumentsPrivate::get(args)->shell.use();
    auto *shell = qobject_cast<ZELShell *>(use.get());
    return shell ? ZELShellPrivate::get(shell)->shared_from_this() : nullptr;
}

class Question
{
public:
    Question(ZELShellPrivate &session, const ZELArguments &args, const ZELQuestion &question, QString *problem)
        : m_session(session)
        , m_args(args)
        , m_question(question)
        , m_problem(problem)
        , m_deadline(question.timeoutMs)
    {
    }

    std::optional<QString> answer()
    {
        if (m_args.IsBackground())
            return fail("a command in the background cannot ask");
        if (!m_session.isCoreThread())
            return fail("nobody can be asked here");
        if (m_args.hasProtocl())
            return answerInPackets();
        if (m_session.noTerminal)
            return fail("there is no terminal to ask on");
        return answerOnTerminal();
    }

private:
    std::nullopt_t fail(const char *why)
    {
        *m_problem = QLatin1String(why);
        return std::nullopt;
    }

    /// The next byte; nothing, with the reason, when none comes in time.
    std::optional<char> nextByte()
    {
        if (!m_session.loop->waitForInput(m_deadline))
            return fail("no answer came in time");
        const char byte = m_session.loop->getChar();
        if (byte == 0 && m_session.isStopping())
            return fail("the session has ended");
        return byte;
    }

    std::optional<QString> answerOnTerminal()
    {
        m_session.output.write(m_question.text);
        ZELLineEditor editor;
        editor.setUtf8(m_session.utf8Editing);
        const auto line = edit(editor);
        if (!line || m_question.hidden)
            m_session.output.write(QStringLiteral("\n"));
        return line;
    }

    std::optional<QString> edit(ZELLineEditor &editor)
    {
        for (;;) {
            if (!m_session.loop->hasByte()) // bytes that arrived together are echoed together
                echo(editor);
            const auto byte = nextByte();
            const bool isCancelled = byte && (*byte == interruptKey || *byte == endKey);
            // The terminals of modern sessions may send what Enter is there.
            const bool isReturn = byte && *byte == '\r' && m_session.hasPrompt;
            if (byte && !isCancelled && isTooLong(*byte))
                continue;
            const bool isLine = byte && !isCancelled && editor.feed(isReturn ? '\n' : *byte) == ZELLineEditor::Line;
            if (isReturn)
                m_session.loop->skipLineFeed();
            if (!byte || isCancelled || isLine)
                echo(editor);
            if (isLine)
                return taken(editor.takeLine().toLatin1());
            if (!byte || isCancelled)
                return byte ? fail("cancelled") : std::nullopt;
        }
    }

    void echo(ZELLineEditor &editor)
    {
        const QByteArray output = editor.takeOutput();
        if (!m_question.hidden && !output.isEmpty())
            m_session.output.write(output);
    }

    std::optional<QString> answerInPackets()
    {
        if (!ZELArgumentsPrivate::get(m_args)->takesQuestions)
            return fail("this request takes no questions");
        {
            const ZELLogging log = m_args.debug();
            m_args.setProtoclAccept(m_question.hidden ? QStringLiteral("HIDDENQUESTION") : QStringLiteral("QUESTION"));
            ZELLogging(log).noquote().nospace() << m_question.text.trimmed();
        }
        QByteArray line;
        for (auto byte = nextByte(); byte; byte = nextByte()) {
            if (*byte == '\n')
                return taken(line);
            if (!isTooLong(*byte))
                line += *byte;
        }
        return std::nullopt;
    }

    /// As long as a statement may be: what comes beyond that is dropped up to the end of the line.
    bool isTooLong(char byte)
    {
        const int limit = m_session.lineLimit;
        if (byte == '\n' || (byte == '\r' && m_session.hasPrompt))
            return false;
        m_isTooLong = m_isTooLong || (limit > 0 && ++m_length > limit);
        return m_isTooLong;
    }

    std::optional<QString> taken(QByteArray line)
    {
        if (m_isTooLong)
            return fail("the answer is too long");
        if (line.endsWith('\r'))
            line.chop(1);
        return zelTextOf(line);
    }

    ZELShellPrivate &m_session;
    const ZELArguments &m_args;
    const ZELQuestion &m_question;
    QString *const m_problem;
    const QDeadlineTimer m_deadline;
    int m_length = 0;
    bool m_isTooLong = false;
};

} // namespace

void zelLetCommandsAsk()
{
    ZELArgumentsPrivate::asker
        = [](const ZELArguments &args, const ZELQuestion &question, QString *problem) -> std::optional<QString> {
        auto session = sessionOf(args);
        if (!session)
            return std::nullopt;
        Question asked(*session, args, question, problem);
        if (session->isCoreThread())
            session.reset(); // which holds it itself; what a jump leaves on the stack would hold it for ever
        return asked.answer();
    };
}

bool ZELShellLoop::waitForInput(const QDeadlineTimer &deadline)
{
    ZELStream *stream = m_session.output.stream();
    ZELIODevice *device = stream && stream->IsOpen() ? stream->getDevice() : nullptr;
    if (m_next < m_buffer.size() || !device)
        return true;
    const bool isWaiting = m_session.waitingSince;
    if (!isWaiting)
        m_session.noteWaiting();
    const bool came = device->waitForInput(deadline.isForever() ? -1 : int(deadline.remainingTime()));
    if (!isWaiting)
        m_session.waitingSince = 0;
    return came;
}

QString zelAnswersTag()
{
    return QStringLiteral("QU5TV0VSUz1aRUxfU0hFTEw"); // "ANSWERS=ZEL_SHELL" in base64
}
