#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QString>

// Background job that reads a device's information report or writes one lockdown
// value. Each constructor starts its own worker on the global thread pool; the result
// comes back on the thread that created the job, as one signal.
class DeviceInfoParallel : public QObject
{
    Q_OBJECT
public:
    // Reads the information report; answers with signalDevInfo.
    DeviceInfoParallel(QObject* parent, const QString& udid);
    // Writes value under key into the global domain; answers with signalUpdateProperty.
    DeviceInfoParallel(QObject* parent, const QString& udid, const QString& key,
                       const QString& value);

    // Workers, run on a pool thread, each with its own device session.
    static QString readDevInfo(const QString& udid);
    static bool writeDevProperty(const QString& udid, const QString& key, const QString& value);

signals:
    void signalDevInfo(QString udid, QString info);
    void signalUpdateProperty(QString udid, QString key, bool suc);

public slots:
    void slotDataReady();
    void slotUpdateFinished();

private:
    QString mUdid;
    QString mKey;
    QFutureWatcher<QString> mInfoWatcher;
    QFutureWatcher<bool> mUpdateWatcher;
};
