// The device session, device discovery, the AFC helpers and the hot-plug listener,
// against kavrel-devsim through the real libimobiledevice.

#include "DevSim.h"
#include "DeviceBase.h"
#include "DeviceHelper.h"
#include "DeviceListener.h"
#include "TestSupport.h"

#include <cstdlib>
#include <libimobiledevice/afc.h>
#include <mutex>

using namespace kavreltest;

namespace {

// A device session that shows its handles and can open the sandboxed file service.
class Probe : public DeviceBase
{
public:
    explicit Probe(const QString& udid) : DeviceBase(nullptr, udid) {}
    ~Probe() override
    {
        if (mAfcClient)
            afc_client_free(mAfcClient);
    }
    QString udid() const { return mUdid; }
    bool hasDevice() const { return mDevice != nullptr; }
    bool hasLockdown() const { return mLockdown != nullptr; }
    afc_client_t afc()
    {
        if (mAfcClient || !mLockdown)
            return mAfcClient;
        lockdownd_service_descriptor_t service = nullptr;
        if (lockdownd_start_service(mLockdown, "com.apple.afc", &service) == LOCKDOWN_E_SUCCESS) {
            afc_client_new(mDevice, service, &mAfcClient);
            lockdownd_service_descriptor_free(service);
        }
        return mAfcClient;
    }

private:
    afc_client_t mAfcClient = nullptr;
};

// Records the listener's signals on the event thread, copying the udid while it is
// still valid. It must outlive the listener, whose destruction ends the events.
class EventLog : public QObject
{
public:
    void watch(DeviceListener& listener)
    {
        connect(
            &listener, &DeviceListener::DeviceAdded, this,
            [this](const char* udid) { record(QStringLiteral("attached "), udid); },
            Qt::DirectConnection);
        connect(
            &listener, &DeviceListener::DeviceRemoved, this,
            [this](const char* udid) { record(QStringLiteral("detached "), udid); },
            Qt::DirectConnection);
    }
    QStringList events() const
    {
        std::lock_guard<std::mutex> lock(mLock);
        return mEvents;
    }

private:
    void record(const QString& kind, const char* udid)
    {
        std::lock_guard<std::mutex> lock(mLock);
        mEvents << kind + QString::fromLatin1(udid);
    }
    mutable std::mutex mLock;
    QStringList mEvents;
};

} // namespace

class TestDeviceSession : public QObject
{
    Q_OBJECT
private slots:
    void openSession_data()
    {
        QTest::addColumn<int>("devices");
        QTest::addColumn<QString>("udid");
        QTest::addColumn<bool>("opens");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("no udid, one device") << 1 << QString() << true << QString();
        QTest::newRow("no udid, no device")
            << 0 << QString() << false << QStringLiteral("Failed to get udid from device.");
        QTest::newRow("given udid") << 2 << testUdid(2) << true << QString();
        // A udid given by the caller is tried as it is, whatever its length.
        QTest::newRow("wrong udid") << 1 << QStringLiteral("abc") << false
                                    << QStringLiteral("No device found, is it plugged in?");
    }
    void openSession()
    {
        QFETCH(int, devices);
        QFETCH(QString, udid);
        QFETCH(bool, opens);
        QFETCH(QString, logLine);

        DevSim sim;
        QStringList profiles;
        for (int i = 1; i <= devices; ++i)
            profiles << sim.writeProfile(DeviceProfile(testUdid(i)).json());
        QVERIFY(sim.start(profiles, nullptr, {"--verbose"}));

        LogCapture log;
        Probe session(udid);
        QCOMPARE(session.isInited(), opens);
        QCOMPARE(session.hasLockdown(), opens);
        if (opens) {
            QCOMPARE(session.udid(), udid.isEmpty() ? testUdid(1) : udid);
            // The device records the session under the library's own label.
            QVERIFY2(sim.log().contains("lockdown request StartSession from zeltrana"),
                     qPrintable(sim.log()));
        } else {
            QVERIFY2(log.hasLine(logLine), qPrintable(log.dump()));
            QVERIFY(log.contains(QStringLiteral("failed to init with udid: ")));
        }
        // The flag keeps the constructor's answer after the session is closed.
        session.cleanUp();
        QVERIFY(!session.hasDevice());
        QVERIFY(!session.hasLockdown());
        QCOMPARE(session.isInited(), opens);
    }

    void discovery()
    {
        DevSim sim;
        QVERIFY(sim.start({DeviceProfile(testUdid(1)), DeviceProfile(testUdid(2))}));
        LogCapture log;
        const QStringList listed = DeviceHelper::getUdids();
        QCOMPARE(listed.size(), 2);
        QCOMPARE(QSet<QString>(listed.begin(), listed.end()),
                 (QSet<QString>{testUdid(1), testUdid(2)}));
        QCOMPARE(DeviceHelper::getFirstUdid(), listed.first());
        QVERIFY2(log.contains(QStringLiteral("got udids by getUdids: ")) &&
                     log.contains(listed.join(QStringLiteral("|||"))),
                 qPrintable(log.dump()));
    }

    void readAfcFile_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("small file") << "/notes/hello.txt" << QByteArray("hello, device\n");
        // More than one 65536-byte read.
        QTest::newRow("large file") << "/notes/large.txt" << QByteArray(200000, 'x');
        QTest::newRow("empty file") << "/notes/empty.txt" << QByteArray();
        QTest::newRow("folder") << "/notes" << QByteArray();
    }
    void readAfcFile()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, expected);
        DeviceProfile profile(testUdid(1));
        profile.textFile(QStringLiteral("notes/hello.txt"), QStringLiteral("hello, device\n"))
            .textFile(QStringLiteral("notes/large.txt"), QString(200000, QLatin1Char('x')))
            .sizedFile(QStringLiteral("notes/empty.txt"), 0);
        DevSim sim;
        QVERIFY(sim.start({profile}));
        Probe session(testUdid(1));
        QVERIFY(session.afc());

        char* buffer = nullptr;
        quint64 size = 0;
        DeviceHelper::readAfcFile(session.afc(), path.toUtf8().constData(), &buffer, &size);
        if (expected.isEmpty()) {
            QVERIFY(!buffer);
        } else {
            QVERIFY(buffer);
            QCOMPARE(QByteArray(buffer, static_cast<int>(size)), expected);
        }
        free(buffer);
    }

    void afcPathSize_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("result");
        QTest::addColumn<uint>("total");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("file") << "/tree/a.bin" << 0 << 100u << QString();
        // Only regular files count, at any depth; a link inside adds nothing.
        QTest::newRow("tree") << "/tree" << 0 << 150u << QString();
        QTest::newRow("link") << "/tree/link" << 3 << 7u
                              << QStringLiteral("It's neither a file nor a path!");
        QTest::newRow("missing") << "/nothing" << int(AFC_E_OBJECT_NOT_FOUND) << 7u
                                 << QStringLiteral("getting AFC file info for '/nothing'");
    }
    void afcPathSize()
    {
        QFETCH(QString, path);
        QFETCH(int, result);
        QFETCH(uint, total);
        QFETCH(QString, logLine);
        DeviceProfile profile(testUdid(1));
        profile.sizedFile(QStringLiteral("tree/a.bin"), 100)
            .sizedFile(QStringLiteral("tree/sub/b.bin"), 50)
            .symlink(QStringLiteral("tree/link"), QStringLiteral("a.bin"));
        DevSim sim;
        QVERIFY(sim.start({profile}));
        Probe session(testUdid(1));
        QVERIFY(session.afc());

        LogCapture log;
        unsigned int size = 7; // untouched on failure
        QCOMPARE(int(DeviceHelper::getAfcPathSize(session.afc(), path.toUtf8().constData(), &size)),
                 result);
        QCOMPARE(size, total);
        if (!logLine.isEmpty())
            QVERIFY2(log.contains(logLine), qPrintable(log.dump()));
    }

    void hotPlug_data()
    {
        QTest::addColumn<bool>("startThread");
        QTest::newRow("thread running") << true;
        QTest::newRow("thread not started") << false;
    }
    void hotPlug()
    {
        QFETCH(bool, startThread);
        // A device attached before the listener is announced first and must stay attached.
        const QString resident = QStringLiteral("attached ") + testUdid(6);
        DevSim sim;
        QVERIFY(sim.start({DeviceProfile(testUdid(6))}));
        LogCapture log;
        EventLog events;
        DeviceListener listener;
        events.watch(listener);
        if (startThread) {
            listener.start();
            QTRY_VERIFY(log.hasLine(QStringLiteral("DeviceListener::run")));
        }

        const DeviceProfile phone(testUdid(5));
        QVERIFY(sim.attach(phone));
        QTRY_COMPARE(events.events(), QStringList({resident, "attached " + phone.udid()}));
        QVERIFY(sim.detach(phone.udid()));
        const QStringList both{resident, QStringLiteral("attached ") + phone.udid(),
                               QStringLiteral("detached ") + phone.udid()};
        QTRY_COMPARE(events.events(), both);
        // Nothing further arrives late.
        QTest::qWait(300);
        QCOMPARE(events.events(), both);
        QCOMPARE(log.count(QStringLiteral("DeviceListener::DeviceAddedCallback")), 2);
        QCOMPARE(log.count(QStringLiteral("DeviceListener::DeviceRemovedCallback")), 1);

        // Stopping the thread's loop does not stop the events.
        if (startThread) {
            listener.quit();
            QVERIFY(listener.wait(5000));
            QVERIFY(sim.attach(phone));
            QTRY_COMPARE(events.events().size(), 4);
        }
    }
};

KAVREL_TEST_MAIN(TestDeviceSession)
#include "tst_devicesession.moc"
