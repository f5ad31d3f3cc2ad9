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
    void set(ZELIODevice::Hook ZELIODevicePrivate::*hook, ZELIODevice::Hook value);
    void call(const ZELIODevice::Hook ZELIODevicePrivate::*hook);

    ZELLife<ZELIODevice> life;
    std::mutex mutex; ///< guards the rest
    ZELIODevice::Hook readyReadHook;
    ZELIODevice::Hook closeHook;
    ZELIODevice::Hook startHook;
    ZELStream *stream = nullptr;
};

#endif
