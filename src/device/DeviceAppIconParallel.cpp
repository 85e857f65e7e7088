#include "DeviceAppIconParallel.h"

#include "DBManager.h"
#include "DeviceAppIcon.h"
#include "ThreadHandOff.h"
#include "Utility.h"

#include <QDebug>
#include <QThreadPool>
#include <QVariantMap>
#include <QtConcurrent>

// Sessions tried before the run gives up, and identifiers per batch.
static const int kPrepareAttempts = 10;
static const int kBatchSize = 10;

DeviceAppIconParallel::DeviceAppIconParallel(QObject* parent, const QString& udid,
                                             const QStringList& appIds)
    : QObject(parent), mUdid(QString())
{
    connect(&mWatcher, &QFutureWatcher<bool>::finished, this,
            &DeviceAppIconParallel::slotAppIconsReady);
    ThreadHandOff::publish(this);
    mWatcher.setFuture(QtConcurrent::run(QThreadPool::globalInstance(),
                                         &DeviceAppIconParallel::getAppIcons, udid, appIds,
                                         static_cast<void*>(this)));
}

DeviceAppIconParallel::~DeviceAppIconParallel()
{
    disconnect(this, nullptr, nullptr, nullptr);
}

void DeviceAppIconParallel::retire()
{
    disconnect(this, nullptr, nullptr, nullptr);
    if (mWatcher.future().isFinished())
        deleteLater();
    else
        connect(&mWatcher, &QFutureWatcher<bool>::finished, this, &QObject::deleteLater);
}

static DeviceAppIcon* openIconSession(const QString& udid)
{
    for (int attempt = 0; attempt < kPrepareAttempts; ++attempt) {
        auto* session = new DeviceAppIcon(nullptr, udid);
        if (session->prepare())
            return session;
        qDebug() << "DeviceAppIcon.prepare failed.";
        Utility::waitSeconds(0);
        delete session;
    }
    return nullptr;
}

bool DeviceAppIconParallel::getAppIcons(const QString& udid, const QStringList& appIds, void* job)
{
    ThreadHandOff::receive(job);
    qDebug() << "deviceappiconparallel::getAppIcons";
    auto* self = static_cast<DeviceAppIconParallel*>(job);
    DeviceAppIcon* session = openIconSession(udid);
    if (!session)
        return false;

    DBManager* catalog = DBManager::instance();
    QStringList batch;
    for (const QString& appid : appIds) {
        if (batch.size() >= kBatchSize)
            self->notifyAppIconsReady(udid, batch);
        // Every app is listed; one whose icon cannot be had is tried again next time.
        batch.append(appid);
        if (catalog->ifIconExistsByAppid(appid))
            continue;
        QByteArray icon;
        if (!session->getAppIcon(appid, icon) || icon.isEmpty())
            qDebug() << "Warning, appIcon.getAppIcon failed by appid: " << appid;
        else
            catalog->saveAppIcon(appid, icon);
    }
    if (!batch.isEmpty())
        self->notifyAppIconsReady(udid, batch);
    delete session;
    return true;
}

void DeviceAppIconParallel::notifyAppIconsReady(const QString& udid, QStringList& list)
{
    qDebug() << "DeviceAppIconParallel::notifyAppIconsReady";
    QVariantMap doc;
    doc.insert(QStringLiteral("apps"), QVariant(list));
    const QString json = Utility::toJsonString(doc);
    list.clear();
    emit signalAppIconsReady(udid, json);
}

void DeviceAppIconParallel::slotAppIconsReady()
{
    qDebug() << "deviceAppIconParallel::slotAppIconsReady";
    emit signalAppIconsDone(mUdid);
}
