// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"
#include "zelguard_p.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QNetworkInterface>
#include <mutex>

namespace {
struct HostAddress
{
    std::mutex mutex;
    QElapsedTimer age;
    QString text;
};

QString lookUp()
{
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        const auto entries = interface.addressEntries();
        for (const QNetworkAddressEntry &entry : entries) {
            const QHostAddress address = entry.ip();
            if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback())
                return address.toString();
        }
    }
    return QStringLiteral("127.0.0.1");
}
} // namespace

QString zelHostAddress()
{
    ZELCriticalSection section;
    static auto *host = new HostAddress;
    std::lock_guard<std::mutex> lock(host->mutex);
    if (!host->age.isValid() || host->age.hasExpired(1000)) {
        host->text = lookUp();
        host->age.start();
    }
    return host->text;
}
