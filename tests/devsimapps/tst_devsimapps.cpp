// The installation proxy of kavrel-devsim against Debian's unmodified ideviceinstaller:
// listing, installing a generated .ipa, uninstalling, and an injected install error.

#include "DevSim.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

using namespace kavreltest;

namespace {

// A generated app package com.example.hello: Payload/Hello.app with a binary Info.plist.
bool writeIpa(const QString& path)
{
    plist_t info = plist_new_dict();
    const char* const values[][2] = {{"CFBundleIdentifier", "com.example.hello"},
                                     {"CFBundleName", "Hello"},
                                     {"CFBundleDisplayName", "Hello World"},
                                     {"CFBundleExecutable", "Hello"},
                                     {"CFBundleVersion", "1.0"}};
    for (const auto& value : values)
        plist_dict_set_item(info, value[0], plist_new_string(value[1]));
    return ZipBuilder()
        .add("Payload/Hello.app/Info.plist", plistBytes(info, true))
        .add("Payload/Hello.app/Hello", QByteArray(4096, '\x7f'))
        .write(path, true);
}

ProgramRun ideviceinstaller(const QString& udid, const QStringList& arguments)
{
    return runProgram("ideviceinstaller", QStringList{"-u", udid} + arguments,
                      QProcessEnvironment::systemEnvironment(), 90000);
}

// ideviceinstaller -l lines without the header: "id, "version", "name"".
QStringList listed(const QString& udid, const QString& option = {})
{
    QStringList arguments{"-l"};
    if (!option.isEmpty())
        arguments << "-o" << option;
    QStringList lines =
        QString::fromUtf8(ideviceinstaller(udid, arguments).out).split('\n', Qt::SkipEmptyParts);
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
    DevSim mSim;
    QString mIpa;
};

void TestDevsimApps::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone"}, &error), qPrintable(error));
    mIpa = mSim.tempDir() + "/Hello.ipa";
    QVERIFY(writeIpa(mIpa));
}

void TestDevsimApps::listsApps_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("expectedLine");
    QTest::newRow("user apps") << QString() << 15
                               << "com.kavrel.sample.notes, \"1.0.0\", \"Notes Plus\"";
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
    const ProgramRun install = ideviceinstaller(kPhone, {"-i", mIpa});
    QCOMPARE(install.exitCode, 0);
    QVERIFY2(install.out.contains("Install: GeneratingApplicationMap (90%)") &&
                 install.out.contains("Install: Complete"),
             (install.out + install.err).constData());
    QVERIFY(listed(kPhone).contains("com.example.hello, \"1.0\", \"Hello World\""));

    const ProgramRun uninstall = ideviceinstaller(kPhone, {"-U", "com.example.hello"});
    QCOMPARE(uninstall.exitCode, 0);
    QVERIFY2(uninstall.out.contains("Uninstall: Complete"), uninstall.out.constData());
    QVERIFY(!listed(kPhone).join('\n').contains("com.example.hello"));
}

void TestDevsimApps::refusedInstallReportsError()
{
    const DeviceProfile refusing =
        DeviceProfile(testUdid(61))
            .faults(QJsonObject{{"installError", "ApplicationVerificationFailed"},
                                {"installErrorDescription", "Signature is not valid"}});
    QVERIFY(mSim.attach(refusing));
    const ProgramRun install = ideviceinstaller(refusing.udid(), {"-i", mIpa});
    QVERIFY2(install.err.contains("ERROR: Install failed. Got error "
                                  "\"ApplicationVerificationFailed\" with code 0x00000000: "
                                  "Signature is not valid"),
             (install.out + install.err).constData());
    QVERIFY(!install.out.contains("Install: Complete"));
    QVERIFY(listed(refusing.udid(), "list_all").isEmpty());
}

KAVREL_TEST_MAIN(TestDevsimApps)
#include "tst_devsimapps.moc"
