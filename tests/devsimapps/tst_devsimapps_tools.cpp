// The app services of kavrel-devsim against Debian's unmodified ideviceinstaller: listing,
// installing a generated .ipa (then listed, its icon served by springboard services and
// its container by house_arrest), upgrading, uninstalling, archiving with a copy, and an
// install that the device refuses.

#include "AppsTestSupport.h"
#include "DevSim.h"
#include "TestSupport.h"

#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/sbservices.h>

using namespace kavreltest;
using appstest::Package;

namespace {

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

} // namespace

class TestDevsimAppsTools : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void listsApps_data();
    void listsApps();
    void installListServeUninstall();
    void upgradeKeepsDocuments();
    void archiveCopiesArchive_data();
    void archiveCopiesArchive();
    void refusedInstallReportsError();

private:
    QString writeIpa(const Package& package);
    DevSim mSim;
};

void TestDevsimAppsTools::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone"}, &error), qPrintable(error));
}

QString TestDevsimAppsTools::writeIpa(const Package& package)
{
    const QString path = mSim.tempDir() + "/" + package.bundleName + "-" + package.version + ".ipa";
    return package.write(path) ? path : QString();
}

void TestDevsimAppsTools::listsApps_data()
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

void TestDevsimAppsTools::listsApps()
{
    QFETCH(QString, option);
    QFETCH(int, count);
    QFETCH(QString, expectedLine);
    const QStringList lines = listed(kPhone, option);
    QCOMPARE(lines.size(), count);
    QVERIFY2(lines.contains(expectedLine), qPrintable(lines.join('\n')));
    QCOMPARE(QSet<QString>(lines.begin(), lines.end()).size(), count); // no batch twice
}

void TestDevsimAppsTools::installListServeUninstall()
{
    Package package;
    package.icon = appstest::iconPng(3);
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
             QString("InstallationLookupFailed"));
    QCOMPARE(springboardIcon("com.example.hello"), QByteArray());
}

void TestDevsimAppsTools::upgradeKeepsDocuments()
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

void TestDevsimAppsTools::archiveCopiesArchive_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<bool>("appKept");
    QTest::addColumn<bool>("hasContainer");
    QTest::addColumn<bool>("archiveKept");
    QTest::newRow("everything, app kept") << "" << true << true << true;
    QTest::newRow("app only, uninstall, remove archive")
        << ",app_only,uninstall,remove" << false << false << false;
}

void TestDevsimAppsTools::archiveCopiesArchive()
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

void TestDevsimAppsTools::refusedInstallReportsError()
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

KAVREL_TEST_MAIN(TestDevsimAppsTools)
#include "tst_devsimapps_tools.moc"
