// The generic background job: its result list, its silence on an empty result, and
// that the result comes back on the thread that created the job.

#include "DeviceParallel.h"
#include "TestSupport.h"

#include <QSignalSpy>
#include <QThread>
#include <QThreadPool>
#include <QtConcurrent>

namespace {

// A job built on DeviceParallel the way the library builds one: connect, start the
// worker, set the future.
class ListJob : public DeviceParallel
{
    Q_OBJECT
public:
    ListJob(const QString& udid, const QStringList& result) : DeviceParallel(nullptr, udid, result)
    {
        connect(&mWatcher, &QFutureWatcher<QStringList>::finished, this,
                &ListJob::slotDataAvailable);
        connect(this, &ListJob::signalDataReady, this, [this](const QStringList& info) {
            deliveredOn = QThread::currentThread();
            emit delivered(info);
        });
        mWatcher.setFuture(
            QtConcurrent::run(QThreadPool::globalInstance(), [result] { return result; }));
    }
    QThread* deliveredOn = nullptr;

signals:
    void delivered(const QStringList& info);
};

} // namespace

class TestDeviceJobs : public QObject
{
    Q_OBJECT
private slots:
    void resultList_data()
    {
        QTest::addColumn<QStringList>("result");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<bool>("logsFailure");
        // The worker is usually done before the watcher gets its future; it still reports.
        QTest::newRow("two items") << QStringList{"a", "b"} << QStringList{"U", "a", "b"} << false;
        QTest::newRow("one empty string")
            << QStringList{QString()} << QStringList{"U", QString()} << false;
        QTest::newRow("empty result") << QStringList{} << QStringList{} << true;
    }
    void resultList()
    {
        QFETCH(QStringList, result);
        QFETCH(QStringList, expected);
        QFETCH(bool, logsFailure);

        kavreltest::LogCapture log;
        ListJob job(QStringLiteral("U"), result);
        QSignalSpy spy(&job, &ListJob::delivered);
        // Wait until the slot has run whether or not a signal follows.
        QTRY_VERIFY(log.hasLine(QStringLiteral("slotDataAvailable")));
        QCoreApplication::processEvents();

        QCOMPARE(log.hasLine(QStringLiteral("failed to get result.")), logsFailure);
        if (expected.isEmpty()) {
            QCOMPARE(spy.count(), 0);
        } else {
            QCOMPARE(spy.count(), 1);
            QCOMPARE(spy.at(0).at(0).toStringList(), expected);
            QCOMPARE(job.deliveredOn, QThread::currentThread());
        }
    }
};

KAVREL_TEST_MAIN(TestDeviceJobs)
#include "tst_devicejobs.moc"
