// The device-information report and property writes, as a host gets them through
// DeviceManager, against kavrel-devsim.

#include "DevSim.h"
#include "DeviceManager.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QThreadPool>

using namespace kavreltest;

Q_DECLARE_METATYPE(kavreltest::DeviceProfile)

// The jobs in flight are private to the manager; the tests count them here.
class TestDeviceManagerAccess
{
public:
    static int infoJobs(const DeviceManager& manager) { return manager.mInfoJobs.size(); }
};

namespace {

// Asks the manager for one report and waits for its answer.
QString fetchInfo(DeviceManager& manager, const QString& udid)
{
    QSignalSpy spy(&manager, &DeviceManager::signalDevInfo);
    manager.getDevInfo(udid);
    if (!spy.wait(30000) || spy.count() != 1)
        return QStringLiteral("<no answer>");
    if (spy.at(0).at(0).toString() != udid)
        return QStringLiteral("<answer for another udid>");
    return spy.at(0).at(1).toString();
}

bool writeProperty(DeviceManager& manager, const QString& udid, const QString& key,
                   const QString& value)
{
    QSignalSpy spy(&manager, &DeviceManager::signalUpdateDevInfo);
    manager.updateDevInfo(udid, key, value);
    if (!spy.wait(30000) || spy.count() != 1)
        return false;
    const QList<QVariant> args = spy.at(0);
    return args.at(0).toString() == udid && args.at(1).toString() == key && args.at(2).toBool();
}

QJsonObject parse(const QString& document)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(document.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError)
        qWarning() << "not JSON:" << error.errorString() << "at" << error.offset << document;
    return doc.object();
}

} // namespace

class TestDeviceInfo : public QObject
{
    Q_OBJECT
private slots:
    void report_data()
    {
        QTest::addColumn<DeviceProfile>("profile");
        QTest::addColumn<bool>("hasUsage");
        QTest::addColumn<QString>("jailed");
        QTest::addColumn<QString>("logLine");

        const QString udid = testUdid(1);
        QTest::newRow("plain device") << DeviceProfile(udid) << true << "false" << QString();
        QTest::newRow("jailbroken") << DeviceProfile(udid).jailbroken() << true << "true"
                                    << QStringLiteral("Start service com.apple.afc2, it's jailed.");
        QTest::newRow("no media library")
            << DeviceProfile(udid).diskTotals({}) << false << "false"
            << QStringLiteral("failed to get content of iTunesPrefs.plist.");
        QTest::newRow("totals as a string")
            << DeviceProfile(udid).diskTotals({}).textFile(
                   QStringLiteral("iTunes_Control/iTunes/iTunesPrefs.plist"),
                   QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
                                  "version=\"1.0\"><dict><key>EstimatedDeviceTotals</key>"
                                  "<string>12345</string></dict></plist>\n"))
            << false << "false"
            << QStringLiteral("failed to get dict of EstimatedDeviceTotals by key");
        QTest::newRow("file service refused")
            << DeviceProfile(udid).failService(QStringLiteral("com.apple.afc")) << false << "false"
            << QStringLiteral("Failed to create afc client");
    }
    void report()
    {
        QFETCH(DeviceProfile, profile);
        QFETCH(bool, hasUsage);
        QFETCH(QString, jailed);
        QFETCH(QString, logLine);
        DevSim sim;
        QVERIFY(sim.start({profile}));

        LogCapture log;
        DeviceManager manager;
        const QString document = fetchInfo(manager, profile.udid());
        QVERIFY2(document.startsWith(QLatin1String("{\"global_info\":{")), qPrintable(document));
        QVERIFY(document.indexOf("\"disk_info\":{") < document.indexOf("\"battery_info\":{"));
        const QJsonObject info = parse(document);
        QStringList keys{"battery_info", "disk_info", "disk_usage", "global_info", "other_info"};
        if (!hasUsage)
            keys.removeOne("disk_usage");
        QCOMPARE(info.keys(), keys);
        QCOMPARE(info.value("global_info").toObject().value("DeviceName").toString(),
                 QStringLiteral("Test iPhone"));
        QCOMPARE(info.value("battery_info").toObject().value("BatteryCurrentCapacity").toInt(), 87);
        QCOMPARE(info.value("disk_info").toObject().value("TotalDiskCapacity").toDouble(),
                 64000000000.0);
        // Leaving out keys the host must not see.
        QVERIFY(!info.value("global_info").toObject().contains("DevicePublicKey"));
        // The flag is always a quoted word.
        QVERIFY(
            document.endsWith(QStringLiteral("\"other_info\":{\"IsJailed\":\"%1\"}}").arg(jailed)));
        if (hasUsage) {
            // Eight totals, in a fixed order, unquoted.
            QVERIFY2(document.contains(QStringLiteral(
                         "\"disk_usage\":{\"totalApplicationBytes\":1500000000,"
                         "\"totalAudioBytes\":1000,\"totalBookBytes\":2000,\"totalMovieBytes\":"
                         "3000,\"totalMusicBytes\":4000,\"totalPhotoBytes\":5000,"
                         "\"totalRingtoneBytes\":6000,\"totalVideoBytes\":7000},")),
                     qPrintable(document));
        } else {
            QVERIFY(log.hasLine(QStringLiteral("Warning, failed to get disk usage info.")));
        }
        if (!logLine.isEmpty())
            QVERIFY2(log.hasLine(logLine), qPrintable(log.dump()));
        QCOMPARE(TestDeviceManagerAccess::infoJobs(manager), 0);
    }

    void globalDomainShapes()
    {
        // A nested dictionary followed by more keys, the long identity names that the
        // report shortens wherever they appear, and a media library without a book total.
        QJsonObject carrier{{"Inner", QJsonObject{{"Depth", 2}}}, {"Name", "Carrier"}};
        QJsonObject totals;
        for (const char* kind : {"Application", "Audio", "Movie", "Music", "Photo", "Ringtone"})
            totals[QStringLiteral("total%1Bytes").arg(kind)] = 40;
        DeviceProfile profile(testUdid(1));
        profile.diskTotals(totals)
            .value(QString(), "CarrierBundleInfo", carrier)
            .value(QString(), "InternationalMobileEquipmentIdentity", "356938035643809")
            .value(QString(), "IntegratedCircuitCardIdentity", "8901260000000000000")
            .value(QString(), "InternationalMobileSubscriberIdentity", "310260000000000")
            .value(QString(), "Note", "see InternationalMobileEquipmentIdentity")
            .value(QString(), "PasswordProtected", true)
            // A list of dictionaries, and a dictionary as the domain's last value.
            .value(QString(), "Zones", QJsonArray{QJsonObject{{"Id", 1}}, QJsonObject{{"Id", 2}}})
            .value(QString(), "ZzLast", QJsonObject{{"Deep", "x"}});
        DevSim sim;
        QVERIFY(sim.start({profile}));
        LogCapture log;
        DeviceManager manager;
        const QString document = fetchInfo(manager, testUdid(1));
        for (const char* seam : {",,", "},}", "},]"})
            QVERIFY2(!document.contains(QLatin1String(seam)), qPrintable(document));
        QVERIFY(!document.contains(QLatin1String("International")));
        QVERIFY(!document.contains(QLatin1String("IntegratedCircuit")));

        const QJsonObject global = parse(document).value("global_info").toObject();
        QCOMPARE(global.value("CarrierBundleInfo").toObject(), carrier);
        QCOMPARE(global.value("IMEI").toString(), QStringLiteral("356938035643809"));
        QCOMPARE(global.value("ICCID").toString(), QStringLiteral("8901260000000000000"));
        QCOMPARE(global.value("IMSI").toString(), QStringLiteral("310260000000000"));
        QCOMPARE(global.value("Note").toString(), QStringLiteral("see IMEI"));
        // Booleans inside a domain come as quoted words.
        QCOMPARE(global.value("PasswordProtected").toString(), QStringLiteral("true"));
        QCOMPARE(global.value("Zones").toArray().size(), 2);
        QCOMPARE(global.value("ZzLast").toObject().value("Deep").toString(), QStringLiteral("x"));
        // A missing total counts as 0 and is named in one warning.
        const QJsonObject usage = parse(document).value("disk_usage").toObject();
        QCOMPARE(usage.keys().size(), 8);
        QCOMPARE(usage.value("totalBookBytes").toInt(-1), 0);
        QCOMPARE(usage.value("totalVideoBytes").toInt(-1), 0);
        QCOMPARE(usage.value("totalMovieBytes").toInt(), 40);
        QCOMPARE(log.count(QStringLiteral("Warning: failed to get item for key: ")), 2);
        QVERIFY(log.contains(QStringLiteral("totalBookBytes")));
    }

    void unreachableDevice_data()
    {
        QTest::addColumn<bool>("simulatorRuns");
        QTest::addColumn<QString>("udid");
        QTest::newRow("wrong udid") << true << testUdid(7);
        QTest::newRow("no usbmuxd") << false << testUdid(1);
    }
    void unreachableDevice()
    {
        QFETCH(bool, simulatorRuns);
        QFETCH(QString, udid);
        DevSim sim;
        QVERIFY(sim.start());
        if (!simulatorRuns)
            sim.stop();
        QCOMPARE(DeviceManager::getFirstUdid(), QString());

        LogCapture log;
        DeviceManager manager;
        QSignalSpy info(&manager, &DeviceManager::signalDevInfo);
        QSignalSpy update(&manager, &DeviceManager::signalUpdateDevInfo);
        manager.getDevInfo(udid);
        manager.updateDevInfo(udid, QStringLiteral("DeviceName"), QStringLiteral("x"));
        QTRY_COMPARE_WITH_TIMEOUT(info.count() + update.count(), 2, 30000);
        QCOMPARE(info.at(0), (QList<QVariant>{udid, QString()}));
        QCOMPARE(update.at(0), (QList<QVariant>{udid, QStringLiteral("DeviceName"), false}));
        QCOMPARE(log.count(QStringLiteral("Not inited yet.")), 2);
        QVERIFY(log.hasLine(QStringLiteral("failed to getDevInfo")));
        QCOMPARE(TestDeviceManagerAccess::infoJobs(manager), 0);
    }

    void setProperty_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");
        QTest::addColumn<bool>("written");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("device name") << "DeviceName"
                                     << "Renamed" << true << QString();
        QTest::newRow("non-ASCII value") << "DeviceName"
                                         << "Zoë's iPhone" << true << QString();
        QTest::newRow("empty key") << ""
                                   << "Renamed" << false << "key shouldn't be NULL";
        QTest::newRow("read-only key") << "UniqueDeviceID"
                                       << "0000" << false << "lockdownd_set_value failed.";
    }
    void setProperty()
    {
        QFETCH(QString, key);
        QFETCH(QString, value);
        QFETCH(bool, written);
        QFETCH(QString, logLine);
        DevSim sim;
        QVERIFY(sim.start({DeviceProfile(testUdid(1))}));
        LogCapture log;
        DeviceManager manager;
        QCOMPARE(writeProperty(manager, testUdid(1), key, value), written);
        if (!logLine.isEmpty())
            QVERIFY2(log.hasLine(logLine), qPrintable(log.dump()));
        if (key.isEmpty())
            QVERIFY(!log.contains(QStringLiteral("lockdownd_set_value")));

        // Read back: a written value is there, a refused one left the device unchanged.
        const QJsonObject global =
            parse(fetchInfo(manager, testUdid(1))).value("global_info").toObject();
        if (written)
            QCOMPARE(global.value(key).toString(), value);
        QCOMPARE(global.value("UniqueDeviceID").toString(), testUdid(1));
        if (!written)
            QCOMPARE(global.value("DeviceName").toString(), QStringLiteral("Test iPhone"));
        QCOMPARE(TestDeviceManagerAccess::infoJobs(manager), 0);
    }

    void manyRequestsAtOnce()
    {
        QList<DeviceProfile> profiles;
        for (int i = 1; i <= 4; ++i)
            profiles << DeviceProfile(testUdid(i), QStringLiteral("Phone %1").arg(i));
        DevSim sim;
        QVERIFY(sim.start(profiles));

        DeviceManager manager;
        QSignalSpy spy(&manager, &DeviceManager::signalDevInfo);
        for (int round = 0; round < 4; ++round) {
            for (int i = 1; i <= 4; ++i)
                manager.getDevInfo(testUdid(i));
        }
        QCOMPARE(TestDeviceManagerAccess::infoJobs(manager), 16);
        QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 16, 120000);

        QMap<QString, int> answers;
        for (const QList<QVariant>& args : spy) {
            const QString udid = args.at(0).toString();
            const QJsonObject global = parse(args.at(1).toString()).value("global_info").toObject();
            QCOMPARE(global.value("UniqueDeviceID").toString(), udid);
            ++answers[udid];
        }
        for (int i = 1; i <= 4; ++i)
            QCOMPARE(answers.value(testUdid(i)), 4);
        QCOMPARE(TestDeviceManagerAccess::infoJobs(manager), 0);

        // Destroying a manager does not wait for running workers; their results go
        // nowhere and nothing touches the released jobs.
        LogCapture log;
        auto* gone = new DeviceManager;
        QSignalSpy goneSpy(gone, &DeviceManager::signalDevInfo);
        for (int i = 1; i <= 4; ++i)
            gone->getDevInfo(testUdid(i));
        gone->updateDevInfo(testUdid(1), QStringLiteral("DeviceName"), QStringLiteral("Late"));
        delete gone;
        QVERIFY(QThreadPool::globalInstance()->waitForDone(60000));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
        QCOMPARE(goneSpy.count(), 0);
        QVERIFY(!log.contains(QStringLiteral("slotDataReady")));
        // The workers did run to their end.
        QCOMPARE(log.count(QStringLiteral("DeviceInfo::getDiskUsageInfo")), 4);
    }
};

KAVREL_TEST_MAIN(TestDeviceInfo)
#include "tst_deviceinfo.moc"
