// DeviceHelper: rendering of property lists into the host's JSON-like text, the typed
// dictionary getters, and device discovery when no device is reachable.

#include "DeviceHelper.h"
#include "TestSupport.h"

#include <QtConcurrent>
#include <functional>
#include <memory>

#include <ctime>

namespace {

using PlistMaker = std::function<plist_t()>;

// Owns a node for the length of a test.
using PlistPtr = std::unique_ptr<void, decltype(&plist_free)>;
PlistPtr own(plist_t node)
{
    return PlistPtr(node, &plist_free);
}

plist_t dict(std::initializer_list<std::pair<const char*, plist_t>> items)
{
    plist_t d = plist_new_dict();
    for (const auto& item : items)
        plist_dict_set_item(d, item.first, item.second);
    return d;
}

plist_t array(std::initializer_list<plist_t> items)
{
    plist_t a = plist_new_array();
    for (plist_t item : items)
        plist_array_append_item(a, item);
    return a;
}

plist_t str(const char* s)
{
    return plist_new_string(s);
}

plist_t num(uint64_t v)
{
    return plist_new_uint(v);
}

plist_t data(const QByteArray& bytes)
{
    return plist_new_data(bytes.constData(), bytes.size());
}

QString renderText(plist_t node)
{
    QString out;
    DeviceHelper::nodeToJson(out, node);
    return out;
}

// The log holds the expected line, or nothing at all when no line is expected.
bool logShows(const kavreltest::LogCapture& log, const QString& line)
{
    return line.isEmpty() ? log.lines().isEmpty() : log.hasLine(line);
}

// Switches the process's local time zone for the life of the object.
class TimeZone
{
public:
    explicit TimeZone(const QByteArray& tz)
        : mOld(qgetenv("TZ")), mHadOld(qEnvironmentVariableIsSet("TZ"))
    {
        qputenv("TZ", tz);
        tzset();
    }
    ~TimeZone()
    {
        if (mHadOld)
            qputenv("TZ", mOld);
        else
            qunsetenv("TZ");
        tzset();
    }

private:
    QByteArray mOld;
    bool mHadOld;
};

} // namespace

Q_DECLARE_METATYPE(PlistMaker)

class TestDeviceHelper : public QObject
{
    Q_OBJECT
private slots:
    void render_data();
    void render();
    void renderAppendsToExistingText();
    void nullNodeRendersNothing();
    void keyNodeRendersRawAndIsLogged();
    void dateUsesLocalTimeZone_data();
    void dateUsesLocalTimeZone();
    void renderingIsConsistentAcrossThreads();

    void getDictString_data();
    void getDictString();
    void getDictUInt_data();
    void getDictUInt();
    void getDictStringList_data();
    void getDictStringList();
    void getDictFirstString_data();
    void getDictFirstString();
    void getMetaString_data();
    void getMetaString();

    void discoveryWithoutUsbmuxdFindsNothing();
};

void TestDeviceHelper::render_data()
{
    QTest::addColumn<PlistMaker>("make");
    QTest::addColumn<QString>("text");

    // The worked results the host's parser is written against.
    QTest::newRow("empty dictionary") << PlistMaker([] { return dict({}); }) << "{},";
    QTest::newRow("{A: 1}") << PlistMaker([] { return dict({{"A", num(1)}}); }) << "{\"A\":1},";
    QTest::newRow("{A: 1, B: x}") << PlistMaker([] {
        return dict({{"A", num(1)}, {"B", str("x")}});
    }) << "{\"A\":1,\"B\":\"x\"},";
    QTest::newRow("skipped last item leaves its comma") << PlistMaker([] {
        return dict({{"A", num(1)}, {"DevicePublicKey", data("k")}});
    }) << "{\"A\":1,},";
    QTest::newRow("skipped first item leaves nothing") << PlistMaker([] {
        return dict({{"DevicePublicKey", data("k")}, {"A", num(1)}});
    }) << "{\"A\":1},";
    QTest::newRow("nested dictionary ends in a comma") << PlistMaker([] {
        return dict({{"A", dict({{"B", plist_new_bool(1)}})}, {"D", num(2)}});
    }) << "{\"A\":{\"B\":\"true\"},,\"D\":2},";
    QTest::newRow("array of dictionaries") << PlistMaker([] {
        return array({dict({{"A", num(1)}}), dict({{"B", num(2)}})});
    }) << "[{\"A\":1},{\"B\":2},]";
    QTest::newRow("array of strings") << PlistMaker([] {
        return array({str("x"), str("y")});
    }) << "[\"x\"\"y\"]";
    QTest::newRow("array of numbers") << PlistMaker([] {
        return array({num(1), num(2)});
    }) << "[12]";

    // Skip list: all five names, exact and case-sensitive.
    QTest::newRow("all five skipped names before a value") << PlistMaker([] {
        return dict({{"DeviceCertificate", data("c")},
                     {"DevicePublicKey", data("k")},
                     {"ActivationPublicKey", data("a")},
                     {"SDIOProductInfo", dict({})},
                     {"NANDInfo", data("n")},
                     {"A", num(1)}});
    }) << "{\"A\":1},";
    QTest::newRow("several skipped names after a value") << PlistMaker([] {
        return dict({{"A", num(1)}, {"NANDInfo", data("n")}, {"SDIOProductInfo", data("s")}});
    }) << "{\"A\":1,},";
    QTest::newRow("skip test is case-sensitive") << PlistMaker([] {
        return dict({{"devicepublickey", num(3)}});
    }) << "{\"devicepublickey\":3},";
    QTest::newRow("skip test is exact") << PlistMaker([] {
        return dict({{"NANDInfoX", num(3)}});
    }) << "{\"NANDInfoX\":3},";
    QTest::newRow("skipped names inside a nested dictionary") << PlistMaker([] {
        return dict({{"X", dict({{"A", num(1)}, {"DeviceCertificate", data("c")}})}});
    }) << "{\"X\":{\"A\":1,},},";

    // Scalars.
    QTest::newRow("false") << PlistMaker([] { return plist_new_bool(0); }) << "\"false\"";
    QTest::newRow("largest unsigned")
        << PlistMaker([] { return num(UINT64_MAX); }) << "18446744073709551615";
    QTest::newRow("real 0.5") << PlistMaker([] { return plist_new_real(0.5); }) << "0.5";
    QTest::newRow("real 1234567") << PlistMaker([] { return plist_new_real(1234567.0); })
                                  << "1.23457e+06";
    QTest::newRow("string is not escaped")
        << PlistMaker([] { return str("a\"b\\c"); }) << "\"a\"b\\c\"";
    QTest::newRow("string with place marker")
        << PlistMaker([] { return str("%1 %2"); }) << "\"%1 %2\"";
    QTest::newRow("string decoded as UTF-8") << PlistMaker([] {
        return str("Gr\xc3\xbc\xc3\x9f"
                   "e");
    })
                                             << QString::fromUtf8("\"Gr\xc3\xbc\xc3\x9f"
                                                                  "e\"");
    QTest::newRow("data as base64") << PlistMaker([] { return data("abc"); }) << "\"YWJj\"";
    QTest::newRow("data with padding")
        << PlistMaker([] { return data(QByteArray(1, '\0')); }) << "\"AA==\"";
    QTest::newRow("long data has no line breaks")
        << PlistMaker([] { return data(QByteArray(120, '\xff')); })
        << "\"" + QString(160, QLatin1Char('/')) + "\"";
    QTest::newRow("empty data is unknown")
        << PlistMaker([] { return data(QByteArray()); }) << "\"unknown\"";
    QTest::newRow("uid renders nothing") << PlistMaker([] { return plist_new_uid(7); }) << "";
    QTest::newRow("uid value leaves an empty item") << PlistMaker([] {
        return dict({{"U", plist_new_uid(7)}, {"A", num(1)}});
    }) << "{\"U\":,\"A\":1},";
    QTest::newRow("nested arrays") << PlistMaker([] {
        return array({array({num(1)}), array({str("a")})});
    }) << "[[1][\"a\"]]";
    QTest::newRow("empty array") << PlistMaker([] { return array({}); }) << "[]";
}

void TestDeviceHelper::render()
{
    QFETCH(PlistMaker, make);
    QFETCH(QString, text);
    PlistPtr node = own(make());
    QCOMPARE(renderText(node.get()), text);
}

void TestDeviceHelper::renderAppendsToExistingText()
{
    PlistPtr node = own(dict({{"A", num(1)}}));
    QString out = QStringLiteral("prefix:");
    DeviceHelper::dictToJson(out, node.get());
    DeviceHelper::nodeToJson(out, node.get());
    QCOMPARE(out, QStringLiteral("prefix:{\"A\":1},{\"A\":1},"));
}

void TestDeviceHelper::nullNodeRendersNothing()
{
    QString out = QStringLiteral("x");
    DeviceHelper::nodeToJson(out, nullptr);
    QCOMPARE(out, QStringLiteral("x"));
}

void TestDeviceHelper::keyNodeRendersRawAndIsLogged()
{
    PlistPtr node = own(str("placeholder"));
    plist_set_key_val(node.get(), "Serial");
    QCOMPARE(plist_get_node_type(node.get()), PLIST_KEY);
    kavreltest::LogCapture log;
    QCOMPARE(renderText(node.get()), QStringLiteral("Serial"));
    QVERIFY2(log.hasLine(QStringLiteral("note:, handling PLIST_KEY: Serial")),
             qPrintable(log.dump()));
}

void TestDeviceHelper::dateUsesLocalTimeZone_data()
{
    QTest::addColumn<QByteArray>("tz");
    QTest::addColumn<int>("seconds");
    QTest::addColumn<int>("usec");
    QTest::addColumn<QString>("text");

    // POSIX zone strings need no zone database. The seconds are the plist library's,
    // taken as they are: 0 is the start of 1970 in UTC.
    QTest::newRow("UTC, zero") << QByteArray("UTC0") << 0 << 0 << "\"1970-01-01T00:00:00Z\"";
    QTest::newRow("UTC+9, zero") << QByteArray("XST-9") << 0 << 0 << "\"1970-01-01T09:00:00Z\"";
    QTest::newRow("UTC-5, zero") << QByteArray("YST5") << 0 << 0 << "\"1969-12-31T19:00:00Z\"";
    QTest::newRow("microseconds ignored")
        << QByteArray("UTC0") << 1600000000 << 999999 << "\"2020-09-13T12:26:40Z\"";
    QTest::newRow("UTC, negative")
        << QByteArray("UTC0") << -86400 << 0 << "\"1969-12-31T00:00:00Z\"";
}

void TestDeviceHelper::dateUsesLocalTimeZone()
{
    QFETCH(QByteArray, tz);
    QFETCH(int, seconds);
    QFETCH(int, usec);
    QFETCH(QString, text);
    TimeZone zone(tz);
    PlistPtr node = own(plist_new_date(seconds, usec));
    QCOMPARE(renderText(node.get()), text);
    // Inside a dictionary the date is an ordinary quoted value.
    PlistPtr d = own(dict({{"D", plist_new_date(seconds, 0)}}));
    QCOMPARE(renderText(d.get()), "{\"D\":" + text + "},");
}

void TestDeviceHelper::renderingIsConsistentAcrossThreads()
{
    // Device-information jobs render on several pool threads at once.
    PlistPtr node =
        own(dict({{"A", num(1)},
                  {"DevicePublicKey", data("k")},
                  {"B", array({str("x"), dict({{"NANDInfo", data("n")}, {"C", num(2)}})})},
                  {"ActivationPublicKey", data("a")}}));
    const QString expected = QStringLiteral("{\"A\":1,\"B\":[\"x\"{\"C\":2},],},");
    QCOMPARE(renderText(node.get()), expected);
    plist_t shared = node.get();
    auto job = [shared] {
        QString last;
        for (int n = 0; n < 200; ++n) {
            QString out;
            DeviceHelper::nodeToJson(out, shared);
            if (n > 0 && out != last)
                return QStringLiteral("differs");
            last = out;
        }
        return last;
    };
    QList<QFuture<QString>> futures;
    for (int i = 0; i < 8; ++i)
        futures << QtConcurrent::run(QThreadPool::globalInstance(), job);
    QStringList results;
    for (QFuture<QString>& f : futures)
        results << f.result();
    for (const QString& r : results)
        QCOMPARE(r, expected);
}

// Dictionary shared by the getter tests.
static plist_t getterDict()
{
    return dict({{"Name", str("Caf\xc3\xa9")},
                 {"Count", num(42)},
                 {"Big", num(UINT64_MAX)},
                 {"Number", num(5)},
                 {"Text", str("7")},
                 {"Flag", plist_new_bool(1)},
                 {"Mixed", array({str("a"), num(1), str("b"), plist_new_bool(0), str("c")})},
                 {"Numbers", array({num(1), num(2)})},
                 {"Empty", array({})},
                 {"NotArray", str("x")},
                 {"K\xc3\xa9y", str("utf8 key")}});
}

void TestDeviceHelper::getDictString_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("string found, UTF-8 decoded")
        << "Name" << QString::fromUtf8("Caf\xc3\xa9") << QString();
    QTest::newRow("key looked up as UTF-8")
        << QString::fromUtf8("K\xc3\xa9y") << "utf8 key" << QString();
    QTest::newRow("missing key keeps value") << "Nope"
                                             << "initial"
                                             << "Warning: failed to get item for key: \"Nope\"";
    QTest::newRow("number keeps value") << "Count"
                                        << "initial"
                                        << "Error: failed to get key: Count";
    QTest::newRow("array keeps value") << "Mixed"
                                       << "initial"
                                       << "Error: failed to get key: Mixed";
    QTest::newRow("empty key does nothing") << ""
                                            << "initial" << QString();
}

void TestDeviceHelper::getDictString()
{
    QFETCH(QString, key);
    QFETCH(QString, expected);
    QFETCH(QString, logLine);
    PlistPtr d = own(getterDict());
    QString value = QStringLiteral("initial");
    kavreltest::LogCapture log;
    DeviceHelper::getDictString(d.get(), key, value);
    QCOMPARE(value, expected);
    QVERIFY2(logShows(log, logLine), qPrintable(log.dump()));
}

void TestDeviceHelper::getDictUInt_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<quint64>("expected");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("number") << "Count" << quint64(42) << QString();
    QTest::newRow("largest number") << "Big" << quint64(UINT64_MAX) << QString();
    QTest::newRow("string keeps value silently") << "Text" << quint64(99) << QString();
    QTest::newRow("boolean keeps value silently") << "Flag" << quint64(99) << QString();
    QTest::newRow("missing key") << "Nope" << quint64(99)
                                 << "Warning: failed to get item for key: \"Nope\"";
    QTest::newRow("empty key") << "" << quint64(99) << QString();
}

void TestDeviceHelper::getDictUInt()
{
    QFETCH(QString, key);
    QFETCH(quint64, expected);
    QFETCH(QString, logLine);
    PlistPtr d = own(getterDict());
    quint64 value = 99;
    kavreltest::LogCapture log;
    DeviceHelper::getDictUInt(d.get(), key, &value);
    QCOMPARE(value, expected);
    QVERIFY2(logShows(log, logLine), qPrintable(log.dump()));
}

void TestDeviceHelper::getDictStringList_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QString>("logLine");

    // The list starts with "old": the getter appends, never clears.
    QTest::newRow("mixed array yields its strings in order")
        << "Mixed" << QStringList{"old", "a", "b", "c"} << QString();
    QTest::newRow("numbers only") << "Numbers" << QStringList{"old"} << QString();
    QTest::newRow("empty array") << "Empty" << QStringList{"old"} << QString();
    QTest::newRow("not an array") << "NotArray" << QStringList{"old"}
                                  << "no values for key: NotArray";
    QTest::newRow("missing key") << "Nope" << QStringList{"old"} << "no values for key: Nope";
}

void TestDeviceHelper::getDictStringList()
{
    QFETCH(QString, key);
    QFETCH(QStringList, expected);
    QFETCH(QString, logLine);
    PlistPtr d = own(getterDict());
    QStringList values{QStringLiteral("old")};
    kavreltest::LogCapture log;
    DeviceHelper::getDictStringList(d.get(), key, values);
    QCOMPARE(values, expected);
    QVERIFY2(logShows(log, logLine), qPrintable(log.dump()));
}

void TestDeviceHelper::getDictFirstString_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");

    QTest::newRow("first string of a mixed array") << "Mixed"
                                                   << "a";
    QTest::newRow("no strings keeps value") << "Numbers"
                                            << "initial";
    QTest::newRow("empty array keeps value") << "Empty"
                                             << "initial";
    QTest::newRow("plain string is no list") << "NotArray"
                                             << "initial";
    QTest::newRow("missing key keeps value") << "Nope"
                                             << "initial";
}

void TestDeviceHelper::getDictFirstString()
{
    QFETCH(QString, key);
    QFETCH(QString, expected);
    PlistPtr d = own(getterDict());
    QString value = QStringLiteral("initial");
    DeviceHelper::getDictFirstString(d.get(), key, value);
    QCOMPARE(value, expected);
}

void TestDeviceHelper::getMetaString_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<bool>("nullDict");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<bool>("logged");

    QTest::newRow("string") << QByteArray("Name") << false << QString::fromUtf8("Caf\xc3\xa9")
                            << false;
    QTest::newRow("number gives empty") << QByteArray("Count") << false << QString() << false;
    QTest::newRow("missing gives empty") << QByteArray("Nope") << false << QString() << false;
    QTest::newRow("null dictionary") << QByteArray("Name") << true << QString() << true;
    QTest::newRow("null key") << QByteArray() << false << QString() << true;
}

void TestDeviceHelper::getMetaString()
{
    QFETCH(QByteArray, key);
    QFETCH(bool, nullDict);
    QFETCH(QString, expected);
    QFETCH(bool, logged);
    PlistPtr d = own(getterDict());
    kavreltest::LogCapture log;
    const QString value = DeviceHelper::getMetaString(nullDict ? nullptr : d.get(),
                                                      key.isNull() ? nullptr : key.constData());
    QCOMPARE(value, expected);
    QCOMPARE(log.hasLine(QStringLiteral("mete data or key couldn't be empty!")), logged);
}

void TestDeviceHelper::discoveryWithoutUsbmuxdFindsNothing()
{
    // Point the device library at a socket that does not exist: no device is attached.
    QTemporaryDir dir;
    const QByteArray old = qgetenv("USBMUXD_SOCKET_ADDRESS");
    qputenv("USBMUXD_SOCKET_ADDRESS", "UNIX:" + QFile::encodeName(dir.path()) + "/none.sock");
    kavreltest::LogCapture log;
    const QStringList udids = DeviceHelper::getUdids();
    const QString first = DeviceHelper::getFirstUdid();
    if (old.isNull())
        qunsetenv("USBMUXD_SOCKET_ADDRESS");
    else
        qputenv("USBMUXD_SOCKET_ADDRESS", old);
    QVERIFY(udids.isEmpty());
    QVERIFY(first.isEmpty());
    QVERIFY2(log.hasLine(QStringLiteral("DeviceHelper::getUdids")), qPrintable(log.dump()));
    QVERIFY2(log.hasLine(QStringLiteral("DeviceHelper::getFirstUdid")), qPrintable(log.dump()));
    QVERIFY2(log.hasLine(QStringLiteral("got udids by getUdids: \"\"")), qPrintable(log.dump()));
}

KAVREL_TEST_MAIN(TestDeviceHelper)
#include "tst_devicehelper.moc"
