// The app services of kavrel-devsim against Debian's unmodified ideviceinstaller: listing,
// installing a generated .ipa (then listed, its icon served by springboard services and
// its container by house_arrest), upgrading, uninstalling, archiving with a copy, and an
// install that the device refuses.

#include "AppsTestSupport.h"
#include "DevSim.h"
#include "TestSupport.h"

#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/sbservices.h>

#include <QJsonArray>
#include <QProcess>

using kavreltest::DevSim;
using namespace appstest;

namespace {

struct Result
{
    int code = -1;
    QString out;
    QString err;
};

Result ideviceinstaller(const QStringList& arguments)
{
    QProcess process;
    process.start("ideviceinstaller", arguments);
    Result result;
    if (!process.waitForFinished(90000)) {
        process.kill();
        process.waitForFinished();
    }
    result.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

// ideviceinstaller -l lines without the header: "id, "version", "name"".
QStringList listed(const QString& udid, const QString& option = {})
{
    QStringList arguments{"-u", udid, "-l"};
    if (!option.isEmpty())
        arguments << "-o" << option;
    QStringList lines = ideviceinstaller(arguments).out.split('\n', Qt::SkipEmptyParts);
    if (!lines.isEmpty() && lines.first().startsWith("CFBundleIdentifier"))
        lines.removeFirst();
    return lines;
}

// The container of an app as house_arrest vends it: its root listing.
QStringList containerListing(const QString& bundleId, QString* error = nullptr)
{
    Session session;
    lockdownd_service_descriptor_t service = session.start("com.apple.mobile.house_arrest");
    if (!service)
        return {};
    house_arrest_client_t client = nullptr;
    house_arrest_client_new(session.device(), service, &client);
    lockdownd_service_descriptor_free(service);
    QStringList listing;
    plist_t answer = nullptr;
    if (client &&
        house_arrest_send_command(client, "VendContainer", bundleId.toUtf8().constData()) ==
            HOUSE_ARREST_E_SUCCESS &&
        house_arrest_get_result(client, &answer) == HOUSE_ARREST_E_SUCCESS) {
        if (error)
            *error = stringOf(answer, "Error");
        afc_client_t afc = nullptr;
        if (stringOf(answer, "Status") == "Complete" &&
            afc_client_new_from_house_arrest_client(client, &afc) == AFC_E_SUCCESS) {
            listing = readDirectory(afc, "/");
            afc_client_free(afc);
        }
    }
    if (answer)
        plist_free(answer);
    if (client)
        house_arrest_client_free(client);
    return listing;
}

QByteArray springboardIcon(const QString& bundleId)
{
    Session session;
    lockdownd_service_descriptor_t service = session.start("com.apple.springboardservices");
    if (!service)
        return {};
    sbservices_client_t client = nullptr;
    sbservices_client_new(session.device(), service, &client);
    lockdownd_service_descriptor_free(service);
    char* data = nullptr;
    uint64_t size = 0;
    QByteArray icon;
    if (client && sbservices_get_icon_pngdata(client, bundleId.toUtf8().constData(), &data,
                                              &size) == SBSERVICES_E_SUCCESS)
        icon = QByteArray(data, int(size));
    free(data);
    if (client)
        sbservices_client_free(client);
    return icon;
}

} // namespace

class TestDevsimAppsTools : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
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
    QString mRefusingUdid;
};

void TestDevsimAppsTools::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone"}, &error), qPrintable(error));
    mRefusingUdid = DevSim::makeUdid(61);
    QJsonObject profile = DevSim::minimalProfile(mRefusingUdid, "Refusing Phone");
    profile["faults"] = QJsonObject{{"installError", "ApplicationVerificationFailed"},
                                    {"installErrorDescription", "Signature is not valid"}};
    QVERIFY2(mSim.attach(mSim.writeProfile(profile), nullptr, &error), qPrintable(error));
}

void TestDevsimAppsTools::cleanupTestCase()
{
    mSim.stop();
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
    package.icon = iconPng(3);
    package.appleId = "buyer@example.com";
    const QString ipa = writeIpa(package);
    QVERIFY(!ipa.isEmpty());

    Result install = ideviceinstaller({"-u", kPhone, "-i", ipa});
    QCOMPARE(install.code, 0);
    QVERIFY2(install.out.contains("Install: GeneratingApplicationMap (90%)") &&
                 install.out.contains("Install: Complete"),
             qPrintable(install.out + install.err));
    QVERIFY(listed(kPhone).contains("com.example.hello, \"1.0\", \"Hello World\""));

    QCOMPARE(springboardIcon("com.example.hello"), package.icon);
    QCOMPARE(containerListing("com.example.hello"),
             QStringList({"Documents", "Hello.app", "Library", "iTunesMetadata.plist", "tmp"}));

    Result uninstall = ideviceinstaller({"-u", kPhone, "-U", "com.example.hello"});
    QCOMPARE(uninstall.code, 0);
    QVERIFY2(uninstall.out.contains("Uninstall: Complete"), qPrintable(uninstall.out));
    QVERIFY(!listed(kPhone).join('\n').contains("com.example.hello"));
    QString error;
    QVERIFY(containerListing("com.example.hello", &error).isEmpty());
    QCOMPARE(error, QString("InstallationLookupFailed"));
    QVERIFY(springboardIcon("com.example.hello").isEmpty());
}

void TestDevsimAppsTools::upgradeKeepsDocuments()
{
    Package package;
    package.bundleId = "com.example.keeper";
    package.bundleName = "Keeper";
    package.displayName = "Keeper";
    package.binaryInfo = true;
    QCOMPARE(ideviceinstaller({"-u", kPhone, "-i", writeIpa(package)}).code, 0);
    {
        Session session;
        lockdownd_service_descriptor_t service = session.start("com.apple.mobile.house_arrest");
        QVERIFY(service);
        house_arrest_client_t client = nullptr;
        QCOMPARE(house_arrest_client_new(session.device(), service, &client),
                 HOUSE_ARREST_E_SUCCESS);
        lockdownd_service_descriptor_free(service);
        QCOMPARE(house_arrest_send_command(client, "VendDocuments", "com.example.keeper"),
                 HOUSE_ARREST_E_SUCCESS);
        plist_t answer = nullptr;
        QCOMPARE(house_arrest_get_result(client, &answer), HOUSE_ARREST_E_SUCCESS);
        plist_free(answer);
        afc_client_t afc = nullptr;
        QCOMPARE(afc_client_new_from_house_arrest_client(client, &afc), AFC_E_SUCCESS);
        QVERIFY(writeAfcFile(afc, "/Documents/save.dat", "level 7"));
        afc_client_free(afc);
        house_arrest_client_free(client);
    }

    package.version = "2.0";
    package.displayName = "Keeper Two";
    Result upgrade = ideviceinstaller({"-u", kPhone, "-g", writeIpa(package)});
    QCOMPARE(upgrade.code, 0);
    QVERIFY2(upgrade.out.contains("Upgrade: Complete"), qPrintable(upgrade.out));
    const QStringList lines = listed(kPhone);
    QVERIFY(lines.contains("com.example.keeper, \"2.0\", \"Keeper Two\""));
    QCOMPARE(lines.filter("com.example.keeper").size(), 1);
    QVERIFY(containerListing("com.example.keeper").contains("Keeper.app"));
    QCOMPARE(ideviceinstaller({"-u", kPhone, "-U", "com.example.keeper"}).code, 0);
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
    QTest::newRow("everything, uninstall, then restore") << ",uninstall" << false << true << true;
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
    QCOMPARE(ideviceinstaller({"-u", kPhone, "-i", writeIpa(package)}).code, 0);
    QTemporaryDir copyDir;

    Result archive = ideviceinstaller(
        {"-u", kPhone, "-a", "com.example.boxed", "-o", "copy=" + copyDir.path() + options});
    QCOMPARE(archive.code, 0);
    QVERIFY2(archive.out.contains("Archive: Complete"), qPrintable(archive.out + archive.err));
    const QByteArray copied = kavreltest::readFile(copyDir.path() + "/com.example.boxed.ipa");
    QVERIFY(copied.startsWith("PK\x03\x04"));
    QVERIFY(copied.contains("Payload/Boxed.app/Info.plist"));
    QCOMPARE(copied.contains("Container/Documents"), hasContainer);

    QCOMPARE(listed(kPhone).join('\n').contains("com.example.boxed"), appKept);
    const QString onDevice = mSim.mediaDir(kPhone) + "/ApplicationArchives/com.example.boxed.zip";
    QCOMPARE(QFileInfo::exists(onDevice), archiveKept);
    const QString archives = ideviceinstaller({"-u", kPhone, "-L"}).out;
    QCOMPARE(archives.contains("com.example.boxed - Hello World 1.0"), archiveKept);

    if (archiveKept && !appKept) {
        Result restore = ideviceinstaller({"-u", kPhone, "-r", "com.example.boxed"});
        QCOMPARE(restore.code, 0);
        QVERIFY2(restore.out.contains("Restore: Complete"), qPrintable(restore.out + restore.err));
        QVERIFY(listed(kPhone).contains("com.example.boxed, \"1.0\", \"Hello World\""));
        appKept = true;
    }
    if (archiveKept) {
        Result removal = ideviceinstaller({"-u", kPhone, "-R", "com.example.boxed"});
        QCOMPARE(removal.code, 0);
        QVERIFY2(removal.out.contains("RemoveArchive: Complete"), qPrintable(removal.out));
        QVERIFY(!QFileInfo::exists(onDevice));
    }
    if (appKept)
        QCOMPARE(ideviceinstaller({"-u", kPhone, "-U", "com.example.boxed"}).code, 0);
}

void TestDevsimAppsTools::refusedInstallReportsError()
{
    Package package;
    Result install = ideviceinstaller({"-u", mRefusingUdid, "-i", writeIpa(package)});
    QVERIFY2(install.err.contains("ERROR: Install failed. Got error "
                                  "\"ApplicationVerificationFailed\" with code 0x00000000: "
                                  "Signature is not valid"),
             qPrintable(install.out + install.err));
    QVERIFY(!install.out.contains("Install: Complete"));
    QVERIFY(listed(mRefusingUdid, "list_all").isEmpty());
}

KAVREL_TEST_MAIN(TestDevsimAppsTools)
#include "tst_devsimapps_tools.moc"
