#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QString>
#include <QStringList>

// Background job that fetches the icons of a list of apps into the catalog (skipping
// icons it already holds) and reports the apps dealt with in batches of at most ten
// identifiers while the worker runs.
class DeviceAppIconParallel : public QObject
{
    Q_OBJECT
public:
    DeviceAppIconParallel(QObject* parent, const QString& udid, const QStringList& appIds);
    ~DeviceAppIconParallel() override;

    // The worker, on a pool thread; job is this object, the target of the batch calls.
    static bool getAppIcons(const QString& udid, const QStringList& appIds, void* job);
    // Emits one batch (on the worker's thread) and empties the list.
    void notifyAppIconsReady(const QString& udid, QStringList& list);
    // Detaches the job from every receiver at once; the object itself is deleted once
    // its worker has returned, since the worker still calls notifyAppIconsReady.
    void retire();

signals:
    void signalAppIconsDone(QString udid);
    void signalAppIconsReady(QString udid, QString apps);

public slots:
    void slotAppIconsReady();

private:
    // Never assigned: the done signal carries an empty udid, the batches the real one.
    QString mUdid;
    QFutureWatcher<bool> mWatcher;
};
