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
class ZELStdDevicePrivate;
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
    friend class ZELStream;
    const std::shared_ptr<ZELIODevicePrivate> d;
};

/**
 * The terminal, or any other descriptor: bytes in, bytes out, raw mode while it is open.
 *
 * In raw mode there is no echo and no line buffering, and Ctrl-C, Ctrl-Z and Ctrl-\ arrive as the bytes 3, 26 and 28.
 * The settings found are restored by Close() and at every end of the process that can be caught: exit, a fatal fault,
 * and SIGTERM, SIGHUP and SIGINT where the host left their default action.
 *
 * Descriptor 0 is used for output too, as a terminal is open for both; where it was opened for reading only (a pipe or
 * a file as standard input) output goes to descriptor 1.
 *
 * Threads: any thread may write and Close(); one reads.
 */
class ZELSHELL_EXPORT ZELStdDevice : public ZELIODevice
{
public:
    /// Takes over the descriptor and calls Start() at once. A negative or closed one reads as ended and
    /// swallows output.
    explicit ZELStdDevice(int fd);
    /// Closes.
    ~ZELStdDevice() override;

    /// Everything up to the first read of less than 1024 bytes; blocks for the first byte. Empty at the end of the
    /// input and once the device is closed.
    QByteArray readAll() override;
    /// Writes all bytes, in as many system calls as it takes. A descriptor that takes nothing for ten seconds, or an
    /// error, drops the rest.
    void write(QByteArray data) override;
    void write(QString text) override;
    /// Raw mode, then the start hook.
    void Start() override;
    /// Restores the terminal, calls the close hook, closes the descriptor. Nothing the second time.
    void Close() override;
    /// Always true.
    bool readValid() const override;
    /// Always true.
    bool writeValid() const override;

    /// Saves the settings found, unless they are the raw ones that this process set itself, and makes the terminal raw.
    /// Nothing on a descriptor that is no terminal.
    void SetRawInputMode();
    /// Puts back the settings saved.
    void CloseRawInputMode();

    /// The descriptor as given to the constructor, -1 after Close().
    int descriptor() const;

private:
    std::unique_ptr<ZELStdDevicePrivate> d;
};

/// The terminal's number of columns; -1 for null, for what is no terminal, and where the terminal does not tell.
ZELSHELL_EXPORT int get_screen_width(ZELStdDevice *device);

#endif
