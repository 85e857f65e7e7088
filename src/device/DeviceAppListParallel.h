#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QString>
#include <QStringList>

// Background job that lists a device's installed apps through a listing installer
// session; the list comes back on the thread that created the job.
class DeviceAppListParallel : public QObject
{
    Q_OBJECT
public:
    DeviceAppListParallel(QObject* parent, const QString& udid, int appType, int listFormat);

    // The worker: the udid, the list text (empty after a failure), then the app ids.
    static QStringList getAppList(const QString& udid, int appType, int listFormat);

signals:
    void signalDataAvailable(QString udid, QString jsonData, QStringList appIds);
    void signalFailed();

public slots:
    void slotDataReady();

private:
    QString mUdid;
    QFutureWatcher<QStringList> mWatcher;
};
