// SPDX-License-Identifier: MIT
#include "zeliodevice_p.h"

#include "zelguard_p.h"

#include <mutex>
#include <utility>

namespace {
struct Devices
{
    std::mutex mutex;
    QList<ZELIODevice *> list;
};

// Never destroyed: devices of static storage may outlast any other static object.
Devices &devices()
{
    static auto *all = new Devices;
    return *all;
}
} // namespace

void ZELIODevicePrivate::set(Hook ZELIODevicePrivate::*hook, ZELIODevice::Hook value)
{
    // The old hook dies last, outside of the lock: what it holds may call back.
    Hook other = value ? std::make_shared<const ZELIODevice::Hook>(std::move(value)) : nullptr;
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(mutex);
    std::swap(this->*hook, other);
}

void ZELIODevicePrivate::call(const Hook ZELIODevicePrivate::*hook)
{
    Hook copy;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(mutex);
        copy = this->*hook;
    }
    if (copy)
        (*copy)();
}

ZELIODevice::ZELIODevice()
    : d(std::make_shared<ZELIODevicePrivate>(this))
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(devices().mutex);
    devices().list.append(this);
}

ZELIODevice::~ZELIODevice()
{
    endLife();
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(devices().mutex);
        devices().list.removeOne(this);
    }
    setStartHook({});
    setCloseHook({});
    setReadyReadHook({});
}

void ZELIODevice::endLife()
{
    ZELCriticalSection section;
    d->life.end();
}

QThread *ZELIODevice::innerThread()
{
    return nullptr;
}

bool ZELIODevice::waitForInput(int ms)
{
    Q_UNUSED(ms)
    return true;
}

bool ZELIODevice::takeByte(char)
{
    return false;
}

qint64 ZELIODevice::writeNow(const QByteArray &)
{
    return 0;
}

void ZELIODevice::closeSoon()
{
    Close();
}

void ZELIODevice::release() { }

void ZELIODevice::setReadyReadHook(Hook hook)
{
    d->set(&ZELIODevicePrivate::readyReadHook, std::move(hook));
}

void ZELIODevice::setCloseHook(Hook hook)
{
    d->set(&ZELIODevicePrivate::closeHook, std::move(hook));
}

void ZELIODevice::setStartHook(Hook hook)
{
    d->set(&ZELIODevicePrivate::startHook, std::move(hook));
}

void ZELIODevice::callReadyReadHook()
{
    d->call(&ZELIODevicePrivate::readyReadHook);
}

void ZELIODevice::callCloseHook()
{
    d->call(&ZELIODevicePrivate::closeHook);
}

void ZELIODevice::callStartHook()
{
    d->call(&ZELIODevicePrivate::startHook);
}

ZELStream *ZELIODevice::boundStream() const
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->stream;
}

QList<ZELIODevice *> ZELIODevice::Device_Table()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(devices().mutex);
    return devices().list;
}
