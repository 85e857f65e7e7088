// Utility: JSON text in QJson's default form, base64, field text, data path, waits.

#include "TestSupport.h"
#include "Utility.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTimer>
#include <cstdlib>
#include <cstring>

class TestUtility : public QObject
{
    Q_OBJECT
private slots:
    void toJsonString_data();
    void toJsonString();
    void toJsonStringRejectsNonFiniteNumbers_data();
    void toJsonStringRejectsNonFiniteNumbers();
    void base64Encode_data();
    void base64Encode();
    void base64EncodeOfNothingIsNull();
    void fieldText_data();
    void fieldText();
    void dataPathIsUnderDocumentsAndCreated();
    void dataPathReturnedEvenWhenNotCreatable();
    void waitZeroProcessesNoEvents();
    void freeStringListFreesEverything();
};

void TestUtility::toJsonString_data()
{
    QTest::addColumn<QVariantMap>("map");
    QTest::addColumn<QString>("json");

    QVariantMap nested;
    nested["b"] = 2;
    nested["a"] = QVariantList{1, "x", true};

    QTest::newRow("empty map") << QVariantMap() << "{  }";
    QTest::newRow("keys sorted, pair form")
        << QVariantMap{{"b", 1}, {"a", "x"}} << "{ \"a\" : \"x\", \"b\" : 1 }";
    QTest::newRow("nested map and list")
        << QVariantMap{{"m", nested}} << "{ \"m\" : { \"a\" : [ 1, \"x\", true ], \"b\" : 2 } }";
    QTest::newRow("empty list") << QVariantMap{{"l", QVariantList()}} << "{ \"l\" : [  ] }";
    QTest::newRow("string list") << QVariantMap{{"l", QStringList{"p", "q"}}}
                                 << "{ \"l\" : [ \"p\", \"q\" ] }";
    QTest::newRow("bools and null") << QVariantMap{{"f", false}, {"n", QVariant()}, {"t", true}}
                                    << "{ \"f\" : false, \"n\" : null, \"t\" : true }";
    QTest::newRow("integers") << QVariantMap{{"i", -5},
                                             {"u", 4294967295u},
                                             {"ll", Q_INT64_C(-9000000000)},
                                             {"ull", Q_UINT64_C(18446744073709551615)}}
                              << "{ \"i\" : -5, \"ll\" : -9000000000, \"u\" : 4294967295, "
                                 "\"ull\" : 18446744073709551615 }";
    QTest::newRow("doubles") << QVariantMap{{"a", 2.0}, {"b", 0.5}, {"c", 1234567.0}, {"d", 1e-7}}
                             << "{ \"a\" : 2.0, \"b\" : 0.5, \"c\" : 1.23457e+06, \"d\" : 1e-07 }";
    QTest::newRow("escapes in order") << QVariantMap{{"s", QString("a\\b\"c\nd\te\rf\bg\fh")}}
                                      << "{ \"s\" : \"a\\\\b\\\"c\\nd\\te\\rf\\bg\\fh\" }";
    QTest::newRow("non-ASCII as lower-case \\u")
        << QVariantMap{{"s", QString::fromUtf8("\xc3\xa9\xe4\xb8\xad")}}
        << "{ \"s\" : \"\\u00e9\\u4e2d\" }";
    QTest::newRow("other control characters stay raw")
        << QVariantMap{{"s", QString("a\x01z")}} << QString("{ \"s\" : \"a\x01z\" }");
    QTest::newRow("byte array as string")
        << QVariantMap{{"b", QByteArray("q\"")}} << "{ \"b\" : \"q\\\"\" }";
    QTest::newRow("a text ends at its first zero character")
        << QVariantMap{{"s", QString::fromLatin1("ab\0cd", 5)}, {"t", 1}}
        << "{ \"s\" : \"ab\", \"t\" : 1 }";
    QTest::newRow("hash as an object")
        << QVariantMap{{"h", QVariantHash{{"k", 1}}}, {"e", QVariantHash()}}
        << "{ \"e\" : {  }, \"h\" : { \"k\" : 1 } }";
    QTest::newRow("character as its code") << QVariantMap{{"c", QChar('A')}} << "{ \"c\" : 65 }";
    QTest::newRow("date as text") << QVariantMap{{"d", QDate(2024, 2, 29)}}
                                  << "{ \"d\" : \"2024-02-29\" }";
    QTest::newRow("keys are escaped too") << QVariantMap{{"k\"", 1}} << "{ \"k\\\"\" : 1 }";
}

void TestUtility::toJsonString()
{
    QFETCH(QVariantMap, map);
    QFETCH(QString, json);
    QCOMPARE(Utility::toJsonString(map), json);
}

void TestUtility::toJsonStringRejectsNonFiniteNumbers_data()
{
    QTest::addColumn<QVariantMap>("map");
    QTest::newRow("nan") << QVariantMap{{"a", 1}, {"x", qQNaN()}};
    QTest::newRow("infinity nested") << QVariantMap{{"m", QVariantMap{{"x", qInf()}}}};
    QTest::newRow("in a list") << QVariantMap{{"l", QVariantList{1, -qInf()}}};
}

void TestUtility::toJsonStringRejectsNonFiniteNumbers()
{
    QFETCH(QVariantMap, map);
    QVERIFY(Utility::toJsonString(map).isEmpty());
}

void TestUtility::base64Encode_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("one zero byte") << QByteArray(1, '\0') << QByteArray("AA==");
    QTest::newRow("abc") << QByteArray("abc") << QByteArray("YWJj");
    QTest::newRow("two bytes") << QByteArray("ab") << QByteArray("YWI=");
    QTest::newRow("all high bits") << QByteArray("\xff\xfe\xfd\xfc", 4) << QByteArray("//79/A==");
    const QByteArray big(3000, 'z');
    QTest::newRow("long input has no line breaks") << big << big.toBase64();
}

void TestUtility::base64Encode()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, expected);
    char* text = Utility::base64Encode(reinterpret_cast<const unsigned char*>(input.constData()),
                                       input.size());
    QVERIFY(text);
    QCOMPARE(QByteArray(text), expected);
    free(text);
}

void TestUtility::base64EncodeOfNothingIsNull()
{
    const unsigned char byte = 1;
    QVERIFY(!Utility::base64Encode(&byte, 0));
    QVERIFY(!Utility::base64Encode(nullptr, 5));
}

void TestUtility::fieldText_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<bool>("asFlag");
    QTest::addColumn<QString>("text");
    QTest::newRow("empty value") << "" << false << "unknown";
    QTest::newRow("empty flag") << "" << true << "false";
    QTest::newRow("zero flag is true") << "0" << true << "true";
    QTest::newRow("value as is") << "Maps" << false << "Maps";
}

void TestUtility::fieldText()
{
    QFETCH(QString, value);
    QFETCH(bool, asFlag);
    QFETCH(QString, text);
    QCOMPARE(Utility::fieldText(value, asFlag), text);
}

void TestUtility::dataPathIsUnderDocumentsAndCreated()
{
    const QString expected = kavreltest::TempHome::documentsPath() + "/norva/";
    QCOMPARE(Utility::dataPath(), expected);
    QVERIFY(QFileInfo(expected).isDir());
    QCOMPARE(Utility::dataPath(), expected);
}

void TestUtility::dataPathReturnedEvenWhenNotCreatable()
{
    const QString docs = kavreltest::TempHome::documentsPath();
    const QString norva = docs + "/norva";
    QDir(norva).removeRecursively();
    // A plain file where the directory should be: creation fails, the path still comes back.
    QVERIFY(kavreltest::writeFile(norva, "x"));
    kavreltest::LogCapture log;
    QCOMPARE(Utility::dataPath(), norva + "/");
    QVERIFY2(log.hasLine("Warning, failed to create path"), qPrintable(log.dump()));
    QFile::remove(norva);
}

void TestUtility::waitZeroProcessesNoEvents()
{
    bool fired = false;
    QTimer::singleShot(0, [&] { fired = true; });
    Utility::waitSeconds(0);
    QVERIFY(!fired);
    QElapsedTimer t;
    t.start();
    Utility::waitSeconds(1);
    QVERIFY(fired);
    QVERIFY(t.elapsed() >= 900);
}

void TestUtility::freeStringListFreesEverything()
{
    // Under AddressSanitizer a wrong free or a missed terminator shows up here.
    char** list = static_cast<char**>(malloc(4 * sizeof(char*)));
    list[0] = strdup("st_size");
    list[1] = strdup("10");
    list[2] = strdup("st_ifmt");
    list[3] = nullptr;
    Utility::freeStringList(list);
}

KAVREL_TEST_MAIN(TestUtility)
#include "tst_utility.moc"
