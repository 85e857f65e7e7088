#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>

// Background job that walks a list of apps, measures the ones the catalog does not
// know yet and reports every app in batches of at most ten while the worker runs.
class DeviceAppSizeParallel : public QObject
{
    Q_OBJECT
public:
    // The parent is not used: the job is created without one.
    DeviceAppSizeParallel(QObject* parent, const QString& udid, const QStringList& appIds);
    ~DeviceAppSizeParallel() override;

    // The worker, on a pool thread; job is this object, the target of the batch calls.
    static void getAppSizes(const QString& udid, const QStringList& appIds, void* job);
    // Emits one batch (on the worker's thread) and empties the list.
    void notifyAppSizesReady(QVariantList& list);
    // Detaches the job from every receiver at once; the object itself is deleted once
    // its worker has returned, since the worker still calls notifyAppSizesReady.
    void retire();

signals:
    void signalAppSizesReady(QString udid, QString jsonSizes);
    void signalAppSizeDone(QString udid);

public slots:
    void slotAppSizeDone();

private:
    QFutureWatcher<void> mWatcher;
    // Never assigned: the udid given to the constructor goes to the worker only, so
    // both signals carry an empty udid.
    QString mUdid;
};
