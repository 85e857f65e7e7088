// The kavrel host's device commands (devices, info, set, watch) run as a user would,
// against kavrel-devsim.

#include "DevSim.h"
#include "DeviceManager.h"
#include "PngBuilder.h"
#include "PngCrush.h"
#include "TestSupport.h"

#include <QImage>
#include <QJsonArray>
#include <QProcess>
#include <QSignalSpy>

#include <csignal>

using namespace kavreltest;

namespace {

QProcessEnvironment hostEnvironment()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // Keeps Qt's start-up notice about the runtime folder off standard error.
    static QTemporaryDir runtime;
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    env.remove(QStringLiteral("KAVREL_DEBUG"));
    return env;
}

struct Run
{
    int code;
    QString out;
    QStringList errLines;
};

Run kavrel(const QStringList& args)
{
    const ProgramRun run = runProgram(QStringLiteral(KAVREL_CLI), args, hostEnvironment());
    return {run.exitCode, QString::fromUtf8(run.out),
            QString::fromUtf8(run.err).split(QLatin1Char('\n'), Qt::SkipEmptyParts)};
}

} // namespace

class TestDeviceCommands : public QObject
{
    Q_OBJECT
private slots:
    void noDevice_data()
    {
        QTest::addColumn<bool>("simulatorRuns");
        QTest::addColumn<QStringList>("args");
        for (bool runs : {false, true}) {
            const char* where = runs ? "empty simulator" : "no usbmuxd";
            QTest::addRow("devices, %s", where) << runs << QStringList{"devices"};
            QTest::addRow("info, %s", where) << runs << QStringList{"info", "--pretty"};
            QTest::addRow("set, %s", where) << runs << QStringList{"set", "DeviceName", "x"};
            QTest::addRow("sizes, %s", where) << runs << QStringList{"sizes", "com.x"};
            QTest::addRow("icons, %s", where) << runs << QStringList{"icons", "com.x"};
        }
        QTest::addRow("watch, no usbmuxd") << false << QStringList{"watch"};
    }
    void noDevice()
    {
        QFETCH(bool, simulatorRuns);
        QFETCH(QStringList, args);
        DevSim sim;
        QVERIFY(sim.start());
        if (!simulatorRuns)
            sim.stop();
        const Run run = kavrel(args);
        QCOMPARE(run.code, 1);
        QCOMPARE(run.out, QString());
        QCOMPARE(run.errLines.size(), 1);
        QVERIFY2(run.errLines.first().startsWith(
                     QStringLiteral("kavrel %1: no device attached").arg(args.first())),
                 qPrintable(run.errLines.first()));
    }

    void appSizesAndIcons()
    {
        DevSim sim;
        QVERIFY(sim.start({"iphone"}));
        const Run sizes = kavrel({"sizes", "--udid", kPhone, "com.kavrel.sample.notes", "no.such"});
        QCOMPARE(sizes.code, 1);
        QVERIFY2(sizes.out.contains(QRegularExpression(
                     "^com.kavrel.sample.notes +bundle +18.4 MB +documents +1.2 MB +Apple ID "
                     "tester0@example.com\n$")),
                 qPrintable(sizes.out));
        QCOMPARE(sizes.errLines,
                 QStringList{"kavrel sizes: app no.such is not installed on " + kPhone});
        // The library's document as it is, now from the catalog.
        QCOMPARE(kavrel({"sizes", "--json", "com.kavrel.sample.notes"}).out,
                 QString("{ \"apps\" : [ { \"appid\" : \"com.kavrel.sample.notes\", \"appleid\" : "
                         "\"tester0@example.com\", \"appsize\" : 18432000, \"docsize\" : 1245184 "
                         "} ] }\n"));
        QCOMPARE(kavrel({"sizes", "--udid", testUdid(9), "com.x"}).errLines,
                 QStringList{"kavrel sizes: no device with udid " + testUdid(9) + " is attached"});

        QTemporaryDir out;
        const Run icons = kavrel({"icons", "--out", out.path(), "com.kavrel.sample.maps"});
        QCOMPARE(icons.code, 0);
        QImage icon(out.filePath("com.kavrel.sample.maps.png"));
        QCOMPARE(icon.size(), QSize(57, 57));
        QVERIFY(kavrel({"icon", "com.kavrel.sample.maps", out.filePath("again.png")}).code == 0);
        QCOMPARE(readFile(out.filePath("again.png")),
                 readFile(out.filePath("com.kavrel.sample.maps.png")));

        // A crushed icon is converted: standard row filters unless the library's bytes
        // are asked for.
        PngRecipe recipe;
        recipe.width = 19;
        recipe.height = 13;
        recipe.filter = -1;
        recipe.pixels = testPixels(19, 13, 6, 3);
        const Bytes png = buildPng(recipe);
        const QByteArray crushed(reinterpret_cast<const char*>(png.data()), int(png.size()));
        DeviceProfile device(testUdid(5));
        QVERIFY(sim.attach(device.apps({QJsonObject{
            {"bundleId", "com.t.crushed"},
            {"icon", QJsonObject{{"$data", QString::fromLatin1(crushed.toBase64())}}}}})));
        for (bool library : {false, true}) {
            const QString expected = out.filePath(library ? "library.png" : "standard.png");
            QVERIFY(writeFile(expected, crushed));
            PngCrush crush;
            crush.standard_filters = library ? 0 : 1;
            QByteArray name = QFile::encodeName(expected);
            char* outName = nullptr;
            QCOMPARE(crush.process(name.data(), &outName), 1);
            free(outName);
            const QString dir = out.filePath(library ? "l" : "s");
            QStringList args{"icons", "--udid", testUdid(5), "--out", dir, "com.t.crushed"};
            QCOMPARE(kavrel(library ? args << "--library-bytes" : args).code, 0);
            QCOMPARE(readFile(dir + "/com.t.crushed.png"), readFile(expected));
        }
        QVERIFY(readFile(out.filePath("library.png")) != readFile(out.filePath("standard.png")));
    }

    void devicesAndInfo()
    {
        DevSim sim;
        QVERIFY(
            sim.start({DeviceProfile(testUdid(1), "First"), DeviceProfile(testUdid(2), "Second")}));

        const Run devices = kavrel({"devices"});
        QCOMPARE(devices.code, 0);
        QStringList listed = devices.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        listed.sort();
        QCOMPARE(listed, (QStringList{testUdid(1), testUdid(2)}));

        // The document is the library's, unchanged.
        DeviceManager manager;
        QSignalSpy spy(&manager, &DeviceManager::signalDevInfo);
        manager.getDevInfo(testUdid(2));
        QVERIFY(spy.wait(30000));
        const QString document = spy.at(0).at(1).toString();
        QVERIFY(!document.isEmpty());

        const Run info = kavrel({"info", "--udid", testUdid(2), "--pretty"});
        QCOMPARE(info.code, 0);
        const QStringList lines = info.out.split(QLatin1Char('\n'));
        QCOMPARE(lines.first(), document);
        for (const char* line : {"\nName: +Second\n", "\nModel: +iPhone12,1 \\(MWLT2\\)\n",
                                 "\niOS version: +14.4 \\(18D52\\)\n", "\nSerial: +F2LZK0ABN72J\n",
                                 "\nBattery: +87%\n", "\n  Applications +1.5 GB\n",
                                 "\n  Videos +7.0 KB\n", "\nJailbroken: +no\n"})
            QVERIFY2(info.out.contains(QRegularExpression(line)), line);

        const Run wrong = kavrel({"info", "--udid", testUdid(9)});
        QCOMPARE(wrong.code, 1);
        QCOMPARE(wrong.errLines.size(), 1);

        QCOMPARE(kavrel({"set", "--udid", testUdid(1), "DeviceName", "Renamed phone"}).code, 0);
        QVERIFY(kavrel({"info", "--udid", testUdid(1), "--pretty"})
                    .out.contains(QRegularExpression("\nName: +Renamed phone\n")));
        QCOMPARE(kavrel({"set", "UniqueDeviceID", "x"}).code, 1);
    }

    void watch()
    {
        DevSim sim;
        QVERIFY(sim.start());
        QProcess process;
        process.setProcessEnvironment(hostEnvironment());
        process.start(QStringLiteral(KAVREL_CLI), {QStringLiteral("watch")});
        QVERIFY(process.waitForStarted());

        QByteArray output;
        const auto waitFor = [&](const QByteArray& text) {
            for (int i = 0; i < 200 && !output.contains(text); ++i) {
                process.waitForReadyRead(100);
                output += process.readAllStandardOutput();
            }
            return output.contains(text);
        };
        const DeviceProfile phone(testUdid(3));
        QVERIFY(sim.attach(phone));
        QVERIFY2(waitFor("attached " + phone.udid().toLatin1() + "\n"), output.constData());
        QVERIFY(sim.detach(phone.udid()));
        QVERIFY2(waitFor("detached " + phone.udid().toLatin1() + "\n"), output.constData());

        ::kill(static_cast<pid_t>(process.processId()), SIGINT);
        QVERIFY(process.waitForFinished(10000));
        output += process.readAllStandardOutput();
        QCOMPARE(process.exitCode(), 0);
        QCOMPARE(output, "attached " + phone.udid().toLatin1() + "\ndetached " +
                             phone.udid().toLatin1() + "\n");
    }
};

KAVREL_TEST_MAIN(TestDeviceCommands)
#include "tst_devicecommands.moc"
