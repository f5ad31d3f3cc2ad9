// SPDX-License-Identifier: MIT
#include "zelsocketcalls_p.h"

#include <QByteArray>
#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

bool zelPollOne(qintptr descriptor, short events, int timeoutMs)
{
    pollfd one{int(descriptor), events, 0};
    return poll(&one, 1, timeoutMs) > 0 && one.revents & events;
}

qint64 zelSendNow(qintptr descriptor, const QByteArray &data)
{
    return std::max(
        ssize_t(0), send(int(descriptor), data.constData(), size_t(data.size()), MSG_DONTWAIT | MSG_NOSIGNAL));
}

qint64 zelReceiveInto(qintptr descriptor, QByteArray &to, int limit)
{
    char line[512];
    const int before = to.size();
    const ssize_t head = recv(int(descriptor), line, size_t(std::min(int(sizeof line), limit - before)), MSG_DONTWAIT);
    if (head <= 0)
        return head;
    to.append(line, int(head));
    int pending = 0;
    if (head == sizeof line)
        ioctl(int(descriptor), FIONREAD, &pending);
    pending = std::min(pending, limit - to.size());
    if (pending <= 0)
        return head;
    const int at = to.size();
    to.resize(at + pending);
    const ssize_t rest = recv(int(descriptor), to.data() + at, size_t(pending), MSG_DONTWAIT);
    to.resize(at + std::max(0, int(rest)));
    return head;
}

namespace {

// What the peer sent before it saw the end has arrived when it has acknowledged the end.
bool isAcknowledged(qintptr descriptor)
{
    int unacknowledged = 0;
    return ioctl(int(descriptor), SIOCOUTQ, &unacknowledged) == 0 && unacknowledged == 0;
}

} // namespace

void zelDrain(qintptr descriptor, int timeMs)
{
    QElapsedTimer timer;
    timer.start();
    char buffer[4096];
    for (int pause = 1; timer.elapsed() < timeMs; pause = std::min(2 * pause, 20)) {
        const bool acknowledged = isAcknowledged(descriptor);
        zelPollOne(descriptor, POLLIN, pause);
        const ssize_t count = recv(int(descriptor), buffer, sizeof buffer, MSG_DONTWAIT);
        const bool nothing = count < 0 && (errno == EAGAIN || errno == EINTR);
        if (count == 0 || (count < 0 && !nothing) || (nothing && acknowledged))
            return;
    }
}
