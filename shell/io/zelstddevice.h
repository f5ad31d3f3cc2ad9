// SPDX-License-Identifier: MIT
#ifndef ZELSTDDEVICE_H
#define ZELSTDDEVICE_H

#include "zeliodevice.h"

class ZELStdDevicePrivate;

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
    bool waitForInput(int ms) override;
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
    friend void zelAbandonDescriptor(ZELStdDevice &device);
    std::unique_ptr<ZELStdDevicePrivate> d;
};

/// The terminal's number of columns; -1 for null, for what is no terminal, and where the terminal does not tell.
ZELSHELL_EXPORT int get_screen_width(ZELStdDevice *device);

#endif
