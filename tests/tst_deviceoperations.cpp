// App operations as a host runs them through DeviceManager's queue (install, upgrade,
// uninstall, archive, listing) against kavrel-devsim, each test on a device profile of
// its own, with the progress lines the host sees.

#include "DevSim.h"
#include "DeviceInstaller.h"
#include "DeviceManager.h"
#include "OperationInfo.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>

#include <QTimer>
#include <pthread.h>

using namespace kavreltest;

class TestDeviceManagerAccess
{
public:
    static int queued(const DeviceManager& manager) { return manager.mOperations.size(); }
};

namespace {

const QString kAppId = QStringLiteral("com.kavrel.sample");

const QStringList kInstallSteps{
    "CreatingStagingDirectory:5",  "ExtractingPackage:15",       "InspectingPackage:20",
    "TakingInstallLock:20",        "PreflightingApplication:30", "InstallingEmbeddedProfile:30",
    "VerifyingApplication:40",     "CreatingContainer:50",       "InstallingApplication:60",
    "PostflightingApplication:70", "SandboxingApplication:80",   "GeneratingApplicationMap:90"};

// The upload's two lines, then the status lines of a successful install.
QStringList installLines(const QString& operation, const QString& appid)
{
    QStringList lines{operation + ":Copying-PublicStaging/" + appid + ":" + appid + ":50:1:0",
                      operation + ":Copying done:" + appid + ":100:1:0"};
    for (const QString& step : kInstallSteps)
        lines << QStringLiteral("%1:%2:%3:%4:1:1")
                     .arg(operation, step.section(':', 0, 0), appid, step.section(':', 1));
    return lines << operation + ":Complete:" + appid + ":100:1:1";
}

QJsonObject app(const QString& id, QJsonObject entry = {})
{
    entry["bundleId"] = id;
    entry["name"] = "App " + id.section('.', -1);
    return entry;
}

// One host: a manager whose guard timer the test may shorten, and what it reported.
struct Host
{
    DeviceManager manager;
    QSignalSpy progress{&manager, &DeviceManager::signalDevProgress};
    QSignalSpy uninstalled{&manager, &DeviceManager::signalAppUninstalled};
    QSignalSpy lists{&manager, &DeviceManager::signalAppList};

    QTimer* guard() { return manager.findChild<QTimer*>(); }
    QStringList lines() const
    {
        QStringList out;
        for (const QList<QVariant>& args : progress)
            out << args.at(0).toString();
        return out;
    }
    // Waits until nothing runs and nothing waits, then a little for late lines.
    bool settle(int timeoutMs = 60000)
    {
        const bool idle = QTest::qWaitFor(
            [&] { return manager.canInstall() && !TestDeviceManagerAccess::queued(manager); },
            timeoutMs);
        QTest::qWait(300);
        return idle;
    }
};

// Cancels the queued operations that this type and appid match.
void cancel(DeviceManager& manager, int type, const QString& appid)
{
    OperationInfo info;
    info.mType = type;
    info.mAppid = appid;
    manager.cancelInstallByAppid(&info);
}

} // namespace

class TestDeviceOperations : public QObject
{
    Q_OBJECT

    DevSim mSim;
    int mNext = 10;
    QString mPlain; // a device that answers slowly enough for every line to be stable

    // Attaches a device with these faults and apps; its udid.
    QString attach(const QJsonObject& faults, const QJsonArray& apps = {})
    {
        DeviceProfile profile(testUdid(mNext++));
        profile.faults(faults).apps(apps);
        return mSim.attach(profile) ? profile.udid() : QString();
    }
    // An .ipa of kAppId, without Info.plist when info is false.
    QString ipa(const QString& name, bool info = true)
    {
        ZipBuilder zip;
        if (info) {
            plist_t dict = plist_new_dict();
            plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(qPrintable(kAppId)));
            plist_dict_set_item(dict, "CFBundleExecutable", plist_new_string("Sample"));
            zip.add("Payload/Sample.app/Info.plist", plistBytes(dict, true));
        }
        const QString path = mSim.tempDir() + "/" + name;
        return zip.add("Payload/Sample.app/Sample", QByteArray(2048, '\x7f')).write(path)
                   ? path
                   : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mSim.start(QStringList{}));
        mPlain = attach({{"statusDelayMs", 150}}, {app("com.kavrel.plain")});
        QVERIFY(!mPlain.isEmpty());
    }

    void install_data()
    {
        QTest::addColumn<QJsonObject>("faults");
        QTest::addColumn<QString>("file"); // without Info.plist when it starts with "bare"
        QTest::addColumn<bool>("upgrade");
        QTest::addColumn<bool>("whole"); // expected holds every line, not only the last ones
        QTest::addColumn<QStringList>("expected");
        const QJsonObject none;
        QTest::newRow("install") << none << "a.ipa" << false << true
                                 << installLines("Install", kAppId);
        QTest::newRow("upgrade") << none << "b.ipa" << true << true
                                 << installLines("Upgrade", kAppId);
        // Without Info.plist the record's id names the upload; the device refuses it.
        QTest::newRow("no Info.plist")
            << none << "bare.ipa" << false << true
            << installLines("Install", "record.id").mid(0, 4) +
                   QStringList{"Install:PackageInspectionFailed:record.id:100:0:1"};
        QTest::newRow("path outside GBK")
            << none << QString::fromUtf8("\xF0\x9F\x98\x80.ipa") << false << true
            << QStringList{"Install:KInstIpaOpenError:record.id:0:0:1"};
        QTest::newRow("device error")
            << QJsonObject{{"installError", "APIInternalError"}} << "f.ipa" << false << false
            << QStringList{"Install:VerifyingApplication:" + kAppId + ":40:1:1",
                           "Install:APIInternalError:" + kAppId + ":100:0:1"};
    }

    // Every install ends with one line that says how, and the next queued operation
    // still runs.
    void install()
    {
        QFETCH(QJsonObject, faults);
        QFETCH(QString, file);
        QFETCH(bool, upgrade);
        QFETCH(bool, whole);
        QFETCH(QStringList, expected);
        const QString udid = attach(faults);
        Host host;
        LogCapture log;
        host.manager.installIpa(udid, ipa(file, !file.startsWith("bare")), "record.id", upgrade);
        host.manager.uninstallApp(mPlain, "com.kavrel.none");
        QVERIFY(host.settle());
        QStringList lines = host.lines();
        QCOMPARE(lines.takeLast(), QStringLiteral("Uninstall:Complete:com.kavrel.none:100:1:1"));
        QCOMPARE(whole ? lines : lines.mid(lines.size() - expected.size()), expected);
        // Only a completed install (not an upgrade) asks for the app's size.
        QCOMPARE(log.contains("Trying to getappsize for installed app..."),
                 expected.last() == "Install:Complete:" + kAppId + ":100:1:1");
    }

    void uninstall_data()
    {
        QTest::addColumn<QJsonObject>("faults");
        QTest::addColumn<QStringList>("expected");
        const QString removing = "Uninstall:RemovingApplication:com.kavrel.a:50:1:1";
        QTest::newRow("removed") << QJsonObject{{"statusDelayMs", 1000}}
                                 << QStringList{removing,
                                                "Uninstall:GeneratingApplicationMap:"
                                                "com.kavrel.a:90:1:1",
                                                "Uninstall:Complete:com.kavrel.a:100:1:1"};
        QTest::newRow("refused") << QJsonObject{{"statusDelayMs", 1000},
                                                {"uninstallError", "APIInternalError"}}
                                 << QStringList{removing,
                                                "Uninstall:APIInternalError:com.kavrel.a:100:0:1"};
    }

    // The uninstall does not wait: its final line comes later, and the host hears that
    // the app is gone after it, whatever the device said.
    void uninstall()
    {
        QFETCH(QJsonObject, faults);
        QFETCH(QStringList, expected);
        const QString udid = attach(faults, {app("com.kavrel.a")});
        Host host;
        LogCapture log;
        host.manager.uninstallApp(udid, "com.kavrel.a");
        QTRY_VERIFY(log.contains("DeviceInstallerParallel::slotGetInstaller"));
        QVERIFY2(host.progress.isEmpty(), qPrintable(host.lines().join(" | ")));
        QVERIFY(host.settle());
        QCOMPARE(host.lines(), expected);
        QCOMPARE(host.uninstalled.count(), 1);
        QCOMPARE(host.uninstalled.at(0).at(0).toString(), QStringLiteral("com.kavrel.a"));
    }

    void archive_data()
    {
        QTest::addColumn<bool>("appOnly");
        QTest::addColumn<bool>("skipUninstall");
        QTest::addColumn<QString>("appid");
        QTest::addColumn<bool>("toFolder");
        QTest::addColumn<QString>("last");
        QTest::newRow("app and data")
            << false << false << "com.kavrel.b" << true << "Archive:Complete:com.kavrel.b:100:1:1";
        QTest::newRow("app only, kept")
            << true << true << "com.kavrel.b" << true << "Archive:Complete:com.kavrel.b:100:1:1";
        QTest::newRow("empty copy path") << false << false << "com.kavrel.b" << false
                                         << "Archive:KInstInvalidInput:unknown:0:0:1";
        QTest::newRow("unknown app") << false << true << "com.kavrel.none" << true
                                     << "Archive:LookupFailed:com.kavrel.none:100:0:1";
    }

    void archive()
    {
        QFETCH(bool, appOnly);
        QFETCH(bool, skipUninstall);
        QFETCH(QString, appid);
        QFETCH(bool, toFolder);
        QFETCH(QString, last);
        const QString udid = attach({}, {app("com.kavrel.b")});
        QTemporaryDir dir;
        Host host;
        host.manager.archiveApp(udid, appid, toFolder ? dir.path() : QString(), appOnly,
                                skipUninstall);
        QVERIFY(host.settle());
        const QStringList lines = host.lines();
        QVERIFY2(!lines.isEmpty() && lines.last() == last, qPrintable(lines.join('\n')));
        const QByteArray archive = readFile(dir.filePath(appid + ".ipa"));
        if (!last.startsWith("Archive:Complete")) {
            QVERIFY(archive.isEmpty());
            // The device's error text reaches the stored line too, after the job.
            if (toFolder)
                QTRY_COMPARE(DeviceInstaller::lastFailureLine(),
                             "Archive:LookupFailed:" + appid + ":0:0:1");
            return;
        }
        QVERIFY(lines.contains("Archive:CopyingArchive:com.kavrel.b:20:1:0"));
        QVERIFY(lines.contains("Archive:Copying done:com.kavrel.b:100:1:0"));
        QVERIFY(lines.contains("Archive:RemovingArchive:com.kavrel.b:50:1:1"));
        QVERIFY(archive.startsWith("PK"));
        QCOMPARE(archive.contains("Container/"), !appOnly);
        QCOMPARE(lines.contains("Archive:RemovingApplication:com.kavrel.b:70:1:0"), !skipUninstall);
    }

    // Once the archive phase has completed, the first status of the removal without a
    // percentage ends the operation, under the name the host knows.
    void archiveRemovalEndsEarly()
    {
        const QString udid = attach({{"statusWithoutPercent", true}}, {app("com.kavrel.c")});
        QTemporaryDir dir;
        Host host;
        host.manager.archiveApp(udid, "com.kavrel.c", dir.path(), false, true);
        QVERIFY(host.settle());
        const QStringList lines = host.lines();
        QCOMPARE(lines.first(),
                 QStringLiteral("Archive:ArchivingApplication:com.kavrel.c:100:0:0"));
        const int removal = lines.indexOf("Archive:RemovingArchive:com.kavrel.c:100:1:1");
        QVERIFY2(removal > 0, qPrintable(lines.join('\n')));
        QCOMPARE(lines.at(removal - 1),
                 QStringLiteral("Archive:Copying done:com.kavrel.c:100:1:0"));
    }

    void listing_data()
    {
        QTest::addColumn<int>("appType");
        QTest::addColumn<int>("format");
        QTest::addColumn<QJsonArray>("apps");
        QTest::addColumn<QString>("expected");
        const QJsonArray apps{
            app("com.kavrel.d", {{"displayName", ""}, {"version", ""}}),
            app("com.kavrel.e", {{"info", QJsonObject{{"CFBundleSupportedPlatforms",
                                                       QJsonArray{"iPhoneOS", "iPhoneSimulator"}}}},
                                 {"minimumOSVersion", "13.0"}}),
            app("com.kavrel.sys", {{"type", "System"}})};
        QTest::newRow("user apps")
            << 2 << 1 << apps
            << R"([{"appcracked":"true","appname":"com.kavrel.d","appsize":"unknown","bundle_id":"com.kavrel.d","comp":"9.0","devices":"","docsize":"unknown","version":"unknown"},)"
               R"({"appcracked":"true","appname":"App e","appsize":"unknown","bundle_id":"com.kavrel.e","comp":"13.0","devices":"iPhoneOS,iPhoneSimulator","docsize":"unknown","version":"1.0"},{}])";
        QTest::newRow("no user apps") << 2 << 1 << QJsonArray{apps.at(2)} << "[{}]";
        QTest::newRow("system, XML") << 1 << 0 << apps << "<string>com.kavrel.sys</string>";
    }

    void listing()
    {
        QFETCH(int, appType);
        QFETCH(int, format);
        QFETCH(QJsonArray, apps);
        QFETCH(QString, expected);
        const QString udid = attach({}, apps);
        Host host;
        host.manager.getAppList(udid, appType, format);
        QVERIFY(host.lists.wait(30000));
        const QList<QVariant> answer = host.lists.at(0);
        QCOMPARE(answer.at(0).toString(), udid);
        const QString text = answer.at(1).toString();
        if (format == 0) {
            QVERIFY(text.startsWith("<?xml") && text.contains(expected));
            QVERIFY(!text.contains("com.kavrel.d"));
            QVERIFY(answer.at(2).toStringList().isEmpty());
            return;
        }
        // Compared as JSON values: the serialiser's spacing is its own business.
        const QJsonArray got = QJsonDocument::fromJson(text.toUtf8()).array();
        QCOMPARE(got, QJsonDocument::fromJson(expected.toUtf8()).array());
        QStringList ids;
        for (int i = 0; i + 1 < got.size(); ++i)
            ids << got.at(i).toObject().value("bundle_id").toString();
        QCOMPARE(answer.at(2).toStringList(), ids);
    }

    void queue()
    {
        const QString udid = attach({{"statusDelayMs", 300}}, {app("com.a"), app("com.a.b")});
        Host host;
        LogCapture log;
        QVERIFY(host.manager.canInstall());
        host.manager.uninstallApp(udid, "com.a");
        QVERIFY(!host.manager.canInstall());
        host.manager.uninstallApp(udid, "com.a"); // the running one is not waiting
        host.manager.uninstallApp(udid, "com.a"); // this one is
        host.manager.getAppList(udid, 2, 0);
        host.manager.getAppList(udid, 0, 1); // equal whatever the numbers
        host.manager.uninstallApp(udid, "com.a.b");
        QCOMPARE(log.count("the operation has been requested before"), 2);
        QCOMPARE(TestDeviceManagerAccess::queued(host.manager), 3);

        cancel(host.manager, KOperationUninstall, "com.a"); // takes the queued com.a only
        cancel(host.manager, KOperationArchive, "com.a.b"); // another type
        cancel(host.manager, KOperationUninstall, "com.a"); // com.a does not hold com.a.b
        QCOMPARE(TestDeviceManagerAccess::queued(host.manager), 2);
        cancel(host.manager, KOperationUninstall, "com.a.b.c");
        QCOMPARE(TestDeviceManagerAccess::queued(host.manager), 1);

        QVERIFY(host.settle());
        QCOMPARE(host.uninstalled.count(), 1);
        QCOMPARE(host.lists.count(), 1);
        QVERIFY(host.lines().last().startsWith("Uninstall:Complete:com.a:"));
    }

    // A manager destroyed with work queued starts none of it.
    void destroyedWithQueuedWork()
    {
        const QString udid = attach({{"statusDelayMs", 300}}, {app("com.f"), app("com.g")});
        LogCapture log;
        {
            Host host;
            host.manager.uninstallApp(udid, "com.f");
            host.manager.uninstallApp(udid, "com.g");
            host.manager.archiveApp(udid, "com.g", mSim.tempDir(), false, false);
            QTRY_VERIFY(log.contains("DeviceInstallerParallel::slotGetInstaller"));
        }
        QTest::qWait(1500);
        QCOMPARE(log.count("DeviceInstaller::DeviceInstaller"), 1);
    }

    // Every command's status thread is gone with its stack: a thread that ends without
    // being joined or detached keeps its stack mapped, which the C library's cache of
    // freed stacks (40 MB) does not explain.
    void cleanupTestCase()
    {
        pthread_attr_t attr;
        size_t size = 0;
        pthread_attr_init(&attr);
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
        QFile maps("/proc/self/maps");
        QVERIFY(maps.open(QIODevice::ReadOnly));
        int stacks = 0;
        for (const QByteArray& line : maps.readAll().split('\n')) {
            const QList<QByteArray> range = line.left(line.indexOf(' ')).split('-');
            stacks += range.size() == 2 &&
                      range[1].toULongLong(nullptr, 16) - range[0].toULongLong(nullptr, 16) == size;
        }
        const int threads =
            QDir("/proc/self/task").entryList(QDir::NoDotAndDotDot | QDir::Dirs).size();
        QVERIFY2(stacks <= threads + int((40 << 20) / size), qPrintable(QString::number(stacks)));
    }
};

KAVREL_TEST_MAIN(TestDeviceOperations)
#include "tst_deviceoperations.moc"
