// SPDX-License-Identifier: MIT
#ifndef ZELSTREAM_H
#define ZELSTREAM_H

#include "zelshell_export.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <memory>

class ZELAbstractStreamPrivate;
class ZELIODevice;
class ZELStreamPrivate;

/**
 * Where shells and log handles read and write.
 *
 * Log handles may outlive their stream and are dropped then; for that a subclass calls endLife() first thing in its
 * destructor. Threads: see the subclass.
 *
 *     class Recorder : public ZELAbstractStream {
 *         Q_OBJECT
 *     public:
 *         ~Recorder() override { endLife(); }
 *         void write(QString data) override { m_text += data; }
 *         ...
 *     };
 */
class ZELSHELL_EXPORT ZELAbstractStream : public QObject
{
    Q_OBJECT
public:
    explicit ZELAbstractStream(QObject *parent = nullptr);
    ~ZELAbstractStream() override;

    Q_INVOKABLE virtual QByteArray readAll() = 0;
    Q_INVOKABLE virtual void write(QByteArray data) = 0;
    Q_INVOKABLE virtual void write(QString data) = 0;
    Q_INVOKABLE virtual bool IsOpen() = 0;

Q_SIGNALS:
    void readyRead();

protected:
    /// From then on log handles no longer reach this stream, and those that are writing on other threads have finished.
    void endLife();

private:
    friend class ZELAbstractStreamPrivate;
    const std::unique_ptr<ZELAbstractStreamPrivate> d;
};

/**
 * A stream on a ZELIODevice: hooks become signals, output to a closed device is dropped, and writes to a device with a
 * thread of its own are carried into that thread.
 *
 * The stream does not own its device. There is no way back from closed to open: bind a new stream to a new device.
 *
 * Threads: any thread may write. Over a device with a thread of its own the stream lives there, the writer waits until
 * the device has taken the bytes, and writes of one thread keep their order; a writer is let go at once when the device
 * closes or the thread ends. While nobody listens to OnDataWrited(), what the device takes at once
 * (ZELIODevice::writeNow()) needs no other thread. Over other devices the write happens in the caller's thread.
 * readyRead() and DeviceClose() are emitted in the thread that the device reports from.
 */
class ZELSHELL_EXPORT ZELStream : public ZELAbstractStream
{
    Q_OBJECT
public:
    /// Binds to the device and moves into its thread, if it has one; with crossThread, writes are carried there, too.
    /// When another stream is bound already, this one is closed from the start and deletes itself at the next turn of
    /// the event loop.
    ZELStream(ZELIODevice *device, bool crossThread);
    ~ZELStream() override;

    /// What the device has now (it may block); empty when closed.
    QByteArray readAll() override;
    /// Nothing for empty data. On a closed stream a debug line instead; what else is dropped is counted, and told when
    /// the stream ends.
    void write(QByteArray data) override;
    void write(QString data) override;
    bool IsOpen() override;

    ZELIODevice *getDevice();

    /// Writes in the calling thread, which must be the device's where it has one; then OnDataWrited().
    Q_INVOKABLE void write_(QByteArray data);
    Q_INVOKABLE void write_(QString data);

Q_SIGNALS:
    void OnDataWrited(QString data);
    void OnDataWrited(QByteArray data);
    void DeviceClose();

private:
    void writeQueued();
    bool isListenedTo() const;
    friend class ZELStreamPrivate;
    const std::shared_ptr<ZELStreamPrivate> d;
};

#endif
