// kavrel-devsim against Debian's unmodified libimobiledevice programs and its own
// control command.

#include "DevSim.h"
#include "TestSupport.h"

#include <QProcess>

using kavreltest::DevSim;

namespace {

const QString kPhone = "a1b2c3d4e5f60718293a4b5c6d7e8f9012345678";
const QString kPad = "f0e1d2c3b4a5968778695a4b3c2d1e0f9a8b7c6d";

// Runs a program with the simulator's socket in its environment; its standard output.
QString run(const QString& program, const QStringList& arguments, int* exitCode = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
    }
    if (exitCode)
        *exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return QString::fromUtf8(process.readAllStandardOutput());
}

} // namespace

class TestDevsimTools : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void ideviceIdListsEveryDevice();
    void ideviceinfoPrintsValues_data();
    void ideviceinfoPrintsValues();
    void ideviceinfoFailsForUnknownDevice();
    void ctlAttachListDetach();
    void ctlReportsErrors_data();
    void ctlReportsErrors();

private:
    DevSim mSim;
};

void TestDevsimTools::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone", "ipad-jailbroken"}, &error), qPrintable(error));
    QCOMPARE(mSim.startedUdids(), QStringList({kPhone, kPad}));
}

void TestDevsimTools::cleanupTestCase()
{
    mSim.stop();
}

void TestDevsimTools::ideviceIdListsEveryDevice()
{
    int code = -1;
    QString out = run("idevice_id", {"-l"}, &code);
    QCOMPARE(code, 0);
    QStringList lines = out.split('\n', Qt::SkipEmptyParts);
    for (QString& line : lines)
        line = line.section(' ', 0, 0).trimmed();
    QCOMPARE(lines, QStringList({kPhone, kPad}));
}

void TestDevsimTools::ideviceinfoPrintsValues_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("expectedLines");

    QTest::newRow("global domain, iPhone")
        << QStringList{"-u", kPhone}
        << QStringList{"DeviceName: Kavrel's iPhone", "ProductType: iPhone12,3",
                       "ProductVersion: 14.4", "UniqueDeviceID: " + kPhone,
                       "InternationalMobileEquipmentIdentity: 356938035643809"};
    QTest::newRow("global domain, iPad")
        << QStringList{"-u", kPad}
        << QStringList{"DeviceName: Workshop iPad", "ProductType: iPad7,5",
                       "UniqueDeviceID: " + kPad};
    QTest::newRow("battery domain, first device")
        << QStringList{"-q", "com.apple.mobile.battery"}
        << QStringList{"BatteryCurrentCapacity: 87", "BatteryIsCharging: true",
                       "FullyCharged: false", "HasBattery: true"};
    QTest::newRow("battery domain, iPad")
        << QStringList{"-u", kPad, "-q", "com.apple.mobile.battery"}
        << QStringList{"BatteryCurrentCapacity: 54", "BatteryIsCharging: false"};
    QTest::newRow("disk usage domain")
        << QStringList{"-u", kPhone, "-q", "com.apple.disk_usage"}
        << QStringList{"TotalDataCapacity: 53904863232", "TotalDiskCapacity: 64000000000",
                       "AmountDataAvailable: 28433907712"};
    QTest::newRow("one key") << QStringList{"-u", kPad, "-k", "SerialNumber"}
                             << QStringList{"DMPWK1Q9JF8J"};
}

void TestDevsimTools::ideviceinfoPrintsValues()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, expectedLines);
    int code = -1;
    QString out = run("ideviceinfo", arguments, &code);
    QCOMPARE(code, 0);
    QStringList lines = out.split('\n', Qt::SkipEmptyParts);
    for (const QString& expected : expectedLines)
        QVERIFY2(lines.contains(expected), qPrintable("missing '" + expected + "' in:\n" + out));
}

void TestDevsimTools::ideviceinfoFailsForUnknownDevice()
{
    int code = -1;
    run("ideviceinfo", {"-u", QString(40, '0')}, &code);
    QVERIFY(code != 0);
}

void TestDevsimTools::ctlAttachListDetach()
{
    const QString udid = DevSim::makeUdid(77);
    const QString profile = mSim.writeProfile(DevSim::minimalProfile(udid, "Hot Plugged"));
    QVERIFY(!profile.isEmpty());
    const QString devsim = KAVREL_DEVSIM;

    int code = -1;
    QString out = run(devsim, {"ctl", "--socket", mSim.socketPath(), "attach", profile}, &code);
    QCOMPARE(code, 0);
    QCOMPARE(out.trimmed(), "OK " + udid);

    out = run("idevice_id", {"-l"}, &code);
    QVERIFY2(out.contains(udid), qPrintable(out));
    out = run("ideviceinfo", {"-u", udid, "-k", "DeviceName"}, &code);
    QCOMPARE(out.trimmed(), QString("Hot Plugged"));

    out = run(devsim, {"ctl", "--socket", mSim.socketPath(), "list"}, &code);
    QCOMPARE(code, 0);
    QStringList lines = out.split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.last(), QString("OK 3"));
    QCOMPARE(lines[2].section(' ', 0, 0), udid);
    QCOMPARE(lines[2].section(' ', 2), mSim.mediaDir(udid));
    QVERIFY(QFileInfo(mSim.mediaDir(udid)).isDir());

    out = run(devsim, {"ctl", "--socket", mSim.socketPath(), "detach", udid}, &code);
    QCOMPARE(code, 0);
    out = run("idevice_id", {"-l"}, &code);
    QVERIFY2(!out.contains(udid), qPrintable(out));
    QCOMPARE(mSim.attachedUdids(), QStringList({kPhone, kPad}));
}

void TestDevsimTools::ctlReportsErrors_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<QString>("errorPart");
    QTest::newRow("detach unknown") << QStringList{"detach", "nope"} << "no attached device";
    QTest::newRow("attach missing file")
        << QStringList{"attach", "/no/such/profile.json"} << "cannot read profile";
    QTest::newRow("attach twice") << QStringList{"attach", "iphone"} << "already attached";
    QTest::newRow("unknown verb") << QStringList{"explode"} << "unknown command";
    const QString broken = mSim.tempDir() + "/broken.json";
    kavreltest::writeFile(broken, "{\"udid\": \"abc\", \"lockdown\": {\"global\": [1, }");
    QTest::newRow("invalid JSON") << QStringList{"attach", broken} << "not valid JSON";
    const QString badUdid = mSim.tempDir() + "/badudid.json";
    kavreltest::writeFile(badUdid, "{\"udid\": \"../../etc\"}");
    QTest::newRow("udid with a path") << QStringList{"attach", badUdid} << "\"udid\"";
    const QString noDict = mSim.tempDir() + "/array.json";
    kavreltest::writeFile(noDict, "[1, 2, 3]");
    QTest::newRow("not a dictionary") << QStringList{"attach", noDict} << "profile";
}

void TestDevsimTools::ctlReportsErrors()
{
    QFETCH(QStringList, command);
    QFETCH(QString, errorPart);
    int code = -1;
    QString out =
        run(KAVREL_DEVSIM, QStringList{"ctl", "--socket", mSim.socketPath()} + command, &code);
    QCOMPARE(code, 1);
    QVERIFY2(out.startsWith("ERROR") && out.contains(errorPart), qPrintable(out));
}

KAVREL_TEST_MAIN(TestDevsimTools)
#include "tst_devsim_tools.moc"
