// SPDX-License-Identifier: MIT
#ifndef TORTURE_H
#define TORTURE_H

#include <QtGlobal>
#include <atomic>
#include <cstdio>
#include <functional>

/// What a child tells its watchdog.
struct Progress
{
    std::atomic<int> survived;
    std::atomic<int> worstUs;
    std::atomic<long long> totalUs;
    std::atomic<int> forced;
};
extern Progress *progress;
extern FILE *nullFile;

/// Runs body in a child; its wait status, or -1 when it made no progress.
int watched(const std::function<int()> &body);
long long nowUs();
/// Counts the time since then, and what was forced.
void record(long long since);
/// A message handler.
void discard(QtMsgType, const QMessageLogContext &, const QString &message);

void workMix();
/// Allocates, prints, locks and logs.
void health();

bool runRemote(int count);
bool runExhausted();

#endif
