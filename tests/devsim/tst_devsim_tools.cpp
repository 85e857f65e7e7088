// kavrel-devsim against Debian's unmodified libimobiledevice programs, its own control
// command and the libimobiledevice C API.

#include "DevSim.h"
#include "TestSupport.h"

#include <QCryptographicHash>

using namespace kavreltest;

namespace {

// Runs a program (it finds the simulator through the environment); its output lines.
QStringList outputLines(const QString& program, const QStringList& arguments, int* exitCode)
{
    const ProgramRun run = runProgram(program, arguments);
    *exitCode = run.exitCode;
    return QString::fromUtf8(run.out).split('\n', Qt::SkipEmptyParts);
}

QByteArray patternBytes(int size, quint32 seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i) {
        seed = seed * 1664525u + 1013904223u;
        bytes[i] = char(seed >> 24);
    }
    return bytes;
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
    void ctlAttachListDetach();
    void afcRoundTripOf50MB();

private:
    DevSim mSim;
};

void TestDevsimTools::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone", "ipad-jailbroken"}, &error), qPrintable(error));
    QCOMPARE(mSim.startedUdids(), QStringList({kPhone, kPad}));
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

void TestDevsimTools::ctlAttachListDetach()
{
    const QString udid = testUdid(77);
    const QString profile = mSim.writeProfile(DeviceProfile(udid, "Hot Plugged").json());
    const QStringList ctl{"ctl", "--socket", mSim.socketPath()};
    int code = -1;
    QCOMPARE(outputLines(KAVREL_DEVSIM, ctl + QStringList{"attach", profile}, &code),
             QStringList{"OK " + udid});
    QCOMPARE(outputLines("ideviceinfo", {"-u", udid, "-k", "DeviceName"}, &code),
             QStringList{"Hot Plugged"});

    const QStringList lines = outputLines(KAVREL_DEVSIM, ctl + QStringList{"list"}, &code);
    QCOMPARE(code, 0);
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines.last(), QString("OK 3"));
    QCOMPARE(lines[2].section(' ', 0, 0), udid);
    QCOMPARE(lines[2].section(' ', 2), mSim.mediaDir(udid));
    QVERIFY(QFileInfo(mSim.mediaDir(udid)).isDir());

    outputLines(KAVREL_DEVSIM, ctl + QStringList{"detach", udid}, &code);
    QCOMPARE(code, 0);
    QVERIFY(!outputLines("idevice_id", {"-l"}, &code).join('\n').contains(udid));
    QCOMPARE(mSim.attachedUdids(), QStringList({kPhone, kPad}));
}

void TestDevsimTools::afcRoundTripOf50MB()
{
    Session session(kPhone);
    Afc afc(session.afc());
    QVERIFY(afc);
    const QByteArray bytes = patternBytes(50 * 1024 * 1024, 7);
    QVERIFY(writeAfcFile(afc.get(), "/Downloads/big.bin", bytes));
    afc_error_t error = AFC_E_UNKNOWN_ERROR;
    QCOMPARE(afcFileInfo(afc.get(), "/Downloads/big.bin", &error).value("st_size"),
             QString::number(bytes.size()));

    // The bytes landed in the device's media folder and come back unchanged.
    const QByteArray expectedHash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha1);
    const QByteArray host = readFile(mSim.mediaDir(kPhone) + "/Downloads/big.bin");
    QCOMPARE(QCryptographicHash::hash(host, QCryptographicHash::Sha1), expectedHash);
    const QByteArray back = readAfcFile(afc.get(), "/Downloads/big.bin");
    QCOMPARE(back.size(), bytes.size());
    QCOMPARE(QCryptographicHash::hash(back, QCryptographicHash::Sha1), expectedHash);
}

KAVREL_TEST_MAIN(TestDevsimTools)
#include "tst_devsim_tools.moc"
