// SPDX-License-Identifier: MIT
#ifndef ZELIODEVICE_P_H
#define ZELIODEVICE_P_H

#include "zeliodevice.h"
#include "zellife_p.h"
#include <mutex>

/// Shared with the bound stream, so that device and stream may die in any order.
class ZELIODevicePrivate
{
public:
    explicit ZELIODevicePrivate(ZELIODevice *q)
        : life(q)
    {
    }
    /// Shared, since it may be replaced while it runs, and a copy of a function takes memory.
    using Hook = std::shared_ptr<const ZELIODevice::Hook>;
    void set(Hook ZELIODevicePrivate::*hook, ZELIODevice::Hook value);
    void call(const Hook ZELIODevicePrivate::*hook);
    static ZELLife<ZELIODevice>::Ref ref(const ZELIODevice &device) { return device.d->life.ref(); }

    ZELLife<ZELIODevice> life;
    std::mutex mutex; ///< guards the rest
    Hook readyReadHook;
    Hook closeHook;
    Hook startHook;
    ZELStream *stream = nullptr;
};

#endif
