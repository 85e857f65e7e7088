// The app services of kavrel-devsim (installation proxy, notification proxy,
// house_arrest, springboard services) against Debian's unmodified ideviceinstaller and
// through the libimobiledevice C API: listing and browsing, installing a generated .ipa
// with its status messages and notifications, upgrading, uninstalling, archiving,
// containers and icons, and injected faults.

#include "DevSim.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/notification_proxy.h>
#include <libimobiledevice/sbservices.h>

#include <QBuffer>
#include <QElapsedTimer>
#include <QImage>
#include <QMutex>
#include <QWaitCondition>

using namespace kavreltest;

namespace {

void setString(plist_t dict, const char* key, const QString& value)
{
    plist_dict_set_item(dict, key, plist_new_string(value.toUtf8().constData()));
}

// A generated app package.
struct Package
{
    QString bundleId = "com.example.hello";
    QString bundleName = "Hello"; // the bundle is Payload/<bundleName>.app
    QString displayName = "Hello World";
    QString version = "1.0";
    QByteArray icon;         // stored as AppIcon60x60@2x.png; empty: no icon
    QString appleId;         // iTunesMetadata.plist with appleId when set
    bool binaryInfo = false; // Info.plist as binary plist instead of XML

    // Writes the .ipa; false on failure.
    bool write(const QString& path) const
    {
        plist_t info = plist_new_dict();
        setString(info, "CFBundleIdentifier", bundleId);
        setString(info, "CFBundleName", bundleName);
        setString(info, "CFBundleDisplayName", displayName);
        setString(info, "CFBundleExecutable", bundleName);
        setString(info, "CFBundleVersion", version);
        setString(info, "MinimumOSVersion", "12.0");
        plist_t platforms = plist_new_array();
        plist_array_append_item(platforms, plist_new_string("iPhoneOS"));
        plist_dict_set_item(info, "CFBundleSupportedPlatforms", platforms);
        if (!icon.isEmpty()) {
            plist_t files = plist_new_array();
            plist_array_append_item(files, plist_new_string("AppIcon60x60"));
            plist_t primary = plist_new_dict();
            plist_dict_set_item(primary, "CFBundleIconFiles", files);
            plist_t icons = plist_new_dict();
            plist_dict_set_item(icons, "CFBundlePrimaryIcon", primary);
            plist_dict_set_item(info, "CFBundleIcons", icons);
        }

        const QString app = "Payload/" + bundleName + ".app/";
        kavreltest::ZipBuilder zip;
        zip.addDir("Payload/").addDir(app);
        zip.add(app + "Info.plist", plistBytes(info, binaryInfo));
        zip.add(app + bundleName, QByteArray(4096, '\x7f'));
        zip.add(app + "Assets/readme.txt", "bundled resource\n");
        if (!icon.isEmpty())
            zip.add(app + "AppIcon60x60@2x.png", icon);
        if (!appleId.isEmpty()) {
            plist_t metadata = plist_new_dict();
            setString(metadata, "appleId", appleId);
            zip.add("iTunesMetadata.plist", plistBytes(metadata, false));
        }
        return zip.write(path, true);
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

// Opens an app's container through house_arrest and runs use on its AFC client (not
// called when the device refuses); the Error of the answer.
template <typename Use> QString withContainer(const QString& bundleId, const char* command, Use use)
{
    Session session(kPhone);
    lockdownd_service_descriptor_t service = session.start("com.apple.mobile.house_arrest");
    house_arrest_client_t client = nullptr;
    house_arrest_client_new(session.device, service, &client);
    lockdownd_service_descriptor_free(service);
    plist_t answer = nullptr;
    if (!client ||
        house_arrest_send_command(client, command, bundleId.toUtf8().constData()) !=
            HOUSE_ARREST_E_SUCCESS ||
        house_arrest_get_result(client, &answer) != HOUSE_ARREST_E_SUCCESS)
        return "<no answer>";
    const QString error = stringOf(answer, "Error");
    plist_free(answer);
    afc_client_t afc = nullptr;
    if (error.isEmpty() && afc_client_new_from_house_arrest_client(client, &afc) == AFC_E_SUCCESS) {
        use(afc);
        afc_client_free(afc);
    }
    house_arrest_client_free(client);
    return error;
}

QStringList containerListing(const QString& bundleId)
{
    QStringList listing;
    withContainer(bundleId, "VendContainer",
                  [&](afc_client_t afc) { listing = readDirectory(afc, "/"); });
    return listing;
}

QByteArray springboardIcon(const QString& bundleId)
{
    Session session(kPhone);
    lockdownd_service_descriptor_t service = session.start("com.apple.springboardservices");
    sbservices_client_t client = nullptr;
    sbservices_client_new(session.device, service, &client);
    lockdownd_service_descriptor_free(service);
    char* data = nullptr;
    uint64_t size = 0;
    if (!client || sbservices_get_icon_pngdata(client, bundleId.toUtf8().constData(), &data,
                                               &size) != SBSERVICES_E_SUCCESS)
        return "<failed>";
    const QByteArray icon(data, int(size));
    free(data);
    sbservices_client_free(client);
    return icon;
}

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

} // namespace

class TestDevsimApps : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void listsApps_data();
    void listsApps();
    void browseAnswersInBatches_data();
    void browseAnswersInBatches();
    void lookupFindsApps();
    void installListServeUninstall();
    void installReportsStepsAndNotifies();
    void upgradeKeepsDocuments();
    void archiveCopiesArchive_data();
    void archiveCopiesArchive();
    void houseArrestVendsContainer_data();
    void houseArrestVendsContainer();
    void postedNotificationsReachObservers();
    void installFailures_data();
    void installFailures();
    void refusedInstallReportsError();
    void faultsDelayAndSilence();

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
    QImage image(4, 4, QImage::Format_RGB32);
    image.fill(QColor(200, 40, 90));
    QBuffer png(&package.icon);
    QVERIFY(png.open(QIODevice::WriteOnly) && image.save(&png, "PNG"));
    package.appleId = "buyer@example.com";
    const Result install = ideviceinstaller(kPhone, {"-i", writeIpa(package)});
    QCOMPARE(install.code, 0);
    QVERIFY2(install.out.contains("Install: GeneratingApplicationMap (90%)") &&
                 install.out.contains("Install: Complete"),
             qPrintable(install.out + install.err));
    QVERIFY(listed(kPhone).contains("com.example.hello, \"1.0\", \"Hello World\""));
    QCOMPARE(springboardIcon("com.example.hello"), package.icon);
    QCOMPARE(containerListing("com.example.hello"),
             QStringList({"Documents", "Hello.app", "Library", "iTunesMetadata.plist", "tmp"}));

    const Result uninstall = ideviceinstaller(kPhone, {"-U", "com.example.hello"});
    QCOMPARE(uninstall.code, 0);
    QVERIFY2(uninstall.out.contains("Uninstall: Complete"), qPrintable(uninstall.out));
    QVERIFY(!listed(kPhone).join('\n').contains("com.example.hello"));
    QCOMPARE(withContainer("com.example.hello", "VendContainer", [](afc_client_t) {}),
             QString("ApplicationLookupFailed"));
    QCOMPARE(springboardIcon("com.example.hello"), QByteArray());
}

void TestDevsimApps::upgradeKeepsDocuments()
{
    Package package;
    package.bundleId = "com.example.keeper";
    package.bundleName = "Keeper";
    package.binaryInfo = true;
    QCOMPARE(ideviceinstaller(kPhone, {"-i", writeIpa(package)}).code, 0);
    bool written = false;
    withContainer(package.bundleId, "VendDocuments", [&](afc_client_t afc) {
        written = writeAfcFile(afc, "/Documents/save.dat", "level 7");
    });
    QVERIFY(written);

    package.version = "2.0";
    package.displayName = "Keeper Two";
    const Result upgrade = ideviceinstaller(kPhone, {"-g", writeIpa(package)});
    QCOMPARE(upgrade.code, 0);
    QVERIFY2(upgrade.out.contains("Upgrade: Complete"), qPrintable(upgrade.out));
    const QStringList lines = listed(kPhone);
    QVERIFY(lines.contains("com.example.keeper, \"2.0\", \"Keeper Two\""));
    QCOMPARE(lines.filter("com.example.keeper").size(), 1);
    QByteArray kept;
    withContainer(package.bundleId, "VendContainer",
                  [&](afc_client_t afc) { kept = readAfcFile(afc, "/Documents/save.dat"); });
    QCOMPARE(kept, QByteArray("level 7"));
    QCOMPARE(ideviceinstaller(kPhone, {"-U", "com.example.keeper"}).code, 0);
}

void TestDevsimApps::archiveCopiesArchive_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<bool>("appKept");
    QTest::addColumn<bool>("hasContainer");
    QTest::addColumn<bool>("archiveKept");
    QTest::newRow("everything, app kept") << "" << true << true << true;
    QTest::newRow("app only, uninstall, remove archive")
        << ",app_only,uninstall,remove" << false << false << false;
}

void TestDevsimApps::archiveCopiesArchive()
{
    QFETCH(QString, options);
    QFETCH(bool, appKept);
    QFETCH(bool, hasContainer);
    QFETCH(bool, archiveKept);
    Package package;
    package.bundleId = "com.example.boxed";
    package.bundleName = "Boxed";
    QCOMPARE(ideviceinstaller(kPhone, {"-i", writeIpa(package)}).code, 0);
    QTemporaryDir copyDir;

    const Result archive = ideviceinstaller(
        kPhone, {"-a", "com.example.boxed", "-o", "copy=" + copyDir.path() + options});
    QCOMPARE(archive.code, 0);
    QVERIFY2(archive.out.contains("Archive: Complete"), qPrintable(archive.out + archive.err));
    const QByteArray copied = readFile(copyDir.path() + "/com.example.boxed.ipa");
    QVERIFY(copied.startsWith("PK\x03\x04"));
    QVERIFY(copied.contains("Payload/Boxed.app/Info.plist"));
    QCOMPARE(copied.contains("Container/Documents"), hasContainer);

    QCOMPARE(listed(kPhone).join('\n').contains("com.example.boxed"), appKept);
    const QString onDevice = mSim.mediaDir(kPhone) + "/ApplicationArchives/com.example.boxed.zip";
    QCOMPARE(QFileInfo::exists(onDevice), archiveKept);
    QCOMPARE(ideviceinstaller(kPhone, {"-L"}).out.contains("com.example.boxed - Hello World 1.0"),
             archiveKept);
    if (archiveKept) {
        const Result removal = ideviceinstaller(kPhone, {"-R", "com.example.boxed"});
        QVERIFY2(removal.out.contains("RemoveArchive: Complete"), qPrintable(removal.out));
        QVERIFY(!QFileInfo::exists(onDevice));
    }
    if (appKept)
        QCOMPARE(ideviceinstaller(kPhone, {"-U", "com.example.boxed"}).code, 0);
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

void TestDevsimApps::browseAnswersInBatches_data()
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

void TestDevsimApps::browseAnswersInBatches()
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

void TestDevsimApps::lookupFindsApps()
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

void TestDevsimApps::houseArrestVendsContainer_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QString>("bundleId");
    QTest::addColumn<QString>("error");
    QTest::newRow("container") << QByteArray("VendContainer") << "com.kavrel.sample.notes"
                               << QString();
    QTest::newRow("documents") << QByteArray("VendDocuments") << "com.kavrel.sample.notes"
                               << QString();
    QTest::newRow("unknown app") << QByteArray("VendContainer") << "no.such.app"
                                 << "ApplicationLookupFailed";
    QTest::newRow("unknown command") << QByteArray("VendEverything") << "com.kavrel.sample.notes"
                                     << "UnknownCommand";
}

void TestDevsimApps::houseArrestVendsContainer()
{
    QFETCH(QByteArray, command);
    QFETCH(QString, bundleId);
    QFETCH(QString, error);
    QStringList root, outside;
    QByteArray info, metadata;
    QCOMPARE(withContainer(bundleId, command.constData(),
                           [&](afc_client_t afc) {
                               root = readDirectory(afc, "/");
                               outside = readDirectory(afc, "/../../..");
                               info = readAfcFile(afc, "/Notes Plus.app/Info.plist");
                               metadata = readAfcFile(afc, "/iTunesMetadata.plist");
                           }),
             error);
    if (!error.isEmpty())
        return;
    QVERIFY2(root.contains("Documents") && root.contains("Notes Plus.app"),
             qPrintable(root.join(',')));
    QVERIFY(info.startsWith("bplist00"));
    QVERIFY(metadata.size() > 8);
    // Paths never leave the container.
    QVERIFY(outside == root || outside.isEmpty());
}

void TestDevsimApps::postedNotificationsReachObservers()
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

void TestDevsimApps::installFailures_data()
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

void TestDevsimApps::installFailures()
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

void TestDevsimApps::faultsDelayAndSilence()
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

KAVREL_TEST_MAIN(TestDevsimApps)
#include "tst_devsimapps.moc"
