#include "DeviceAppSizeParallel.h"

#include "DBManager.h"
#include "DeviceAppSize.h"
#include "ThreadHandOff.h"
#include "Utility.h"

#include <QDebug>
#include <QThreadPool>
#include <QVariantMap>
#include <QtConcurrent>

// Sessions tried before the run gives up, and apps per batch.
static const int kPrepareAttempts = 10;
static const int kBatchSize = 10;

DeviceAppSizeParallel::DeviceAppSizeParallel(QObject* parent, const QString& udid,
                                             const QStringList& appIds)
    : QObject(nullptr), mUdid(QString())
{
    Q_UNUSED(parent);
    connect(&mWatcher, &QFutureWatcher<void>::finished, this,
            &DeviceAppSizeParallel::slotAppSizeDone);
    ThreadHandOff::publish(this);
    mWatcher.setFuture(QtConcurrent::run(QThreadPool::globalInstance(),
                                         &DeviceAppSizeParallel::getAppSizes, udid, appIds,
                                         static_cast<void*>(this)));
}

DeviceAppSizeParallel::~DeviceAppSizeParallel()
{
    qDebug() << "DeviceAppSizeParallel::~DeviceAppSizeParallel";
    disconnect(this, nullptr, nullptr, nullptr);
}

void DeviceAppSizeParallel::retire()
{
    disconnect(this, nullptr, nullptr, nullptr);
    if (mWatcher.future().isFinished())
        deleteLater();
    else
        connect(&mWatcher, &QFutureWatcher<void>::finished, this, &QObject::deleteLater);
}

static DeviceAppSize* openSizeSession(const QString& udid)
{
    for (int attempt = 0; attempt < kPrepareAttempts; ++attempt) {
        auto* session = new DeviceAppSize(nullptr, udid);
        if (session->prepare())
            return session;
        qDebug() << "Warning, failed to prepare DeviceAppSize.";
        Utility::waitSeconds(0);
        delete session;
    }
    return nullptr;
}

void DeviceAppSizeParallel::getAppSizes(const QString& udid, const QStringList& appIds, void* job)
{
    ThreadHandOff::receive(job);
    qDebug() << "DeviceAppSizeParallel::getAppSizes... ";
    auto* self = static_cast<DeviceAppSizeParallel*>(job);
    // Not reset between apps: a part that fails to measure keeps the previous app's
    // value, which is stored and reported as this app's own.
    unsigned int appSize = 0;
    unsigned int docSize = 0;
    QString appleId;
    DBManager* catalog = DBManager::instance();
    DeviceAppSize* session = openSizeSession(udid);
    if (!session)
        return;

    QVariantList batch;
    for (const QString& appid : appIds) {
        if (batch.size() >= kBatchSize)
            self->notifyAppSizesReady(batch);
        IpaParser::IpaInfo record;
        if (!catalog->getAppById(appid, &record) || record.mAppSize == 0) {
            session->getAppSize(appid, &appSize, &docSize, &appleId);
            record.mAppId = appid;
            record.mAppSize = appSize;
            record.mDocSize = docSize;
            record.mAppleId = appleId;
            record.mInDevice = true;
            catalog->saveAppinfo(&record);
        }
        QVariantMap entry;
        entry.insert(QStringLiteral("appid"), record.mAppId);
        entry.insert(QStringLiteral("appsize"), record.mAppSize);
        entry.insert(QStringLiteral("docsize"), record.mDocSize);
        entry.insert(QStringLiteral("appleid"), record.mAppleId);
        batch.append(QVariant(entry));
    }
    if (!batch.isEmpty())
        self->notifyAppSizesReady(batch);
    delete session;
}

void DeviceAppSizeParallel::notifyAppSizesReady(QVariantList& list)
{
    qDebug() << "DeviceAppSizeParallel::notifyAppSizesReady";
    QVariantMap doc;
    doc.insert(QStringLiteral("apps"), list);
    const QString json = Utility::toJsonString(doc);
    list.clear();
    emit signalAppSizesReady(mUdid, json);
}

void DeviceAppSizeParallel::slotAppSizeDone()
{
    qDebug() << "slotAppSizeDone";
    emit signalAppSizeDone(mUdid);
}
