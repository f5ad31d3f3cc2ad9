// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_THREADS_H
#define TESTS_SUPPORT_THREADS_H

#include <thread>
#include <type_traits>
#include <vector>

/// Runs a function on several threads at once, with the thread's number when it takes one.
class Threads
{
public:
    template <class F>
    Threads(int count, F what)
    {
        for (int i = 0; i < count; ++i)
            m_threads.emplace_back([what, i]() mutable {
                if constexpr (std::is_invocable_v<F, int>)
                    what(i);
                else
                    what();
            });
    }
    ~Threads() { join(); }
    void join()
    {
        for (std::thread &thread : m_threads)
            thread.join();
        m_threads.clear();
    }

private:
    std::vector<std::thread> m_threads;
};

#endif
