// Every device operation of DeviceManager against a kavrel-devsim device that misbehaves
// while it runs: the host hears of the failure, nothing hangs past the library's bounds,
// the queue goes on, the catalog keeps its rows, and no descriptor or thread is left.

#include "DBManager.h"
#include "DevSim.h"
#include "DeviceManager.h"
#include "IpaParser.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QThreadPool>
#include <QTimer>

#include <csignal>

using namespace kavreltest;

class TestDeviceManagerAccess
{
public:
    static bool idle(const DeviceManager& m)
    {
        return m.mInfoJobs.isEmpty() && !m.mAppListJob && !m.mInstallerJob && !m.mAppSizeJob &&
               !m.mAppIconJob && m.mOperations.isEmpty();
    }
};

namespace {

enum Op
{
    Info,
    Write,
    Install,
    Upgrade,
    Uninstall,
    Archive,
    Listing,
    Sizes,
    Icons
};

const char* kAfc = "com.apple.afc";
const char* kProxy = "com.apple.mobile.installation_proxy";
const char* kArrest = "com.apple.mobile.house_arrest";
const char* kBoard = "com.apple.springboardservices";
const char* kLockdown = "com.apple.mobile.lockdown";

QJsonObject refused(const char* service)
{
    return {{"failServices", QJsonArray{service}}};
}
QJsonObject dropped(const char* service, int bytes)
{
    return {{"dropAfterBytes", bytes}, {"dropService", service}};
}
QJsonObject malformed(const char* service, const char* kind = "bytes")
{
    return {{"malformed", QJsonObject{{service, kind}}}};
}
const QJsonObject kDetached{{"detachAfterAfcBytes", 1}};

int entries(const char* dir)
{
    return QDir(dir).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT

    DevSim mSim;
    QString mHealthy, mIpa;
    int mNext = 10;

private slots:
    void initTestCase()
    {
        // A host that left SIGPIPE at its default must survive a device that goes away.
        std::signal(SIGPIPE, SIG_DFL);
        QVERIFY(mSim.start(QStringList{}));
        DeviceProfile healthy(testUdid(1));
        healthy.apps({QJsonObject{{"bundleId", "com.f.healthy"}}});
        QVERIFY(mSim.attach(healthy));
        mHealthy = healthy.udid();
        // A package of a megabyte, so an upload takes many AFC writes.
        ZipBuilder zip;
        plist_t info = plist_new_dict();
        plist_dict_set_item(info, "CFBundleIdentifier", plist_new_string("com.f.new"));
        plist_dict_set_item(info, "CFBundleExecutable", plist_new_string("New"));
        zip.add("Payload/New.app/Info.plist", plistBytes(info, true));
        QByteArray body(1 << 20, '\0');
        for (char& c : body)
            c = char(QRandomGenerator::global()->generate());
        zip.add("Payload/New.app/New", body);
        mIpa = mSim.tempDir() + "/new.ipa";
        QVERIFY(zip.write(mIpa));
        IpaParser::IpaInfo kept;
        kept.mAppId = "com.f.kept";
        kept.mAppName = "Kept";
        kept.mAppSize = 1234;
        kept.mInLocal = true;
        QVERIFY(DBManager::instance()->saveAppinfo(&kept));
    }

    void matrix_data()
    {
        QTest::addColumn<int>("op");
        QTest::addColumn<QJsonObject>("faults");
        QTest::addColumn<QString>("failure"); // what the host (or the debug stream) shows
        QTest::addColumn<int>("boundMs");
        auto row = [&](const char* name, Op op, const QJsonObject& faults, const char* failure,
                       int bound = 20000) {
            QTest::newRow(name) << int(op) << faults << QString(failure) << bound;
        };
        // Failure texts name the app as %app; install and upgrade upload com.f.new.
        row("info, AFC refused", Info, refused(kAfc), "info:full");
        row("info, lockdown cut", Info, dropped(kLockdown, 300), "info:empty");
        row("info, detached", Info, kDetached, "info:full");
        row("info, malformed AFC", Info, malformed(kAfc), "info:full");
        row("write, lockdown cut", Write, dropped(kLockdown, 300), "write:0");
        row("write, detached", Write, {{"detachFirst", true}}, "write:0");
        row("install, AFC refused", Install, refused(kAfc),
            "Install:KInstServiceError:com.f.new:0:0:1");
        row("install, AFC cut", Install, dropped(kAfc, 2000),
            "Install:KInstArchiveCopyError:com.f.new:0:0:1");
        row("install, detached", Install, {{"detachAfterAfcBytes", 300000}},
            "Install:KInstArchiveCopyError:com.f.new:0:0:1");
        // The device keeps part of the upload and says nothing: it fails the package.
        row("install, partial write", Install, {{"afcWriteLimit", 3000}},
            "Install:PackageExtractionFailed:com.f.new:100:0:1");
        row("install, device error", Install, {{"installError", "APIInternalError"}},
            "Install:APIInternalError:com.f.new:100:0:1");
        row("install, silent", Install, {{"silent", true}},
            "Install:ErrorOnTimeout:com.f.new:100:0:0", 40000);
        row("upgrade, AFC cut", Upgrade, dropped(kAfc, 2000),
            "Upgrade:KInstArchiveCopyError:com.f.new:0:0:1");
        row("upgrade, partial write", Upgrade, {{"afcWriteLimit", 3000}},
            "Upgrade:PackageExtractionFailed:com.f.new:100:0:1");
        row("upgrade, device error", Upgrade, {{"installError", "APIInternalError"}},
            "Upgrade:APIInternalError:com.f.new:100:0:1");
        // Nothing ever answers: only a guard from the operation's start ends it.
        row("uninstall, proxy malformed", Uninstall,
            {{"malformed", QJsonObject{{kProxy, "bytes"}}}, {"guardFromStart", true}},
            "Uninstall:ErrorOnTimeout:%app:100:0:1", 40000);
        row("uninstall, refused", Uninstall, refused(kProxy), ":KInstServiceError:");
        row("uninstall, device error", Uninstall, {{"uninstallError", "APIInternalError"}},
            "Uninstall:APIInternalError:%app:100:0:1");
        row("archive, detached", Archive, kDetached, "Archive:KInstInternalError:%app");
        row("archive, malformed AFC", Archive, malformed(kAfc), "Archive:KInstInternalError:%app");
        row("listing, refused", Listing, refused(kProxy), "list:empty");
        row("listing, AFC refused", Listing, refused(kAfc), "list:empty");
        row("listing, proxy cut", Listing, dropped(kProxy, 100), "list:empty");
        row("listing, malformed", Listing, malformed(kProxy), "list:empty");
        row("sizes, refused", Sizes, refused(kArrest), "\"appsize\" : 0, \"docsize\" : 0");
        row("sizes, cut", Sizes, dropped(kArrest, 100), "\"appsize\" : 0, \"docsize\" : 0");
        row("sizes, malformed", Sizes, malformed(kArrest, "shape"),
            "\"appsize\" : 0, \"docsize\" : 0");
        row("icons, refused", Icons, refused(kBoard), "DeviceAppIcon.prepare failed.");
        row("icons, cut", Icons, dropped(kBoard, 100), "icons:");
        row("icons, malformed", Icons, malformed(kBoard), "icons:");
        row("icons, wrong shape", Icons, malformed(kBoard, "shape"), "icons:");
    }

    void matrix()
    {
        QFETCH(int, op);
        QFETCH(QJsonObject, faults);
        QFETCH(QString, failure);
        QFETCH(int, boundMs);
        const QString appid = QStringLiteral("com.f.app%1").arg(mNext);
        failure.replace("%app", appid);
        DeviceProfile profile(testUdid(mNext++));
        profile.faults(faults).apps({QJsonObject{{"bundleId", appid}, {"documentsSize", 500}}});
        QVERIFY(mSim.attach(profile));
        const QString udid = profile.udid();
        if (faults.contains("detachFirst"))
            QVERIFY(mSim.detach(udid));
        QThreadPool::globalInstance()->waitForDone();
        const int fds = entries("/proc/self/fd"), threads = entries("/proc/self/task");
        QTemporaryDir copies;
        QString evidence;
        {
            DeviceManager manager;
            manager.findChild<QTimer*>()->setInterval(31000);
            manager.setGuardFromStart(faults.contains("guardFromStart"));
            QSignalSpy progress(&manager, &DeviceManager::signalDevProgress);
            QSignalSpy info(&manager, &DeviceManager::signalDevInfo);
            QSignalSpy write(&manager, &DeviceManager::signalUpdateDevInfo);
            QSignalSpy lists(&manager, &DeviceManager::signalAppList);
            QSignalSpy sizes(&manager, &DeviceManager::signalAppSize);
            QSignalSpy icons(&manager, &DeviceManager::signalAppIconsReady);
            LogCapture log;
            QElapsedTimer clock;
            clock.start();
            switch (Op(op)) {
            case Info:
                manager.getDevInfo(udid);
                break;
            case Write:
                manager.updateDevInfo(udid, "DeviceName", "Renamed");
                break;
            case Install:
                manager.installIpa(udid, mIpa, "com.f.new", false);
                break;
            case Upgrade:
                manager.installIpa(udid, mIpa, "com.f.new", true);
                break;
            case Uninstall:
                manager.uninstallApp(udid, appid);
                break;
            case Archive:
                manager.archiveApp(udid, appid, copies.path(), false, false);
                break;
            case Listing:
                manager.getAppList(udid, 2, 1);
                break;
            case Sizes:
                manager.getAppSizes(udid, {appid});
                break;
            case Icons:
                manager.getAppIcons(udid, {appid});
                break;
            }
            // The next operation in the queue: a listing of a device that behaves.
            manager.getAppList(mHealthy, 2, 1);
            qint64 workerMs = -1; // when the installer's worker returned
            const bool ended = QTest::qWaitFor(
                [&] {
                    if (workerMs < 0 && log.contains("DeviceInstallerParallel::slotGetInstaller"))
                        workerMs = clock.elapsed();
                    return TestDeviceManagerAccess::idle(manager) &&
                           (lists.count() > 0 && lists.last().at(0) == mHealthy);
                },
                boundMs);
            QVERIFY2(ended, qPrintable(log.dump().right(3000)));
            // A silent device gets the installer's full 30 s wait.
            if (faults.contains("silent"))
                QVERIFY2(workerMs >= 30000, qPrintable(QString::number(workerMs)));
            QVERIFY2(clock.elapsed() < boundMs, qPrintable(QString::number(clock.elapsed())));
            QCOMPARE(lists.last().at(2).toStringList(), QStringList{"com.f.healthy"});
            QTest::qWait(50); // late lines of a worker that ended
            for (const QList<QVariant>& args : progress)
                evidence += args.at(0).toString() + "\n";
            if (!info.isEmpty())
                evidence += info.at(0).at(1).toString().isEmpty() ? "info:empty\n" : "info:full\n";
            if (!write.isEmpty())
                evidence += QStringLiteral("write:%1\n").arg(write.at(0).at(2).toBool());
            if (lists.count() > 1)
                evidence +=
                    "list:" + QString(lists.at(0).at(1).toString().isEmpty() ? "empty" : "full") +
                    "\n";
            for (const QList<QVariant>& args : sizes)
                evidence += "sizes:" + args.at(1).toString() + "\n";
            for (const QList<QVariant>& args : icons)
                evidence += "icons:" + args.at(1).toString() + "\n";
            evidence += log.dump();
            QVERIFY2(evidence.contains(failure), qPrintable(evidence.right(4000)));
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QThreadPool::globalInstance()->waitForDone();
        QTRY_COMPARE_WITH_TIMEOUT(entries("/proc/self/fd"), fds, 5000);
        QTRY_VERIFY_WITH_TIMEOUT(entries("/proc/self/task") <= threads, 5000);
        IpaParser::IpaInfo kept;
        QVERIFY(DBManager::instance()->getAppById("com.f.kept", &kept));
        QCOMPARE(kept.mAppSize, quint64(1234));
        if (mSim.attachedUdids().contains(udid))
            QVERIFY(mSim.detach(udid));
    }
};

KAVREL_TEST_MAIN(TestFaults)
#include "tst_faults.moc"
