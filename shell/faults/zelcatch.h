// SPDX-License-Identifier: MIT
#ifndef ZELCATCH_H
#define ZELCATCH_H

#include "zelshell_export.h"

#include <QString>
#include <Qt>
#include <functional>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <time.h>

/**
 * A failure as text: what was raised, or what a fatal signal, a time limit or a kill became.
 *
 * A value that owns its texts; the pointers handed to exception_raise() belong to the frame that catches them and are
 * deleted by whoever opened that frame.
 */
class ZELSHELL_EXPORT Exception
{
public:
    Exception();
    Exception(const char *what);
    Exception(const char *where, const char *what);
    Exception(const char *what, const char *file, int line);
    Exception(const char *where, const char *what, const char *file, int line);
    Exception(const Exception &other);
    Exception &operator=(const Exception &other) = default;
    virtual ~Exception();

    /// "Exception in WHERE: WHAT, file FILE, line LINE".
    virtual QString ToString();
    virtual QString ToString() const;

    virtual QString where();
    virtual QString what();
    virtual QString file();
    virtual QString line();
    /// "Receive signal number is:" and the number in single quotes; 0 for an explicit raise.
    virtual QString single();
    virtual QString where() const;
    virtual QString what() const;
    virtual QString file() const;
    virtual QString line() const;
    virtual QString single() const;

    virtual void setsingle(int number);
    virtual void setwhere(QString where);
    virtual void setwhat(QString what);
    virtual void setfile(QString file);
    virtual void setline(QString line);

    /// Assigns all five fields.
    void copy(const Exception &other);
    /// Sets the four texts of e through its setters and returns it.
    static Exception *initException(Exception *e, const char *where, const char *what, const char *file, int line);

private:
    QString m_where;
    QString m_what;
    QString m_file;
    QString m_line;
    int m_single = 0;
};

/// A failed assertion: "ASSERT failure WHERE: "WHAT", file FILE, line LINE".
class ZELSHELL_EXPORT AssertException : public Exception
{
public:
    using Exception::Exception;
    AssertException() = default;
    ~AssertException() override;
    QString ToString() override;
    QString ToString() const override;
};

/// A failure whose text is its message alone, as a signal or a kill leaves it.
class ZELSHELL_EXPORT ErrorException : public Exception
{
public:
    using Exception::Exception;
    ErrorException() = default;
    ~ErrorException() override;
    QString ToString() override;
    QString ToString() const override;
};

/**
 * One try frame: where a failure of the guarded code returns to.
 *
 * Made with new by the code that opens the frame, deleted by it together with the exception after the frame was
 * popped. When a kill returns to a frame further out, that one deletes the frames it drops, after their abandoned
 * actions have run. Belongs to one thread; only Kill() may be called from others, while the frame is open.
 */
struct ZELSHELL_EXPORT ExceptionHelp
{
    ExceptionHelp();
    ExceptionHelp(const ExceptionHelp &) = delete;
    ExceptionHelp &operator=(const ExceptionHelp &) = delete;
    ~ExceptionHelp();

    /// Turns state into an exception; one that was raised is kept, except by a kill.
    void Config();
    /// Ends the thread body that holds this frame, see Except_frame::Kill().
    int Kill();

    int state = 0; ///< why the frame was entered by jump: a signal number, 6 for an explicit raise
    Qt::HANDLE threadId;
    pthread_t tid;
    sigjmp_buf env;
    Exception *exception = nullptr; ///< owned by whoever opened the frame
    timer_t timer = {};
    int timeoutMs = 0; ///< limit for the guarded code, 0 for none
    bool timerArmed = false;
    bool caught = false; ///< the guarded code was abandoned, exception says why

    /// Runs on the owning thread, in normal context, when a jump to a frame further out abandons this one.
    std::function<void()> abandoned;

    /// Bookkeeping of the library.
    struct Link
    {
        ExceptionHelp *outer = nullptr;
        ExceptionHelp *loopFrame = nullptr; ///< event loop state at opening
        int loops = 0;
        quintptr stack = 0; ///< where the opener's part of the stack begins
        int critical = 0; ///< critical depth of the opener
        int held = 0; ///< how much of it ends while the guarded code runs
        void *caughtExceptions = nullptr; ///< C++ exception state at opening
        unsigned uncaughtExceptions = 0;
        unsigned generation = 0; ///< tells a late timer signal of an older frame from ours
        volatile bool armed = false; ///< env is filled, jumps may lead here
        volatile bool expired = false; ///< the time limit was reached inside a critical section
        bool interruptible = false; ///< interrupts lead here
        volatile bool interrupted = false; ///< one has come
        QString note; ///< what() of a foreign C++ exception
        pid_t process = 0; ///< that opened it: a forked child must not come back to it
    } link;
};

/**
 * The process-wide registry of try frames, reached through except_stack; every function acts on the calling thread,
 * except Kill(). All of it may be used from any thread at any time.
 *
 * A frame opened by hand, where the guarded call of zelfault.h does not fit:
 *
 *     ExceptionHelp *frame = except_stack->Push(new ExceptionHelp);
 *     except_stack->setJumped(sigsetjmp(frame->env, 1) != 0);
 *     if (except_stack->StartExcept())
 *         work();                                   // owns nothing on the stack: a jump runs no destructors
 *     except_stack->CleanUp();
 *     except_stack->Pop();
 *     if (frame->caught) qDebug() << frame->exception->ToString();
 *     delete frame->exception; delete frame;
 *
 * The function that calls sigsetjmp must stay on the stack until Pop(), and reads after it only variables that it did
 * not change in between.
 */
class ZELSHELL_EXPORT Except_frame
{
public:
    /// Makes the frame the thread's innermost one; it becomes a target for jumps with StartExcept() or StartTimer().
    ExceptionHelp *Push(ExceptionHelp *frame);
    /// Takes the innermost frame off and returns it, null without one.
    ExceptionHelp *Pop();
    /// The thread's innermost frame, null without one.
    ExceptionHelp *Innermost() const;
    int Depth() const;

    /// Whether the thread's last sigsetjmp returned from a jump.
    void setJumped(bool jumped);

    /// Direct path: installs the signal handlers, arms the frame, true. After a jump: the frame's exception is made
    /// and its caught flag set, false.
    bool StartExcept();
    /// The same with a time limit: after ms milliseconds the guarded code is abandoned.
    bool StartTimer(int ms);
    /// Ends the guarded part: afterwards the innermost frame is no target any more and holds an exception in any
    /// case ("no exception" when it was left normally).
    void CleanUp();

    /**
     * Ends the body of a thread: control returns to its outermost frame, frames further in are dropped. Returns at
     * once; the thread is stopped where nothing is torn by it, an event loop is left by quit(). 0, or ESRCH without
     * any signal when the thread has no open frame.
     */
    int Kill(void *threadId);
};

extern ZELSHELL_EXPORT Except_frame *except_stack;

/// Sets file and line (decimal text) and returns e.
ZELSHELL_EXPORT Exception *exception_creat(Exception *e, const char *file, int line);
ZELSHELL_EXPORT Exception exception_creat(Exception e, const char *file, int line);
/// Hands e to the thread's innermost frame and returns there, without destructors on the way; without a frame throws
/// the pointer.
[[noreturn]] ZELSHELL_EXPORT void exception_raise(Exception *e, const char *file, int line);
/// Raises an AssertException.
[[noreturn]] ZELSHELL_EXPORT void zel_assert_x(const char *where, const char *what, const char *file, int line);
/// A new Exception("timer stoped"); the spelling is part of the interface.
ZELSHELL_EXPORT Exception *exception_down();
/// Does nothing; for macros that need a statement.
ZELSHELL_EXPORT void zel_noop();

/// The report file of errorDump(), on at start.
ZELSHELL_EXPORT void enable_error_dump();
ZELSHELL_EXPORT void disable_error_dump();
/// Whether a segmentation fault writes a report at all, on at start.
ZELSHELL_EXPORT void zelSetCrashDump(bool on);

/// Directory of the report files "error-yyyy-MM-dd.txt"; a directory that does not exist changes nothing.
ZELSHELL_EXPORT void installErrorCatch(QString dir);
/// Installs the handlers below and the terminate handler. Every opening of a frame does it, so that handlers which a
/// host or a plug-in put in place do not last.
ZELSHELL_EXPORT void installUnixSignal();
/// Creates a timer that raises SIGALRM in the calling thread after ms milliseconds, then every 1800 seconds.
ZELSHELL_EXPORT void installTimer(timer_t &timer, int ms);
/// The whole crash report of the calling thread: console part, and the file when one is wanted. Async-signal-safe.
ZELSHELL_EXPORT void errorDump(int sig);
/// The console part alone. Async-signal-safe.
ZELSHELL_EXPORT void sigHandler(int sig);

/// What the handlers do; each acts on the calling thread and returns only when there is no frame to jump to.
ZELSHELL_EXPORT void recvErrSignal(int sig);
ZELSHELL_EXPORT void recvTimeOutSignal(int sig);
ZELSHELL_EXPORT void recvThKillSignal(int sig);
ZELSHELL_EXPORT void recvAboutignal(int sig); // the spelling is part of the interface
/// Job-control texts on the console; not installed by the library.
ZELSHELL_EXPORT void recvPauseSignal(int sig);
ZELSHELL_EXPORT void recvResumeSignal(int sig);

/// Ends the application's event loop with code 0.
ZELSHELL_EXPORT void CloseApplication();
/// Ends it with code 8888, which asks the launcher to start the application again (a parent sees 184).
ZELSHELL_EXPORT void ReStartApplication();

#endif
