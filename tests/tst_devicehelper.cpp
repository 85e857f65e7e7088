// DeviceHelper: rendering of property lists into the host's JSON-like text (in process and
// through `kavrel plist`) and the typed dictionary getters.

#include "DeviceHelper.h"
#include "TestSupport.h"

#include <ctime>
#include <memory>

namespace {

// A node owned by a data row.
using Node = std::shared_ptr<void>;
Node own(plist_t node)
{
    return Node(node, [](void* n) { plist_free(n); });
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

const auto str = [](const char* s) { return plist_new_string(s); };
const auto num = [](uint64_t v) { return plist_new_uint(v); };
const auto data = [](const QByteArray& bytes) {
    return plist_new_data(bytes.constData(), bytes.size());
};
const auto key = [](const char* name) {
    plist_t node = plist_new_string("placeholder");
    plist_set_key_val(node, name);
    return node;
};

// The dictionary the getter tests read.
plist_t getterDict()
{
    return dict({{"Name", str("Caf\xc3\xa9")},
                 {"Count", num(42)},
                 {"Text", str("7")},
                 {"Mixed", array({str("a"), num(1), str("b"), plist_new_bool(0), str("c")})},
                 {"Numbers", array({num(1), num(2)})},
                 {"NotArray", str("x")}});
}

// Runs one getter and returns what it left behind, as text. The values start as
// "initial", 99 and {"old"}; an empty key stands for a null one in getMetaString.
QString runGetter(const QString& getter, plist_t d, const QString& key)
{
    QString value = QStringLiteral("initial");
    if (getter == "string")
        DeviceHelper::getDictString(d, key, value);
    if (getter == "first")
        DeviceHelper::getDictFirstString(d, key, value);
    if (getter == "string" || getter == "first")
        return value;
    quint64 number = 99;
    QStringList values{QStringLiteral("old")};
    if (getter == "uint") {
        DeviceHelper::getDictUInt(d, key, &number);
        return QString::number(number);
    }
    if (getter == "list") {
        DeviceHelper::getDictStringList(d, key, values);
        return values.join('|');
    }
    const QByteArray k = key.toUtf8();
    return DeviceHelper::getMetaString(getter == "meta" ? d : nullptr,
                                       key.isEmpty() ? nullptr : k.constData());
}

} // namespace

Q_DECLARE_METATYPE(Node)

class TestDeviceHelper : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void render_data();
    void render();
    void getters_data();
    void getters();
    void kavrelPlist_data();
    void kavrelPlist();
};

void TestDeviceHelper::initTestCase()
{
    // Dates render in local time: five hours west of UTC (a POSIX zone, no database).
    qputenv("TZ", "YST5");
    tzset();
}

void TestDeviceHelper::render_data()
{
    QTest::addColumn<Node>("node");
    QTest::addColumn<QString>("text");
    auto row = [](const char* name, plist_t node, const QString& text) {
        QTest::newRow(name) << own(node) << text;
    };
    // The worked results the host's parser is written against.
    row("{A: 1, B: x}", dict({{"A", num(1)}, {"B", str("x")}}), "{\"A\":1,\"B\":\"x\"},");
    row("skipped last item leaves its comma", dict({{"A", num(1)}, {"DevicePublicKey", data("k")}}),
        "{\"A\":1,},");
    row("skipped first item leaves nothing", dict({{"DevicePublicKey", data("k")}, {"A", num(1)}}),
        "{\"A\":1},");
    row("nested dictionary ends in a comma",
        dict({{"A", dict({{"B", plist_new_bool(1)}})}, {"D", num(2)}}),
        "{\"A\":{\"B\":\"true\"},,\"D\":2},");
    row("array of dictionaries", array({dict({{"A", num(1)}}), dict({{"B", num(2)}})}),
        "[{\"A\":1},{\"B\":2},]");
    row("array of strings", array({str("x"), str("y")}), "[\"x\"\"y\"]");
    // Skip list: all five names, exact and case-sensitive, at any depth.
    row("all five skipped names before a value",
        dict({{"DeviceCertificate", data("c")},
              {"DevicePublicKey", data("k")},
              {"ActivationPublicKey", data("a")},
              {"SDIOProductInfo", dict({})},
              {"NANDInfo", data("n")},
              {"A", num(1)}}),
        "{\"A\":1},");
    row("skip test is exact and case-sensitive",
        dict({{"devicepublickey", num(3)}, {"NANDInfoX", num(4)}}),
        "{\"devicepublickey\":3,\"NANDInfoX\":4},");
    row("skipped names inside a nested dictionary",
        dict({{"X", dict({{"A", num(1)}, {"DeviceCertificate", data("c")}})}}),
        "{\"X\":{\"A\":1,},},");
    // Scalars.
    row("false", plist_new_bool(0), "\"false\"");
    row("largest unsigned", num(UINT64_MAX), "18446744073709551615");
    row("real 1234567", plist_new_real(1234567.0), "1.23457e+06");
    row("string is not escaped", str("a\"b\\c"), "\"a\"b\\c\"");
    row("data as base64", data("abc"), "\"YWJj\"");
    row("long data has no line breaks", data(QByteArray(120, '\xff')),
        "\"" + QString(160, QLatin1Char('/')) + "\"");
    row("empty data is unknown", data(QByteArray()), "\"unknown\"");
    row("key node renders raw", key("Serial"), "Serial");
    row("uid value leaves an empty item", dict({{"U", plist_new_uid(7)}, {"A", num(1)}}),
        "{\"U\":,\"A\":1},");
    row("date in local time", plist_new_date(0, 0), "\"1969-12-31T19:00:00Z\"");
    row("date, microseconds ignored", dict({{"D", plist_new_date(1600000000, 999999)}}),
        "{\"D\":\"2020-09-13T07:26:40Z\"},");
    row("no node", nullptr, "");
}

void TestDeviceHelper::render()
{
    QFETCH(Node, node);
    QFETCH(QString, text);
    // Every renderer appends to what the text already holds.
    QString out = QStringLiteral("prefix:");
    DeviceHelper::nodeToJson(out, node.get());
    QCOMPARE(out, "prefix:" + text);
    const plist_type type = node ? plist_get_node_type(node.get()) : PLIST_NONE;
    if (type == PLIST_DICT || type == PLIST_ARRAY) {
        out = QStringLiteral("prefix:");
        if (type == PLIST_DICT)
            DeviceHelper::dictToJson(out, node.get());
        else
            DeviceHelper::arrayToJson(out, node.get());
        QCOMPARE(out, "prefix:" + text);
    }
}

void TestDeviceHelper::getters_data()
{
    QTest::addColumn<QString>("getter");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("logLine"); // empty: nothing logged at all
    auto row = [](const char* getter, const QString& key, const QString& expected,
                  const QString& logLine = QString()) {
        QTest::addRow("%s %s", getter, qPrintable(key)) << getter << key << expected << logLine;
    };
    const QString cafe = QString::fromUtf8("Caf\xc3\xa9");
    const QString missing = "Warning: failed to get item for key: \"Nope\"";
    const QString noMeta = "mete data or key couldn't be empty!";
    row("string", "Name", cafe);
    row("string", "Nope", "initial", missing);
    row("string", "Count", "initial", "Error: failed to get key: Count");
    row("uint", "Count", "42");
    row("uint", "Text", "99"); // silently kept
    row("uint", "Nope", "99", missing);
    row("list", "Mixed", "old|a|b|c"); // appends the strings in order
    row("list", "Numbers", "old");
    row("list", "NotArray", "old", "no values for key: NotArray");
    row("first", "Mixed", "a");
    row("first", "NotArray", "initial", "no values for key: NotArray");
    row("meta", "Name", cafe);
    row("meta", "", "", noMeta); // null key
}

void TestDeviceHelper::getters()
{
    QFETCH(QString, getter);
    QFETCH(QString, key);
    QFETCH(QString, expected);
    QFETCH(QString, logLine);
    Node d = own(getterDict());
    kavreltest::LogCapture log;
    QCOMPARE(runGetter(getter, d.get(), key), expected);
    if (logLine.isEmpty())
        QVERIFY2(log.lines().isEmpty(), qPrintable(log.dump()));
    else
        QVERIFY2(log.hasLine(logLine), qPrintable(log.dump()));
}

void TestDeviceHelper::kavrelPlist_data()
{
    QTest::addColumn<QString>("file");       // empty: no argument
    QTest::addColumn<QByteArray>("content"); // null: no file; "/": a directory
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QString>("reason"); // what the one-line error names
    auto row = [](const char* file, const QByteArray& content, int exitCode, const QByteArray& out,
                  const QString& reason = QString()) {
        QTest::newRow(file) << file << content << exitCode << out << reason;
    };
    auto sample = [] { return dict({{"A", num(1)}, {"B", str("x")}}); };
    const QByteArray sampleText = "{\"A\":1,\"B\":\"x\"},\n";
    row("binary.plist", kavreltest::plistBytes(sample(), true), 0, sampleText);
    row("missing.plist", QByteArray(), 1, "", "No such file or directory");
    row("cut.plist", kavreltest::plistBytes(sample(), true).left(20), 1, "",
        "is not a property list");
    row("", QByteArray(), 2, "", "exactly one FILE");
    // A UTF-16 text holding a zero character, as a key and as a value: libplist would
    // abort the process reading either back, so the file is refused instead.
    auto wide = [](const char* dictRefs) {
        return QByteArray("bplist00") + QByteArray::fromHex(dictRefs) +
               QByteArray::fromHex("63006100000062"
                                   "5178"
                                   "080b12"
                                   "000000000000"
                                   "0101"
                                   "0000000000000003"
                                   "0000000000000000"
                                   "0000000000000014");
    };
    row("zero-in-key.plist", wide("d10102"), 1, "", "is not a property list");
    row("zero-in-value.plist", wide("d10201"), 1, "", "is not a property list");
}

void TestDeviceHelper::kavrelPlist()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);
    QFETCH(QString, reason);
    QTemporaryDir dir;
    const QString path = dir.filePath(file);
    if (content == "/")
        QVERIFY(QDir().mkpath(path));
    else if (!content.isNull())
        QVERIFY(kavreltest::writeFile(path, content));
    QStringList args{QStringLiteral("plist")};
    if (!file.isEmpty())
        args << path;
    const kavreltest::ProgramRun r = kavreltest::runProgram(QStringLiteral(KAVREL_CLI), args);
    QCOMPARE(r.exitCode, exitCode);
    QCOMPARE(r.out, out);
    if (exitCode == 0) {
        QCOMPARE(r.err, QByteArray());
        return;
    }
    // Exactly one line, naming the file and the reason.
    const QString line = QString::fromUtf8(r.err);
    QVERIFY2(line.startsWith("kavrel plist: ") && line.count('\n') == 1 && line.endsWith('\n'),
             qPrintable(line));
    QVERIFY2(line.contains(reason) && (file.isEmpty() || line.contains(path)), qPrintable(line));
}

KAVREL_TEST_MAIN(TestDeviceHelper)
#include "tst_devicehelper.moc"
