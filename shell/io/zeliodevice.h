// SPDX-License-Identifier: MIT
#ifndef ZELIODEVICE_H
#define ZELIODEVICE_H

#include "zelshell_export.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <functional>
#include <memory>

class QThread;
class ZELIODevicePrivate;
class ZELStream;

/**
 * A byte device under a ZELStream: the terminal, a TCP connection, or one of the host's own.
 *
 * A device moves bytes and knows nothing of lines or packets. It reports "data ready" and "closed" through hooks that
 * the stream fills in; a third hook, "started", is the host's. The owner of a device destroys it; a stream may outlive
 * it and then behaves as closed.
 *
 * Threads: hooks may be set and called from any thread. A device that does its input and output in a thread of its own
 * returns it from innerThread(); a stream then carries every write into that thread.
 *
 *     class Uart : public ZELIODevice {
 *         ~Uart() override { endLife(); Close(); }
 *         void onBytes() { callReadyReadHook(); }          // the driver's callback
 *         void Close() override { m_port.close(); callCloseHook(); }
 *         ...
 *     };
 */
class ZELSHELL_EXPORT ZELIODevice
{
public:
    using Hook = std::function<void()>;

    /// Enters the device into Device_Table().
    ZELIODevice();
    /// Takes the device out of Device_Table() and destroys the hooks.
    virtual ~ZELIODevice();

    /// The bytes that can be read now; may block for the first one. Empty at the end of the input.
    virtual QByteArray readAll() = 0;
    virtual void write(QByteArray data) = 0;
    /// Writes the text as Latin-1: devices are byte-transparent, other characters are not preserved.
    virtual void write(QString text) = 0;
    virtual void Start() = 0;
    /// May be called more than once, from any thread.
    virtual void Close() = 0;
    /// The thread that the device does its input and output in; null here: none of its own.
    virtual QThread *innerThread();
    /// Gives the device up: one that is owned by nobody else arranges for its deletion. Nothing here.
    virtual void release();
    virtual bool readValid() const = 0;
    virtual bool writeValid() const = 0;
    /// Takes one such byte out of the input that waits to be read, wherever it stands in it; false when there is none,
    /// and here.
    virtual bool takeByte(char byte);
    /// Waits that many milliseconds at most; true when readAll() will not block: for input, or at its end. Here, for
    /// devices that cannot tell, at once.
    virtual bool waitForInput(int ms);
    /// Takes what it can take at once, from any thread and without waiting, after what was written before: how many
    /// bytes, from the first on. 0 here, and where the bytes have to go through write().
    virtual qint64 writeNow(const QByteArray &data);
    /// Begins to close and does not wait for the end, which comes by itself. Close() here.
    virtual void closeSoon();

    void setReadyReadHook(Hook hook);
    void setCloseHook(Hook hook);
    void setStartHook(Hook hook);

    /// The stream that is bound to this device, or null. A device carries at most one.
    ZELStream *boundStream() const;

    /// Every live device. A copy: any thread may ask, but only a device's owner knows how long the pointer is good.
    static QList<ZELIODevice *> Device_Table();

protected:
    /// For concrete devices: input is available, the device was closed, the device is ready. Without a hook nothing
    /// happens. The hook runs in the calling thread, without a lock.
    void callReadyReadHook();
    void callCloseHook();
    void callStartHook();
    /// To be called first in the most derived destructor: waits for writes of other threads that are under way.
    void endLife();

private:
    Q_DISABLE_COPY(ZELIODevice)
    friend class ZELIODevicePrivate;
    friend class ZELStream;
    const std::shared_ptr<ZELIODevicePrivate> d;
};

#include "zelstddevice.h" // kept for hosts that expect the class here

#endif
