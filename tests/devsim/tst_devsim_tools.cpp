// kavrel-devsim against Debian's unmodified libimobiledevice programs and its own control
// command.

#include "DevSim.h"
#include "TestSupport.h"

using namespace kavreltest;

namespace {

// Runs a program (it finds the simulator through the environment); its output lines.
QStringList outputLines(const QString& program, const QStringList& arguments, int* exitCode)
{
    const ProgramRun run = runProgram(program, arguments);
    *exitCode = run.exitCode;
    return QString::fromUtf8(run.out).split('\n', Qt::SkipEmptyParts);
}

} // namespace

class TestDevsimTools : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void ideviceIdListsEveryDevice();
    void ideviceinfoPrintsValues_data();
    void ideviceinfoPrintsValues();
    void hotPlugSeenByTools();

private:
    DevSim mSim;
};

void TestDevsimTools::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone", "ipad-jailbroken"}, &error), qPrintable(error));
}

void TestDevsimTools::ideviceIdListsEveryDevice()
{
    int code = -1;
    QStringList lines = outputLines("idevice_id", {"-l"}, &code);
    QCOMPARE(code, 0);
    for (QString& line : lines)
        line = line.section(' ', 0, 0).trimmed();
    QCOMPARE(lines, QStringList({kPhone, kPad}));
}

void TestDevsimTools::ideviceinfoPrintsValues_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("expectedLines"); // empty: the program fails

    QTest::newRow("global domain")
        << QStringList{"-u", kPhone}
        << QStringList{"DeviceName: Kavrel's iPhone", "ProductType: iPhone12,3",
                       "ProductVersion: 14.4", "UniqueDeviceID: " + kPhone,
                       "InternationalMobileEquipmentIdentity: 356938035643809"};
    QTest::newRow("battery domain, first device")
        << QStringList{"-q", "com.apple.mobile.battery"}
        << QStringList{"BatteryCurrentCapacity: 87", "BatteryIsCharging: true",
                       "FullyCharged: false", "HasBattery: true"};
    QTest::newRow("disk usage domain")
        << QStringList{"-u", kPhone, "-q", "com.apple.disk_usage"}
        << QStringList{"TotalDataCapacity: 53904863232", "TotalDiskCapacity: 64000000000",
                       "AmountDataAvailable: 28433907712"};
    QTest::newRow("one key, second device")
        << QStringList{"-u", kPad, "-k", "SerialNumber"} << QStringList{"DMPWK1Q9JF8J"};
    QTest::newRow("unknown device") << QStringList{"-u", QString(40, '0')} << QStringList();
}

void TestDevsimTools::ideviceinfoPrintsValues()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, expectedLines);
    int code = -1;
    const QStringList lines = outputLines("ideviceinfo", arguments, &code);
    QCOMPARE(code == 0, !expectedLines.isEmpty());
    for (const QString& expected : expectedLines)
        QVERIFY2(lines.contains(expected),
                 qPrintable(expected + " missing in:\n" + lines.join('\n')));
}

void TestDevsimTools::hotPlugSeenByTools()
{
    // DevSim attaches, lists and detaches through "kavrel-devsim ctl".
    const DeviceProfile plugged(testUdid(77), "Hot Plugged");
    QVERIFY(mSim.attach(plugged));
    int code = -1;
    QCOMPARE(outputLines("ideviceinfo", {"-u", plugged.udid(), "-k", "DeviceName"}, &code),
             QStringList{"Hot Plugged"});
    QCOMPARE(mSim.attachedUdids(), QStringList({kPhone, kPad, plugged.udid()}));
    QVERIFY(QFileInfo(mSim.mediaDir(plugged.udid())).isDir());
    QVERIFY(mSim.detach(plugged.udid()));
    QVERIFY(!outputLines("idevice_id", {"-l"}, &code).join('\n').contains(plugged.udid()));
    QCOMPARE(mSim.attachedUdids(), QStringList({kPhone, kPad}));
}

KAVREL_TEST_MAIN(TestDevsimTools)
#include "tst_devsim_tools.moc"
