// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOMMAND_P_H
#define ZELSHELLCOMMAND_P_H

#include "zelcommandsignature_p.h"
#include "zelshellcommand.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ZELShellCommandTree;
struct ZELCommandAudience;

/// Who is told of an execution, whichever way it ends; in critical sections, so briefly.
class ZELCommandWatcher
{
public:
    virtual ~ZELCommandWatcher() = default;
    virtual void started() { } ///< before the command, inside its frame
    virtual void ended() { } ///< once after started(), also when a kill jumps over the call
    virtual void abandoned() { } ///< after that, in the case of a kill only
};

class ZELShellCommandPrivate
{
public:
    struct Run
    {
        ZELShellCommandTree *node = nullptr; ///< a hold on the command's leaf, given back at the end; may be null
        bool always = true; ///< start also when the command is running and does not allow several executions
        std::shared_ptr<ZELCommandWatcher> watcher; ///< may be null
    };

    static ZELShellCommandPrivate *get(ZELShellCommand *command) { return command->d.get(); }
    /// False when the command was running already; nothing was called then.
    bool execute(ZELShellCommand *command, const ZELArguments &args, Run run);

    ~ZELShellCommandPrivate();
    /// A command made of what a builder has collected.
    static std::unique_ptr<ZELShellCommand> make(ZELCommandDraft &draft);
    ZELCommandTraits commandTraits() const;
    void changeTraits(const std::function<void(ZELCommandTraits &)> &change);
    /// Whether listings for the audience name it, and whether it may run it.
    bool isVisible(const ZELCommandAudience &audience) const;
    bool isFor(const ZELCommandAudience &audience) const;
    QVariant call(ZELShellCommand *command, const ZELArguments &args);

    /// Limit of commands that have none of their own, in milliseconds; 0 none.
    static std::atomic<int> defaultTimeLimit;

    std::atomic<int> running{0};
    std::atomic<bool> multiRun{false};
    std::atomic<int> timeLimit{-1};
    std::atomic<bool> deprecated{false};
    std::atomic<bool> restricted{false}; ///< hidden or of a role: the traits are to be looked at
    std::shared_ptr<const ZELTypedCommand> typed; ///< null for slots; unchanged while the command is in a tree
    QMetaObject::Connection receiverGone; ///< takes the command out of its tree; cut when it goes before
    mutable std::mutex mutex; ///< guards the fields below
    QString description;
    ZELCommandTraits traits;
    std::vector<std::unique_ptr<QObject>> relays; ///< one per binding, without thread affinity
};

#endif
