// The installation proxy of kavrel-devsim against Debian's unmodified ideviceinstaller:
// listing, installing a generated .ipa, uninstalling, and an injected install error.

#include "DevSim.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

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

} // namespace

class TestDevsimApps : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void listsApps_data();
    void listsApps();
    void installListServeUninstall();
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

KAVREL_TEST_MAIN(TestDevsimApps)
#include "tst_devsimapps.moc"
