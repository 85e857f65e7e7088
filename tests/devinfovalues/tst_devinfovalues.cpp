// DeviceInfo's single-value reads in each mode and the disk-usage summary read twice on
// one session.

#include "DevSim.h"
#include "DeviceInfo.h"
#include "TestSupport.h"

using namespace kavreltest;

class TestDevInfoValues : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        DeviceProfile profile(testUdid(1));
        profile.value(QString(), "PasswordProtected", true)
            .value(QString(), "UniqueChipID", 6627738012345678.0)
            .value(QString(), "SupportedLanguages", QJsonArray{"en", "de"})
            .value(QString(), "ScreenScale", 2.5)
            .value(QString(), "Carrier", QJsonObject{{"Name", "Carrier"}, {"Roaming", false}});
        QVERIFY(mSim.start({profile}));
    }

    void getValue_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("expected");
        // Mode 0: scalars replace the text, containers are rendered after it.
        QTest::newRow("boolean, mode 0") << "PasswordProtected" << 0 << "1";
        QTest::newRow("integer, mode 0") << "UniqueChipID" << 0 << "6627738012345678";
        QTest::newRow("string, mode 0") << "DeviceName" << 0 << "Test iPhone";
        QTest::newRow("array, mode 0") << "SupportedLanguages" << 0 << "seed[\"en\"\"de\"]";
        QTest::newRow("dictionary, mode 0")
            << "Carrier" << 0 << "seed{\"Name\":\"Carrier\",\"Roaming\":\"false\"},";
        // A real is not handled: the text stays as it was.
        QTest::newRow("real, mode 0") << "ScreenScale" << 0 << "seed";
        // Any other mode renders the value as JSON text, booleans as quoted words.
        QTest::newRow("boolean, mode 2") << "PasswordProtected" << 2 << "seed\"true\"";
        QTest::newRow("string, mode 2") << "DeviceName" << 2 << "seed\"Test iPhone\"";
        QTest::newRow("real, mode 2") << "ScreenScale" << 2 << "seed2.5";
    }
    void getValue()
    {
        QFETCH(QString, key);
        QFETCH(int, mode);
        QFETCH(QString, expected);
        LogCapture log;
        DeviceInfo info(nullptr, testUdid(1));
        QVERIFY(info.isInited());
        QString out = QStringLiteral("seed");
        QVERIFY(info.getValue(out, nullptr, key.toLatin1().constData(), mode));
        QCOMPARE(out, expected);
        QCOMPARE(log.contains(QStringLiteral("Unhandled plist type: ")),
                 key == QLatin1String("ScreenScale") && mode == 0);
    }

    void getValueXml()
    {
        DeviceInfo info(nullptr, testUdid(1));
        QString out = QStringLiteral("seed");
        QVERIFY(info.getValue(out, "com.apple.mobile.battery", nullptr, 1));
        QVERIFY2(out.startsWith("<?xml") && out.contains("<key>BatteryCurrentCapacity</key>") &&
                     out.contains("<integer>87</integer>"),
                 qPrintable(out));
    }

    void getValueFailures_data()
    {
        QTest::addColumn<QString>("udid");
        QTest::addColumn<QString>("domain");
        QTest::addColumn<QString>("key");
        QTest::newRow("missing key") << testUdid(1) << QString() << "NoSuchKey";
        QTest::newRow("missing domain") << testUdid(1) << "com.example.none" << QString();
        QTest::newRow("session not open") << testUdid(2) << QString() << "DeviceName";
    }
    void getValueFailures()
    {
        QFETCH(QString, udid);
        QFETCH(QString, domain);
        QFETCH(QString, key);
        DeviceInfo info(nullptr, udid);
        LogCapture log;
        QString out = QStringLiteral("seed");
        const QByteArray d = domain.toLatin1();
        const QByteArray k = key.toLatin1();
        QVERIFY(!info.getValue(out, domain.isEmpty() ? nullptr : d.constData(),
                               key.isEmpty() ? nullptr : k.constData(), 0));
        QCOMPARE(out, QStringLiteral("seed"));
        QVERIFY(log.hasLine(QStringLiteral("lockdownd_get_value failed.")));
    }

    void diskUsageTwice()
    {
        // A second summary on the same session opens a new file-service client and
        // gives the same answer.
        DeviceInfo info(nullptr, testUdid(1));
        QString first, second;
        QVERIFY(info.getDiskUsageInfo(first));
        QVERIFY(info.getDiskUsageInfo(second));
        QVERIFY(first.startsWith(QLatin1String("{\"totalApplicationBytes\":1500000000,")));
        QCOMPARE(second, first);
        info.cleanUp();
        QVERIFY(info.isInited());
        // After clean-up there is no session left to read with.
        QString third;
        QVERIFY(!info.getDiskUsageInfo(third));
        QCOMPARE(third, QString());
    }

private:
    DevSim mSim;
};

KAVREL_TEST_MAIN(TestDevInfoValues)
#include "tst_devinfovalues.moc"
