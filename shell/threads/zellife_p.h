// SPDX-License-Identifier: MIT
#ifndef ZELLIFE_P_H
#define ZELLIFE_P_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

/**
 * A weak reference that any thread may turn into a short use of the object.
 *
 * An object that others reach from foreign threads owns a ZELLife, hands out ZELLife::Ref values and calls end()
 * first thing in its most derived destructor. A Ref outlives the object; use() then answers an empty Use.
 * While a Use stands the object is not destroyed: end() waits for the uses of other threads, not for those of its
 * own. The lock is held only while the list of users changes, never during a use.
 *
 * Keep a Use short, and inside a ZELCriticalSection where a kill may arrive: a jump over a Use leaves its entry
 * behind, for which end() waits at most three seconds.
 *
 *     ZELLife<Stream> m_life{this};                 // member
 *     ~Stream() { m_life.end(); }
 *     if (auto use = ref.use()) use->write(text);   // any thread
 */
template <class T>
class ZELLife
{
    struct State
    {
        std::mutex mutex;
        std::condition_variable freed;
        T *object = nullptr;
        std::vector<std::thread::id> users;
    };

public:
    class Use
    {
    public:
        Use() = default;
        Use(Use &&other) noexcept
            : m_state(std::move(other.m_state))
            , m_object(std::exchange(other.m_object, nullptr))
        {
        }
        Use &operator=(Use &&) = delete;
        ~Use()
        {
            if (!m_object)
                return;
            std::lock_guard<std::mutex> lock(m_state->mutex);
            auto &users = m_state->users;
            auto mine = std::find(users.begin(), users.end(), std::this_thread::get_id());
            if (mine != users.end()) {
                *mine = users.back();
                users.pop_back();
            }
            if (!m_state->object) // end() waits
                m_state->freed.notify_all();
        }
        explicit operator bool() const { return m_object != nullptr; }
        T *operator->() const { return m_object; }
        T *get() const { return m_object; }

    private:
        friend class ZELLife;
        std::shared_ptr<State> m_state;
        T *m_object = nullptr;
    };

    class Ref
    {
    public:
        /// Empty when the object's life has ended or the Ref never had one.
        Use use() const
        {
            Use result;
            if (!m_state)
                return result;
            std::lock_guard<std::mutex> lock(m_state->mutex);
            if (m_state->object) {
                m_state->users.push_back(std::this_thread::get_id());
                result.m_state = m_state;
                result.m_object = m_state->object;
            }
            return result;
        }
        /// True for a Ref that never had an object.
        bool isNull() const { return !m_state; }
        /// The object or null; the answer is only as good as the caller's knowledge of who destroys it.
        T *peek() const
        {
            if (!m_state)
                return nullptr;
            std::lock_guard<std::mutex> lock(m_state->mutex);
            return m_state->object;
        }

    private:
        friend class ZELLife;
        std::shared_ptr<State> m_state;
    };

    explicit ZELLife(T *object)
        : m_state(std::make_shared<State>())
    {
        m_state->object = object;
    }
    ~ZELLife() { end(); }
    ZELLife(const ZELLife &) = delete;
    ZELLife &operator=(const ZELLife &) = delete;

    Ref ref() const
    {
        Ref result;
        result.m_state = m_state;
        return result;
    }

    /// Refuses new uses and waits for those of other threads. May be called more than once.
    void end()
    {
        std::unique_lock<std::mutex> lock(m_state->mutex);
        m_state->object = nullptr;
        const auto self = std::this_thread::get_id();
        m_state->freed.wait_for(lock, std::chrono::seconds(3), [&] {
            const auto &users = m_state->users;
            return std::all_of(users.begin(), users.end(), [&](std::thread::id id) { return id == self; });
        });
    }

private:
    std::shared_ptr<State> m_state;
};

#endif
