// The app services of kavrel-devsim (installation proxy, notification proxy) against
// Debian's unmodified ideviceinstaller and through the libimobiledevice C API: listing,
// installing a generated .ipa with its status messages and notifications, uninstalling,
// and an injected install error.

#include "DevSim.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/notification_proxy.h>

#include <QElapsedTimer>
#include <QMutex>
#include <QWaitCondition>

using namespace kavreltest;

namespace {

void setString(plist_t dict, const char* key, const QString& value)
{
    plist_dict_set_item(dict, key, plist_new_string(value.toUtf8().constData()));
}

// A generated app package: Payload/<bundleName>.app with a binary Info.plist.
struct Package
{
    QString bundleId = "com.example.hello";
    QString bundleName = "Hello";
    QString displayName = "Hello World";
    QString version = "1.0";

    bool write(const QString& path) const
    {
        plist_t info = plist_new_dict();
        setString(info, "CFBundleIdentifier", bundleId);
        setString(info, "CFBundleName", bundleName);
        setString(info, "CFBundleDisplayName", displayName);
        setString(info, "CFBundleExecutable", bundleName);
        setString(info, "CFBundleVersion", version);
        const QString app = "Payload/" + bundleName + ".app/";
        return kavreltest::ZipBuilder()
            .addDir("Payload/")
            .addDir(app)
            .add(app + "Info.plist", plistBytes(info, true))
            .add(app + bundleName, QByteArray(4096, '\x7f'))
            .write(path, true);
    }
};

struct Result
{
    int code;
    QString out;
    QString err;
};

Result ideviceinstaller(const QString& udid, const QStringList& arguments)
{
    const ProgramRun run = runProgram("ideviceinstaller", QStringList{"-u", udid} + arguments,
                                      QProcessEnvironment::systemEnvironment(), 90000);
    return {run.exitCode, QString::fromUtf8(run.out), QString::fromUtf8(run.err)};
}

// ideviceinstaller -l lines without the header: "id, "version", "name"".
QStringList listed(const QString& udid, const QString& option = {})
{
    QStringList arguments{"-l"};
    if (!option.isEmpty())
        arguments << "-o" << option;
    QStringList lines = ideviceinstaller(udid, arguments).out.split('\n', Qt::SkipEmptyParts);
    if (!lines.isEmpty() && lines.first().startsWith("CFBundleIdentifier"))
        lines.removeFirst();
    return lines;
}

// Collects what a status callback receives, across the library's threads.
struct StatusLog
{
    QMutex lock;
    QWaitCondition changed;
    QStringList statuses; // "Status percent", "Status" without percentage, "!Error: text"
    bool done = false;

    static void callback(plist_t, plist_t status, void* data)
    {
        auto* log = static_cast<StatusLog*>(data);
        QMutexLocker locker(&log->lock);
        const QString error = stringOf(status, "Error");
        const QString name = stringOf(status, "Status");
        const quint64 percent = uintOf(status, "PercentComplete");
        if (!error.isEmpty())
            log->statuses << "!" + error + ": " + stringOf(status, "ErrorDescription");
        else if (percent != ~0ull)
            log->statuses << name + " " + QString::number(percent);
        else
            log->statuses << name;
        if (!error.isEmpty() || name == "Complete")
            log->done = true;
        log->changed.wakeAll();
    }

    bool waitDone(int ms = 20000)
    {
        QMutexLocker locker(&lock);
        QElapsedTimer timer;
        timer.start();
        while (!done && timer.elapsed() < ms)
            changed.wait(&lock, 100);
        return done;
    }
};

// Notification names a notification-proxy callback received.
struct NotificationLog
{
    QMutex lock;
    QStringList names;
    static void callback(const char* name, void* data)
    {
        auto* log = static_cast<NotificationLog*>(data);
        QMutexLocker locker(&log->lock);
        if (name && *name)
            log->names << QString::fromUtf8(name);
    }
    bool waitFor(const QString& name, int ms = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < ms) {
            {
                QMutexLocker locker(&lock);
                if (names.contains(name))
                    return true;
            }
            QTest::qWait(50);
        }
        return false;
    }
};

class InstProxy
{
public:
    explicit InstProxy(Session& session)
    {
        if (lockdownd_service_descriptor_t service =
                session.start("com.apple.mobile.installation_proxy")) {
            instproxy_client_new(session.device, service, &mClient);
            lockdownd_service_descriptor_free(service);
        }
    }
    ~InstProxy()
    {
        if (mClient)
            instproxy_client_free(mClient);
    }
    instproxy_client_t get() const { return mClient; }

private:
    instproxy_client_t mClient = nullptr;
};

class NotificationProxy
{
public:
    NotificationProxy(Session& session, NotificationLog* log, const QStringList& names)
    {
        if (lockdownd_service_descriptor_t service =
                session.start("com.apple.mobile.notification_proxy")) {
            np_client_new(session.device, service, &mClient);
            lockdownd_service_descriptor_free(service);
        }
        if (!mClient)
            return;
        if (log)
            np_set_notify_callback(mClient, NotificationLog::callback, log);
        for (const QString& name : names)
            np_observe_notification(mClient, name.toUtf8().constData());
    }
    ~NotificationProxy()
    {
        if (mClient)
            np_client_free(mClient);
    }
    np_client_t get() const { return mClient; }

private:
    np_client_t mClient = nullptr;
};

const QStringList kInstallSteps = {"CreatingStagingDirectory 5",
                                   "ExtractingPackage 15",
                                   "InspectingPackage 20",
                                   "TakingInstallLock 20",
                                   "PreflightingApplication 30",
                                   "InstallingEmbeddedProfile 30",
                                   "VerifyingApplication 40",
                                   "CreatingContainer 50",
                                   "InstallingApplication 60",
                                   "PostflightingApplication 70",
                                   "SandboxingApplication 80",
                                   "GeneratingApplicationMap 90",
                                   "Complete"};

// Puts a package file into the phone's media folder, where the installer looks for it.
bool stage(const QString& path, const QByteArray& bytes)
{
    Session session(kPhone);
    Afc afc(session.afc());
    return afc && afc_make_directory(afc.get(), "PublicStaging") == AFC_E_SUCCESS &&
           writeAfcFile(afc.get(), path, bytes);
}

} // namespace

class TestDevsimApps : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void listsApps_data();
    void listsApps();
    void installListServeUninstall();
    void installReportsStepsAndNotifies();
    void refusedInstallReportsError();

private:
    QString writeIpa(const Package& package);
    DevSim mSim;
};

void TestDevsimApps::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone"}, &error), qPrintable(error));
}

QString TestDevsimApps::writeIpa(const Package& package)
{
    const QString path = mSim.tempDir() + "/" + package.bundleName + "-" + package.version + ".ipa";
    return package.write(path) ? path : QString();
}

void TestDevsimApps::listsApps_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("expectedLine");
    QTest::newRow("user apps") << QString() << 15
                               << "com.kavrel.sample.notes, \"1.0.0\", \"Notes Plus\"";
    QTest::newRow("system apps") << "list_system" << 5
                                 << "com.apple.mobilesafari, \"4.1.0\", \"Safari\"";
    QTest::newRow("all apps") << "list_all" << 20
                              << "com.apple.Preferences, \"2.3.2\", \"Settings\"";
}

void TestDevsimApps::listsApps()
{
    QFETCH(QString, option);
    QFETCH(int, count);
    QFETCH(QString, expectedLine);
    const QStringList lines = listed(kPhone, option);
    QCOMPARE(lines.size(), count);
    QVERIFY2(lines.contains(expectedLine), qPrintable(lines.join('\n')));
    QCOMPARE(QSet<QString>(lines.begin(), lines.end()).size(), count); // no batch twice
}

void TestDevsimApps::installListServeUninstall()
{
    Package package;
    const Result install = ideviceinstaller(kPhone, {"-i", writeIpa(package)});
    QCOMPARE(install.code, 0);
    QVERIFY2(install.out.contains("Install: GeneratingApplicationMap (90%)") &&
                 install.out.contains("Install: Complete"),
             qPrintable(install.out + install.err));
    QVERIFY(listed(kPhone).contains("com.example.hello, \"1.0\", \"Hello World\""));

    const Result uninstall = ideviceinstaller(kPhone, {"-U", "com.example.hello"});
    QCOMPARE(uninstall.code, 0);
    QVERIFY2(uninstall.out.contains("Uninstall: Complete"), qPrintable(uninstall.out));
    QVERIFY(!listed(kPhone).join('\n').contains("com.example.hello"));
}

void TestDevsimApps::refusedInstallReportsError()
{
    const DeviceProfile refusing =
        DeviceProfile(testUdid(61))
            .faults(QJsonObject{{"installError", "ApplicationVerificationFailed"},
                                {"installErrorDescription", "Signature is not valid"}});
    QVERIFY(mSim.attach(refusing));
    const Result install = ideviceinstaller(refusing.udid(), {"-i", writeIpa(Package())});
    QVERIFY2(install.err.contains("ERROR: Install failed. Got error "
                                  "\"ApplicationVerificationFailed\" with code 0x00000000: "
                                  "Signature is not valid"),
             qPrintable(install.out + install.err));
    QVERIFY(!install.out.contains("Install: Complete"));
    QVERIFY(listed(refusing.udid(), "list_all").isEmpty());
}

void TestDevsimApps::installReportsStepsAndNotifies()
{
    Package package;
    package.bundleId = "com.example.steps";
    package.bundleName = "Steps";
    QVERIFY(stage("PublicStaging/steps", readFile(writeIpa(package))));

    Session session(kPhone);
    QVERIFY(session.ok());
    NotificationLog notifications;
    NotificationProxy np(
        session, &notifications,
        {"com.apple.mobile.application_installed", "com.apple.mobile.application_uninstalled"});
    QVERIFY(np.get());
    InstProxy proxy(session);
    QVERIFY(proxy.get());

    StatusLog log;
    QCOMPARE(
        instproxy_install(proxy.get(), "PublicStaging/steps", nullptr, StatusLog::callback, &log),
        INSTPROXY_E_SUCCESS);
    QVERIFY(log.waitDone());
    {
        QMutexLocker locker(&log.lock);
        QCOMPARE(log.statuses, kInstallSteps);
    }
    QVERIFY(notifications.waitFor("com.apple.mobile.application_installed"));

    // The proxy takes the next command on the same connection once the library's status
    // thread of the first one has ended.
    StatusLog removal;
    instproxy_error_t sent = INSTPROXY_E_OP_IN_PROGRESS;
    for (int tries = 0; sent == INSTPROXY_E_OP_IN_PROGRESS && tries < 100; ++tries) {
        sent = instproxy_uninstall(proxy.get(), "com.example.steps", nullptr, StatusLog::callback,
                                   &removal);
        if (sent == INSTPROXY_E_OP_IN_PROGRESS)
            QTest::qWait(50);
    }
    QCOMPARE(sent, INSTPROXY_E_SUCCESS);
    QVERIFY(removal.waitDone());
    QCOMPARE(removal.statuses,
             QStringList({"RemovingApplication 50", "GeneratingApplicationMap 90", "Complete"}));
    QVERIFY(notifications.waitFor("com.apple.mobile.application_uninstalled"));
}

KAVREL_TEST_MAIN(TestDevsimApps)
#include "tst_devsimapps.moc"
