// The app services of kavrel-devsim through the libimobiledevice C API: installation
// proxy status messages and browse batches, notification relay, house_arrest with AFC,
// injected faults, and malformed requests that must never bring the simulator down.

#include "AppsTestSupport.h"
#include "DevSim.h"
#include "TestSupport.h"

#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/notification_proxy.h>
#include <libimobiledevice/service.h>

#include "ZipBuilder.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QWaitCondition>
#include <QtEndian>

using namespace kavreltest;
using appstest::Package;

namespace {

// Collects what a status callback receives, across the library's threads.
struct StatusLog
{
    QMutex lock;
    QWaitCondition changed;
    QStringList statuses; // "Status percent", "Status" without percentage, "!Error: text"
    QList<quint64> browseIndexes, browseAmounts, browseTotals;
    QList<QStringList> entryKeys;
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
        if (plist_t list = plist_dict_get_item(status, "CurrentList")) {
            log->browseIndexes << uintOf(status, "CurrentIndex");
            log->browseAmounts << uintOf(status, "CurrentAmount");
            log->browseTotals << uintOf(status, "Total");
            for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
                log->entryKeys << keysOf(plist_array_get_item(list, i));
        }
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

// Reads exactly size bytes from a service connection; fewer when it closes or goes quiet.
QByteArray receiveRaw(service_client_t client, uint32_t size, bool* closed)
{
    QByteArray out;
    while (uint32_t(out.size()) < size) {
        char buffer[4096];
        uint32_t got = 0;
        service_error_t error = service_receive_with_timeout(
            client, buffer, qMin<uint32_t>(sizeof buffer, size - uint32_t(out.size())), &got, 3000);
        if (error == SERVICE_E_SUCCESS && got > 0) {
            out.append(buffer, int(got));
            continue;
        }
        *closed = error != SERVICE_E_TIMEOUT;
        break;
    }
    return out;
}

// Sends raw bytes to a freshly started service; its first answer (a plist), or null when
// it closed the connection (closed set) or said nothing within the time.
plist_t rawExchange(const char* serviceName, const QByteArray& bytes, bool* closed)
{
    Session session(kPhone);
    lockdownd_service_descriptor_t descriptor = session.start(serviceName);
    *closed = false;
    if (!descriptor)
        return nullptr;
    service_client_t client = nullptr;
    service_client_new(session.device, descriptor, &client);
    lockdownd_service_descriptor_free(descriptor);
    if (!client)
        return nullptr;
    uint32_t sent = 0;
    service_send(client, bytes.constData(), uint32_t(bytes.size()), &sent);
    plist_t answer = nullptr;
    const QByteArray header = receiveRaw(client, 4, closed);
    if (header.size() == 4) {
        const QByteArray body =
            receiveRaw(client, qFromBigEndian<quint32>(header.constData()), closed);
        if (body.startsWith("bplist00"))
            plist_from_bin(body.constData(), uint32_t(body.size()), &answer);
        else
            plist_from_xml(body.constData(), uint32_t(body.size()), &answer);
    }
    service_client_free(client);
    return answer;
}

QByteArray framed(const QByteArray& body)
{
    const quint32 n = qToBigEndian(quint32(body.size()));
    return QByteArray(reinterpret_cast<const char*>(&n), 4) + body;
}

QByteArray command(const char* key, const char* name, const char* extraKey = nullptr,
                   const char* extraValue = nullptr)
{
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, key, plist_new_string(name));
    if (extraKey)
        plist_dict_set_item(dict, extraKey, plist_new_string(extraValue));
    return framed(plistBytes(dict, false));
}

} // namespace

class TestDevsimAppsApi : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void installReportsStepsAndNotifies();
    void browseAnswersInBatches_data();
    void browseAnswersInBatches();
    void lookupFindsApps();
    void houseArrestVendsContainer_data();
    void houseArrestVendsContainer();
    void postedNotificationsReachObservers();
    void installFailures_data();
    void installFailures();
    void faultsDelayAndSilence();
    void malformedRequests_data();
    void malformedRequests();

private:
    bool upload(const Package& package, const QString& stagingName);
    DevSim mSim;
};

void TestDevsimAppsApi::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone"}, &error), qPrintable(error));
}

bool TestDevsimAppsApi::upload(const Package& package, const QString& stagingName)
{
    const QString ipa = mSim.tempDir() + "/upload.ipa";
    return package.write(ipa) && stage("PublicStaging/" + stagingName, readFile(ipa));
}

void TestDevsimAppsApi::installReportsStepsAndNotifies()
{
    Package package;
    package.bundleId = "com.example.steps";
    package.bundleName = "Steps";
    QVERIFY(upload(package, "steps"));

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

void TestDevsimAppsApi::browseAnswersInBatches_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QList<quint64>>("indexes");
    QTest::addColumn<QList<quint64>>("amounts");
    QTest::addColumn<QStringList>("returnAttributes");
    QTest::newRow("any, every attribute")
        << QString() << QList<quint64>{0, 8, 16} << QList<quint64>{8, 8, 4} << QStringList();
    QTest::newRow("user, two attributes") << "User" << QList<quint64>{0, 8} << QList<quint64>{8, 7}
                                          << QStringList{"CFBundleIdentifier", "StaticDiskUsage"};
    QTest::newRow("system") << "System" << QList<quint64>{0} << QList<quint64>{5}
                            << QStringList{"ApplicationType", "CFBundleIdentifier"};
    QTest::newRow("Any by name") << "Any" << QList<quint64>{0, 8, 16} << QList<quint64>{8, 8, 4}
                                 << QStringList{"CFBundleDisplayName", "CFBundleIdentifier"};
}

void TestDevsimAppsApi::browseAnswersInBatches()
{
    QFETCH(QString, type);
    QFETCH(QList<quint64>, indexes);
    QFETCH(QList<quint64>, amounts);
    QFETCH(QStringList, returnAttributes);
    Session session(kPhone);
    InstProxy proxy(session);
    QVERIFY(proxy.get());
    plist_t options = instproxy_client_options_new();
    if (!type.isEmpty())
        instproxy_client_options_add(options, "ApplicationType", type.toUtf8().constData(),
                                     nullptr);
    if (!returnAttributes.isEmpty()) {
        plist_t attributes = plist_new_array();
        for (const QString& key : returnAttributes)
            plist_array_append_item(attributes, plist_new_string(key.toUtf8().constData()));
        plist_dict_set_item(options, "ReturnAttributes", attributes);
    }
    StatusLog log;
    QCOMPARE(instproxy_browse_with_callback(proxy.get(), options, StatusLog::callback, &log),
             INSTPROXY_E_SUCCESS);
    instproxy_client_options_free(options);
    QVERIFY(log.waitDone());

    QMutexLocker locker(&log.lock);
    QCOMPARE(log.browseIndexes, indexes);
    QCOMPARE(log.browseAmounts, amounts);
    quint64 total = 0;
    for (quint64 amount : amounts)
        total += amount;
    for (quint64 reported : log.browseTotals)
        QCOMPARE(reported, total);
    QCOMPARE(log.statuses.last(), QString("Complete"));
    QCOMPARE(log.statuses.count("BrowsingApplications"), amounts.size());
    for (const QStringList& keys : log.entryKeys) {
        if (returnAttributes.isEmpty())
            QVERIFY(keys.contains("CFBundleVersion") && keys.contains("Path") &&
                    keys.contains("Container"));
        else
            QCOMPARE(keys, returnAttributes);
    }
}

void TestDevsimAppsApi::lookupFindsApps()
{
    Session session(kPhone);
    InstProxy proxy(session);
    QVERIFY(proxy.get());
    const char* ids[] = {"com.kavrel.sample.notes", "com.apple.mobilesafari", "no.such.app",
                         nullptr};
    plist_t result = nullptr;
    QCOMPARE(instproxy_lookup(proxy.get(), ids, nullptr, &result), INSTPROXY_E_SUCCESS);
    QCOMPARE(keysOf(result), QStringList({"com.apple.mobilesafari", "com.kavrel.sample.notes"}));
    plist_t notes = plist_dict_get_item(result, "com.kavrel.sample.notes");
    QCOMPARE(stringOf(notes, "CFBundleDisplayName"), QString("Notes Plus"));
    QCOMPARE(stringOf(notes, "ApplicationType"), QString("User"));
    plist_free(result);

    char* path = nullptr;
    QCOMPARE(instproxy_client_get_path_for_bundle_identifier(proxy.get(), "com.kavrel.sample.notes",
                                                             &path),
             INSTPROXY_E_SUCCESS);
    // The path of the executable inside the bundle.
    QVERIFY(QString::fromUtf8(path).endsWith("/Notes Plus.app/Notes Plus"));
    free(path);
}

void TestDevsimAppsApi::houseArrestVendsContainer_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("bundleId");
    QTest::addColumn<QString>("error");
    QTest::newRow("container") << "VendContainer"
                               << "com.kavrel.sample.notes" << QString();
    QTest::newRow("documents") << "VendDocuments"
                               << "com.kavrel.sample.notes" << QString();
    QTest::newRow("unknown app") << "VendContainer"
                                 << "no.such.app"
                                 << "InstallationLookupFailed";
    QTest::newRow("unknown command") << "VendEverything"
                                     << "com.kavrel.sample.notes"
                                     << "UnknownCommand";
}

void TestDevsimAppsApi::houseArrestVendsContainer()
{
    QFETCH(QString, command);
    QFETCH(QString, bundleId);
    QFETCH(QString, error);
    Session session(kPhone);
    lockdownd_service_descriptor_t service = session.start("com.apple.mobile.house_arrest");
    QVERIFY(service);
    house_arrest_client_t client = nullptr;
    QCOMPARE(house_arrest_client_new(session.device, service, &client), HOUSE_ARREST_E_SUCCESS);
    lockdownd_service_descriptor_free(service);
    QCOMPARE(house_arrest_send_command(client, command.toUtf8().constData(),
                                       bundleId.toUtf8().constData()),
             HOUSE_ARREST_E_SUCCESS);
    plist_t answer = nullptr;
    QCOMPARE(house_arrest_get_result(client, &answer), HOUSE_ARREST_E_SUCCESS);
    QCOMPARE(stringOf(answer, "Error"), error);
    QCOMPARE(stringOf(answer, "Status"), error.isEmpty() ? QString("Complete") : QString());
    plist_free(answer);
    if (error.isEmpty()) {
        afc_client_t afc = nullptr;
        QCOMPARE(afc_client_new_from_house_arrest_client(client, &afc), AFC_E_SUCCESS);
        const QStringList root = readDirectory(afc, "/");
        QVERIFY2(root.contains("Documents") && root.contains("Notes Plus.app") &&
                     root.contains("iTunesMetadata.plist"),
                 qPrintable(root.join(',')));
        QVERIFY(readAfcFile(afc, "/Notes Plus.app/Info.plist").startsWith("bplist00"));
        QVERIFY(readAfcFile(afc, "/iTunesMetadata.plist").size() > 8);
        // Paths never leave the container.
        QVERIFY(readDirectory(afc, "/../../..") == root ||
                readDirectory(afc, "/../../..").isEmpty());
        afc_client_free(afc);
    } else {
        // The connection stays usable for another request.
        QCOMPARE(house_arrest_send_command(client, "VendContainer", "com.kavrel.sample.chat"),
                 HOUSE_ARREST_E_SUCCESS);
        QCOMPARE(house_arrest_get_result(client, &answer), HOUSE_ARREST_E_SUCCESS);
        QCOMPARE(stringOf(answer, "Status"), QString("Complete"));
        plist_free(answer);
    }
    house_arrest_client_free(client);
}

void TestDevsimAppsApi::postedNotificationsReachObservers()
{
    Session session(kPhone);
    NotificationLog watching, other;
    NotificationProxy observer(session, &watching, {"com.example.ping"});
    NotificationProxy bystander(session, &other, {"com.example.other"});
    NotificationProxy poster(session, nullptr, {});
    QVERIFY(observer.get() && bystander.get() && poster.get());
    QTest::qWait(300); // the observe requests are on their way
    QCOMPARE(np_post_notification(poster.get(), "com.example.ping"), NP_E_SUCCESS);
    QVERIFY(watching.waitFor("com.example.ping"));
    QTest::qWait(1500);
    QMutexLocker locker(&other.lock);
    QVERIFY(other.names.isEmpty());
}

void TestDevsimAppsApi::installFailures_data()
{
    QTest::addColumn<QString>("packagePath");
    QTest::addColumn<QByteArray>("stagedBytes");
    QTest::addColumn<QString>("error");
    QTest::newRow("missing package")
        << "PublicStaging/none" << QByteArray() << "PackageExtractionFailed";
    QTest::newRow("not a zip") << "PublicStaging/junk" << QByteArray("not a zip at all")
                               << "PackageExtractionFailed";
    QTest::newRow("path leaving the media folder")
        << "../../../../../../etc/passwd" << QByteArray() << "PackageExtractionFailed";
    QTest::newRow("no app bundle") << "PublicStaging/empty" << QByteArray("zip") // see below
                                   << "PackageInspectionFailed";
}

void TestDevsimAppsApi::installFailures()
{
    QFETCH(QString, packagePath);
    QFETCH(QByteArray, stagedBytes);
    QFETCH(QString, error);
    if (stagedBytes == "zip") {
        const QString path = mSim.tempDir() + "/empty.ipa";
        QVERIFY(ZipBuilder().add("Payload/readme.txt", "no bundle").write(path));
        stagedBytes = readFile(path);
    }
    if (!stagedBytes.isEmpty())
        QVERIFY(stage(packagePath, stagedBytes));
    Session session(kPhone);
    InstProxy proxy(session);
    StatusLog log;
    instproxy_install(proxy.get(), packagePath.toUtf8().constData(), nullptr, StatusLog::callback,
                      &log);
    QVERIFY(log.waitDone());
    QMutexLocker locker(&log.lock);
    QVERIFY2(log.statuses.last().startsWith("!" + error + ": "),
             qPrintable(log.statuses.join('|')));
}

void TestDevsimAppsApi::faultsDelayAndSilence()
{
    const DeviceProfile slow =
        DeviceProfile(testUdid(71))
            .faults({{"statusDelayMs", 150},
                     {"uninstallError", "APIInternalError"},
                     {"uninstallErrorDescription", "Could not remove"}})
            .apps({QJsonObject{{"bundleId", "com.example.stuck"}, {"name", "Stuck"}}});
    const DeviceProfile silent = DeviceProfile(testUdid(72)).faults({{"silent", true}});
    QVERIFY(mSim.attach(slow));
    QVERIFY(mSim.attach(silent));
    {
        Session session(slow.udid());
        InstProxy proxy(session);
        StatusLog log;
        QElapsedTimer timer;
        timer.start();
        instproxy_uninstall(proxy.get(), "com.example.stuck", nullptr, StatusLog::callback, &log);
        QVERIFY(log.waitDone());
        QVERIFY(timer.elapsed() >= 2 * 150);
        QMutexLocker locker(&log.lock);
        QCOMPARE(log.statuses,
                 QStringList({"RemovingApplication 50", "!APIInternalError: Could not remove"}));
    }
    {
        Session session(silent.udid());
        InstProxy proxy(session);
        QVERIFY(proxy.get());
        StatusLog log;
        instproxy_uninstall(proxy.get(), "com.example.any", nullptr, StatusLog::callback, &log);
        QVERIFY(!log.waitDone(2500));
        QMutexLocker locker(&log.lock);
        QVERIFY(log.statuses.isEmpty());
    }
}

void TestDevsimAppsApi::malformedRequests_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("errorKey"); // key of the answer to check
    // its value; "<closed>": the service hung up, "<silent>": it waits for the rest
    QTest::addColumn<QString>("expected");

    const QByteArray notPlist = framed("this is no property list");
    const QByteArray array = framed(plistBytes(plist_new_array(), false));
    const QByteArray truncated = framed(QByteArray(100, 'x')).left(30);
    const QByteArray huge = QByteArray("\x7f\xff\xff\xff") + "abc";
    const char* ip = "com.apple.mobile.installation_proxy";
    QTest::newRow("instproxy: not a plist") << ip << notPlist << "Error"
                                            << "MissingCommand";
    QTest::newRow("instproxy: unknown command") << ip << command("Command", "Explode") << "Error"
                                                << "UnknownCommand";
    QTest::newRow("instproxy: install without path")
        << ip << command("Command", "Install") << "Error"
        << "MissingPackagePath";
    QTest::newRow("instproxy: uninstall without id")
        << ip << command("Command", "Uninstall") << "Error"
        << "MissingApplicationIdentifier";
    QTest::newRow("instproxy: truncated") << ip << truncated << "Error"
                                          << "<silent>";
    QTest::newRow("instproxy: oversized") << ip << huge << "Error"
                                          << "<closed>";
    const char* ha = "com.apple.mobile.house_arrest";
    QTest::newRow("house_arrest: not a plist") << ha << notPlist << "Error"
                                               << "MissingCommand";
    QTest::newRow("house_arrest: no identifier")
        << ha << command("Command", "VendContainer") << "Error"
        << "MissingIdentifier";
    QTest::newRow("house_arrest: oversized") << ha << huge << "Error"
                                             << "<closed>";
    const char* sb = "com.apple.springboardservices";
    QTest::newRow("springboard: unknown command") << sb << command("command", "explode") << "Error"
                                                  << "UnknownCommand";
    QTest::newRow("springboard: icon without id")
        << sb << command("command", "getIconPNGData") << "pngData"
        << "";
    const char* np = "com.apple.mobile.notification_proxy";
    QTest::newRow("notification_proxy: shutdown")
        << np << command("Command", "Shutdown") << "Command"
        << "ProxyDeath";
    QTest::newRow("notification_proxy: junk, then shutdown")
        << np << notPlist + array + command("Command", "Explode") + command("Command", "Shutdown")
        << "Command"
        << "ProxyDeath";
    QTest::newRow("notification_proxy: oversized") << np << huge << "Command"
                                                   << "<closed>";
}

void TestDevsimAppsApi::malformedRequests()
{
    QFETCH(QString, service);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, errorKey);
    QFETCH(QString, expected);
    bool closed = false;
    plist_t answer = rawExchange(service.toUtf8().constData(), bytes, &closed);
    if (expected == "<closed>" || expected == "<silent>") {
        QVERIFY(!answer);
        QCOMPARE(closed, expected == "<closed>");
    } else {
        QVERIFY(answer);
        if (errorKey == "pngData") {
            plist_t data = plist_dict_get_item(answer, "pngData");
            QVERIFY(data && plist_get_node_type(data) == PLIST_DATA);
        } else {
            QCOMPARE(stringOf(answer, errorKey.toUtf8().constData()), expected);
        }
        plist_free(answer);
    }
    // The simulator is still there and serves the next client.
    Session session(kPhone);
    InstProxy proxy(session);
    const char* ids[] = {"com.kavrel.sample.notes", nullptr};
    plist_t result = nullptr;
    QCOMPARE(instproxy_lookup(proxy.get(), ids, nullptr, &result), INSTPROXY_E_SUCCESS);
    QCOMPARE(keysOf(result), QStringList({"com.kavrel.sample.notes"}));
    plist_free(result);
}

KAVREL_TEST_MAIN(TestDevsimAppsApi)
#include "tst_devsimapps_api.moc"
