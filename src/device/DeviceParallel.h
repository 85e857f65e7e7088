#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QString>
#include <QStringList>

// Generic background job with a string-list result. It keeps the udid and the
// arguments; a job built on it starts its worker, connects mWatcher's finished() to
// slotDataAvailable() and sets the worker's future on mWatcher. The result goes out as
// one list: the udid first, then the worker's strings.
class DeviceParallel : public QObject
{
    Q_OBJECT
public:
    DeviceParallel(QObject* parent, const QString& udid, const QStringList& args);

protected:
    Q_SIGNAL void signalDataReady(QStringList info);
    Q_SLOT void slotDataAvailable();

    QString mUdid;
    QStringList mArgs;
    QFutureWatcher<QStringList> mWatcher;
};
