// SPDX-License-Identifier: MIT
#include "zelstddevice.h"

#include "zelguard_p.h"
#include "zelterminal_p.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {
constexpr int BlockSize = 1024;
// A pipe that is always full would otherwise keep a reader for ever.
constexpr int MaxBurst = 64 * BlockSize;
constexpr int WriteTimeoutMs = 10 * 1000;

// What a kill abandons on the stack is lost, and with it a use of the descriptor, which then stays open for ever: so
// every use is inside of a critical section, and the calls that wait are the ones that a kill ends.
struct PollCall
{
    pollfd *fds;
    nfds_t count;
    int ms;
    int ready;
    int error;

    static void run(void *call)
    {
        auto *self = static_cast<PollCall *>(call);
        self->ready = poll(self->fds, self->count, self->ms);
        self->error = errno;
    }
};

struct ReadCall
{
    int fd;
    char *to;
    ssize_t count;

    static void run(void *call)
    {
        auto *self = static_cast<ReadCall *>(call);
        self->count = ::read(self->fd, self->to, BlockSize);
    }
};

// Closed by the last user, so that no system call ever meets a number that was closed and reused under it.
struct OpenDescriptor
{
    explicit OpenDescriptor(int number)
        : fd(number)
        , out(number)
    {
        const int flags = fd == STDIN_FILENO ? fcntl(fd, F_GETFL) : -1;
        if (flags != -1 && (flags & O_ACCMODE) == O_RDONLY)
            out = STDOUT_FILENO;
    }
    ~OpenDescriptor();
    /// False when it was closed, or nothing came in time; a negative time is none.
    bool waitReadable(int ms = -1);
    bool waitWritable();
    void readAvailable(QByteArray *to);
    void wakeUp();

    const int fd;
    int out;
    std::atomic<bool> closed{false};
    std::atomic<bool> abandoned{false}; ///< not to be closed

private:
    std::mutex mutex; // guards wake
    int wake = -1;
};

OpenDescriptor::~OpenDescriptor()
{
    if (wake >= 0)
        close(wake);
    if (abandoned)
        return;
    // The numbers of the standard descriptors stay taken: the next file opened would get what others print there.
    const int null = fd <= STDERR_FILENO ? open("/dev/null", O_RDWR | O_CLOEXEC) : -1;
    if (null < 0) {
        close(fd);
        return;
    }
    dup2(null, fd);
    close(null);
}

bool OpenDescriptor::waitReadable(int ms)
{
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(mutex);
        if (wake < 0)
            wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    const QDeadlineTimer deadline(ms);
    while (!closed) {
        pollfd fds[3] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}, {zelTerminalResumeDescriptor(), POLLIN, 0}};
        PollCall call{fds, 3, int(deadline.remainingTime()), 0, 0};
        if (!zelInterruptibly(PollCall::run, &call))
            return false;
        if (call.ready == 0 || (call.ready < 0 && call.error != EINTR && call.error != EAGAIN))
            return false;
        if (fds[1].revents & POLLNVAL && wake >= 0)
            zelGiveUp("the event descriptor of a device was closed by somebody else");
        if (fds[2].revents)
            zelTerminalResumed();
        if (fds[0].revents)
            return !closed;
    }
    return false;
}

bool OpenDescriptor::waitWritable()
{
    QElapsedTimer timer;
    timer.start();
    while (!closed && !zelStopWanted() && timer.elapsed() < WriteTimeoutMs) {
        pollfd target = {out, POLLOUT, 0};
        PollCall call{&target, 1, 100, 0, 0};
        if (zelInterruptibly(PollCall::run, &call) && call.ready > 0)
            return (target.revents & POLLOUT) != 0;
    }
    return false;
}

void OpenDescriptor::wakeUp()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(mutex);
    closed = true;
    const quint64 one = 1;
    if (wake >= 0 && ::write(wake, &one, sizeof one) < 0)
        close(std::exchange(wake, -1)); // cannot happen: the counter is far from full
}

/// A terminal that was stopped, and a pipe that nobody reads, may block for ever.
struct WriteCall
{
    int fd;
    const char *from;
    size_t size;
    ssize_t count;

    static void run(void *call)
    {
        auto *self = static_cast<WriteCall *>(call);
        self->count = ::write(self->fd, self->from, self->size);
    }
};

// What a read or write failed with may pass.
bool passing(int error)
{
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}
} // namespace

class ZELStdDevicePrivate
{
public:
    std::shared_ptr<OpenDescriptor> open() const
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(mutex);
        return descriptor;
    }

    bool readOnce(QByteArray *to);

    mutable std::mutex mutex; ///< guards the rest
    std::shared_ptr<OpenDescriptor> descriptor;
    bool closed = false;
};

ZELStdDevice::ZELStdDevice(int fd)
    : d(new ZELStdDevicePrivate)
{
    zelIgnoreBrokenPipes();
    // A number that is closed now would be taken by the next descriptor of this very device.
    if (fcntl(fd, F_GETFD) != -1)
        d->descriptor = std::make_shared<OpenDescriptor>(fd);
    Start();
}

ZELStdDevice::~ZELStdDevice()
{
    Close();
    endLife();
}

QByteArray ZELStdDevice::readAll()
{
    for (;;) {
        QByteArray result;
        if (d->readOnce(&result))
            return result;
        usleep(1000); // a kill or time limit could not be taken here yet
    }
}

// False when a kill or time limit has ended it.
bool ZELStdDevicePrivate::readOnce(QByteArray *to)
{
    ZELCriticalSection section;
    const auto open = this->open();
    if (open && open->waitReadable())
        open->readAvailable(to);
    return !to->isEmpty() || !zelStopWanted();
}

void OpenDescriptor::readAvailable(QByteArray *to)
{
    QByteArray &result = *to;
    char block[BlockSize];
    while (result.size() < MaxBurst) {
        ReadCall call{fd, block, 0};
        if (!zelInterruptibly(ReadCall::run, &call))
            return;
        const ssize_t count = call.count;
        if (count > 0)
            result.append(block, int(count));
        else if (count == 0 || !passing(errno))
            return;
        pollfd more = {fd, POLLIN, 0};
        if (count == BlockSize ? poll(&more, 1, 0) <= 0 : !result.isEmpty())
            return;
        if (count < 0 && !waitReadable())
            return;
    }
}

bool ZELStdDevice::waitForInput(int ms)
{
    ZELCriticalSection section;
    const auto open = d->open();
    return !open || open->waitReadable(ms) || open->closed;
}

void ZELStdDevice::write(QByteArray data)
{
    ZELCriticalSection section;
    const auto open = d->open();
    if (!open)
        return;
    const char *next = data.constData();
    const char *const end = next + data.size();
    while (next != end && !open->closed) {
        WriteCall call{open->out, next, size_t(end - next), 0};
        if (!zelInterruptibly(WriteCall::run, &call))
            return;
        if (call.count > 0)
            next += call.count;
        else if (!passing(errno) || (errno != EINTR && !open->waitWritable()))
            return;
    }
}

void ZELStdDevice::write(QString text)
{
    write(text.toLatin1());
}

void ZELStdDevice::Start()
{
    SetRawInputMode();
    callStartHook();
}

void ZELStdDevice::Close()
{
    std::shared_ptr<OpenDescriptor> open;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        if (std::exchange(d->closed, true))
            return;
        open.swap(d->descriptor);
    }
    if (open) {
        zelTerminalLeaveRaw(open->fd);
        open->wakeUp();
    }
    callCloseHook();
}

void zelAbandonDescriptor(ZELStdDevice &device)
{
    if (const auto open = device.d->open())
        open->abandoned = true;
    device.Close();
}

bool ZELStdDevice::readValid() const
{
    return true;
}

bool ZELStdDevice::writeValid() const
{
    return true;
}

void ZELStdDevice::SetRawInputMode()
{
    if (const auto open = d->open())
        zelTerminalEnterRaw(open->fd);
}

void ZELStdDevice::CloseRawInputMode()
{
    if (const auto open = d->open())
        zelTerminalLeaveRaw(open->fd);
}

int ZELStdDevice::descriptor() const
{
    const auto open = d->open();
    return open ? open->fd : -1;
}

int get_screen_width(ZELStdDevice *device)
{
    const int fd = device ? device->descriptor() : -1;
    winsize size = {};
    if (fd < 0 || !isatty(fd) || ioctl(fd, TIOCGWINSZ, &size) < 0)
        return -1;
    return size.ws_col;
}
