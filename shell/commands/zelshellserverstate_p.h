// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSERVERSTATE_P_H
#define ZELSHELLSERVERSTATE_P_H

#include "zelarguments.h"
#include "zelguard_p.h"
#include "zelshellcommandtree.h"

#include <functional>
#include <memory>
#include <mutex>

class ZELShell;

/// A lock that a kill waits for.
class ZELServerLock
{
public:
    explicit ZELServerLock(std::mutex &mutex)
        : m_lock(mutex)
    {
    }

private:
    ZELCriticalSection m_section;
    std::lock_guard<std::mutex> m_lock;
};

/// What hosts can set for all shells. A plain value; shells take a copy where they need one.
struct ZELShellSettings
{
    std::function<void(ZELArguments)> help; ///< empty: commands get "-h" and "--help" themselves
    std::function<void(ZELArguments)> weakup;
    std::function<QString(const ZELShell &)> prompt; ///< of modern editing; empty: the library's own
    std::function<bool(const ZELArguments &)> permission; ///< remote sessions; empty: everything is allowed
    bool filters = false; ///< a bar between blanks filters a statement's text
    bool helpCommands = false; ///< all commands answer "-h" and "--help", not typed ones alone
    bool loginRequired = false; ///< remote sessions that have not logged in end, names make no accounts
    bool passwordHidden = false; ///< in the debug line of the handshake
    bool keyLogin = true; ///< "--key" is looked at
    bool remoteSys = true; ///< "sys" in remote sessions
    bool interruptible = false; ///< these are given to a shell when the server makes it
    bool utf8Editing = false;
    int editing = 0; ///< ZELShellServer::Editing
    int lineLimit = 0;
    int idleLimit = 0;
    int handshakeTime = 10000; ///< ms until a peer has said who it is; 0: for ever
    int abandonedLimit = 0; ///< what runs for a peer that has gone ends after that time; 0: at its own end
};

/**
 * What a server shares with its shells and outlives it for their sake: both roots and the settings.
 *
 * Held by std::shared_ptr by the server, every shell and everybody who walks the trees; the last holder deletes the
 * trees, on whatever thread that is.
 * Threads: any. The roots never change; the settings are replaced whole, and whoever has got them keeps what they were.
 */
class ZELShellServerState
{
public:
    ZELShellServerState();
    ~ZELShellServerState();
    ZELShellServerState(const ZELShellServerState &) = delete;
    ZELShellServerState &operator=(const ZELShellServerState &) = delete;

    /// That of the latest server; a fresh one without commands when there is no server.
    static std::shared_ptr<ZELShellServerState> current();

    ZELShellCommandTree *systemRoot() const { return m_systemRoot.get(); }
    ZELShellCommandTree *mainRoot() const { return m_mainRoot.get(); }

    std::shared_ptr<const ZELShellSettings> settings() const;
    std::function<void(ZELArguments)> helpFunction() const { return settings()->help; }
    std::function<void(ZELArguments)> weakupFunction() const { return settings()->weakup; }
    /// Calls `change` with a copy that takes the settings' place, under the lock.
    void change(const std::function<void(ZELShellSettings &)> &change);

    std::recursive_mutex registration; ///< held by one registration at a time, never while a tree is read

private:
    friend class ZELShellServer;
    static void setCurrent(const std::shared_ptr<ZELShellServerState> &state);

    const std::unique_ptr<ZELShellCommandTree> m_systemRoot;
    const std::unique_ptr<ZELShellCommandTree> m_mainRoot;
    mutable std::mutex m_mutex;
    std::shared_ptr<const ZELShellSettings> m_settings = std::make_shared<ZELShellSettings>();
};

#endif
