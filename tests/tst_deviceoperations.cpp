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
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTimer>

#include <csignal>

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

// The status lines of a successful install, all in the final stage.
QStringList installLines(const QString& operation, const QString& appid)
{
    QStringList lines;
    for (const QString& step : kInstallSteps)
        lines << QStringLiteral("%1:%2:%3:%4:1:1")
                     .arg(operation, step.section(':', 0, 0), appid, step.section(':', 1));
    return lines << operation + ":Complete:" + appid + ":100:1:1";
}

// An .ipa for bundle id; without Info.plist when info is false; padding adds
// incompressible bytes so an upload takes many chunks.
bool writeIpa(const QString& path, const QString& id, bool info = true, int padding = 0)
{
    ZipBuilder zip;
    if (info) {
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(id.toUtf8()));
        plist_dict_set_item(dict, "CFBundleName", plist_new_string("Sample"));
        plist_dict_set_item(dict, "CFBundleExecutable", plist_new_string("Sample"));
        zip.add("Payload/Sample.app/Info.plist", plistBytes(dict, true));
    }
    QByteArray pad(padding, '\0');
    for (char& c : pad)
        c = char(QRandomGenerator::global()->generate());
    zip.add("Payload/Sample.app/Sample", QByteArray(2048, '\x7f') + pad);
    return zip.write(path);
}

QJsonObject app(const QString& id, const QJsonObject& extra = {})
{
    QJsonObject entry{{"bundleId", id}, {"name", "App " + id.section('.', -1)}};
    for (auto it = extra.begin(); it != extra.end(); ++it)
        entry[it.key()] = it.value();
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
        QElapsedTimer clock;
        clock.start();
        while (!manager.canInstall() || TestDeviceManagerAccess::queued(manager) > 0) {
            if (clock.elapsed() > timeoutMs)
                return false;
            QTest::qWait(20);
        }
        QTest::qWait(300);
        return true;
    }
};

OperationInfo request(int type, const QString& appid)
{
    OperationInfo info;
    info.mType = type;
    info.mAppid = appid;
    return info;
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
    QString ipa(const QString& name, const QString& id, bool info = true, int padding = 0)
    {
        const QString path = mSim.tempDir() + "/" + name;
        return writeIpa(path, id, info, padding) ? path : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mSim.start(QStringList{}));
        mPlain = attach({{"statusDelayMs", 50}}, {app("com.kavrel.plain")});
        QVERIFY(!mPlain.isEmpty());
    }

    void install_data()
    {
        QTest::addColumn<bool>("upgrade");
        QTest::addColumn<bool>("info");
        QTest::addColumn<QStringList>("expected");
        const QString staging = "Copying-PublicStaging/";
        QTest::newRow("install") << false << true
                                 << (QStringList{"Install:" + staging + kAppId + ":" + kAppId +
                                                     ":50:1:0",
                                                 "Install:Copying done:" + kAppId + ":100:1:0"} +
                                     installLines("Install", kAppId));
        QTest::newRow("upgrade") << true << true
                                 << (QStringList{"Upgrade:" + staging + kAppId + ":" + kAppId +
                                                     ":50:1:0",
                                                 "Upgrade:Copying done:" + kAppId + ":100:1:0"} +
                                     installLines("Upgrade", kAppId));
        // Without Info.plist the record's id names the upload; the device refuses it.
        QTest::newRow("no Info.plist")
            << false << false
            << QStringList{"Install:" + staging + "record.id:record.id:50:1:0",
                           "Install:Copying done:record.id:100:1:0",
                           "Install:CreatingStagingDirectory:record.id:5:1:1",
                           "Install:ExtractingPackage:record.id:15:1:1",
                           "Install:PackageInspectionFailed:record.id:100:0:1"};
    }

    void install()
    {
        QFETCH(bool, upgrade);
        QFETCH(bool, info);
        QFETCH(QStringList, expected);
        const QString udid = attach({});
        Host host;
        LogCapture log;
        host.manager.installIpa(udid, ipa("sample.ipa", kAppId, info), "record.id", upgrade);
        QVERIFY(host.settle());
        QCOMPARE(host.lines(), expected);
        // Only a completed install (not an upgrade) asks for the app's size.
        QCOMPARE(log.contains("Trying to getappsize for installed app..."), !upgrade && info);
    }

    void installFailures_data()
    {
        QTest::addColumn<QJsonObject>("faults");
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("padding");
        QTest::addColumn<QStringList>("expected");
        const QString copying =
            "Install:Copying-PublicStaging/" + kAppId + ":" + kAppId + ":50:1:0";
        QTest::newRow("path outside GBK")
            << QJsonObject{} << QString::fromUtf8("\xF0\x9F\x98\x80.ipa") << 0
            << QStringList{"Install:KInstIpaOpenError:record.id:0:0:1"};
        QTest::newRow("AFC refused")
            << QJsonObject{{"failServices", QJsonArray{"com.apple.afc"}}} << "a.ipa" << 0
            << QStringList{"Install:KInstServiceError:record.id:0:0:1"};
        QTest::newRow("cut mid-upload")
            << QJsonObject{{"dropAfterBytes", 2000}, {"dropService", "com.apple.afc"}} << "b.ipa"
            << 1 << QStringList{copying, "Install:KInstArchiveCopyError:" + kAppId + ":0:0:1"};
        QTest::newRow("detached mid-upload")
            << QJsonObject{{"detachAfterAfcBytes", 300000}} << "c.ipa" << 1
            << QStringList{copying, "Install:KInstArchiveCopyError:" + kAppId + ":0:0:1"};
        QTest::newRow("device error")
            << QJsonObject{{"installError", "APIInternalError"}} << "d.ipa" << 0
            << QStringList{"Install:VerifyingApplication:" + kAppId + ":40:1:1",
                           "Install:APIInternalError:" + kAppId + ":100:0:1"};
    }

    // Each failure ends its operation with one line that says so, and the next queued
    // operation still runs.
    void installFailures()
    {
        QFETCH(QJsonObject, faults);
        QFETCH(QString, file);
        QFETCH(int, padding);
        QFETCH(QStringList, expected);
        const QString udid = attach(faults);
        Host host;
        host.manager.installIpa(udid, ipa(file, kAppId, true, padding << 20), "record.id", false);
        host.manager.uninstallApp(mPlain, "com.kavrel.none");
        QVERIFY(host.settle());
        QStringList lines = host.lines();
        QCOMPARE(lines.takeLast(), QStringLiteral("Uninstall:Complete:com.kavrel.none:100:1:1"));
        QVERIFY2(lines.mid(lines.size() - expected.size()) == expected,
                 qPrintable(lines.join('\n')));
        if (expected.size() == 1) // failed before any device request
            QCOMPARE(lines, expected);
    }

    // A device that falls silent: the installer gives up waiting after 30 s, the job
    // stays busy until the guard timer ends it with the last line rewritten, then the
    // queue goes on.
    void silentDevice()
    {
        const QString udid = attach({{"silent", true}});
        Host host;
        host.guard()->setInterval(31000);
        LogCapture log;
        QElapsedTimer clock;
        clock.start();
        host.manager.installIpa(udid, ipa("silent.ipa", kAppId), QString(), false);
        host.manager.uninstallApp(mPlain, "com.kavrel.none");
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("DeviceInstallerParallel::slotGetInstaller"), 40000);
        QVERIFY2(clock.elapsed() > 29000 && clock.elapsed() < 31000,
                 qPrintable(QString::number(clock.elapsed())));
        QVERIFY(!host.manager.canInstall());
        QVERIFY(host.settle(10000));
        QCOMPARE(host.lines().mid(1), (QStringList{"Install:Copying done:" + kAppId + ":100:1:0",
                                                   "Install:ErrorOnTimeout:" + kAppId + ":100:0:0",
                                                   "Uninstall:Complete:com.kavrel.none:100:1:1"}));
    }

    // Pulling the cable in the middle of a report leaves the host alive even when it
    // left SIGPIPE at its default, and the report comes back (empty).
    void unplugDuringReport()
    {
        std::signal(SIGPIPE, SIG_DFL);
        const QString udid = attach({{"detachAfterAfcBytes", 1}});
        Host host;
        QSignalSpy info(&host.manager, &DeviceManager::signalDevInfo);
        host.manager.getDevInfo(udid);
        QVERIFY(info.wait(30000));
        QCOMPARE(info.at(0).at(0).toString(), udid);
        QVERIFY(!mSim.attachedUdids().contains(udid));
    }

    void uninstall_data()
    {
        QTest::addColumn<QJsonObject>("faults");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("removed") << QJsonObject{{"statusDelayMs", 50}}
                                 << QStringList{
                                        "Uninstall:RemovingApplication:com.kavrel.a:50:1:1",
                                        "Uninstall:GeneratingApplicationMap:com.kavrel.a:90:1:1",
                                        "Uninstall:Complete:com.kavrel.a:100:1:1"};
        QTest::newRow("refused") << QJsonObject{{"statusDelayMs", 50},
                                                {"uninstallError", "APIInternalError"}}
                                 << QStringList{"Uninstall:RemovingApplication:com.kavrel.a:50:1:1",
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
        QVERIFY(host.progress.isEmpty());
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
        QVERIFY(text.endsWith(",{}]") || text == "[{}]");
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

        OperationInfo shorter = request(KOperationUninstall, "com.a");
        host.manager.cancelInstallByAppid(&shorter); // takes the queued com.a only
        OperationInfo other = request(KOperationArchive, "com.a.b");
        host.manager.cancelInstallByAppid(&other);   // another type
        host.manager.cancelInstallByAppid(&shorter); // com.a does not hold com.a.b
        QCOMPARE(TestDeviceManagerAccess::queued(host.manager), 2);
        OperationInfo longer = request(KOperationUninstall, "com.a.b.c");
        host.manager.cancelInstallByAppid(&longer);
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
};

KAVREL_TEST_MAIN(TestDeviceOperations)
#include "tst_deviceoperations.moc"
