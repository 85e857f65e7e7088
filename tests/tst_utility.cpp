// Utility: JSON text in QJson's default form, base64, field text, data path, waits.

#include "TestSupport.h"
#include "Utility.h"

#include <cstdlib>

class TestUtility : public QObject
{
    Q_OBJECT
private slots:
    void toJsonString_data();
    void toJsonString();
    void base64Encode_data();
    void base64Encode();
    void fieldText();
    void dataPath();
    void waitSeconds();
};

void TestUtility::toJsonString_data()
{
    QTest::addColumn<QVariantMap>("map");
    QTest::addColumn<QString>("json"); // empty: the map has no JSON form

    const QVariantMap nested{{"b", 2}, {"a", QVariantList{1, "x", true}}};
    QTest::newRow("empty map") << QVariantMap() << "{  }";
    QTest::newRow("keys sorted, nested map and list")
        << QVariantMap{{"m", nested}, {"a", "x"}}
        << "{ \"a\" : \"x\", \"m\" : { \"a\" : [ 1, \"x\", true ], \"b\" : 2 } }";
    QTest::newRow("empty list, string list, empty hash, hash")
        << QVariantMap{{"l", QVariantList()},
                       {"s", QStringList{"p", "q"}},
                       {"e", QVariantHash()},
                       {"h", QVariantHash{{"k", 1}}}}
        << "{ \"e\" : {  }, \"h\" : { \"k\" : 1 }, \"l\" : [  ], \"s\" : [ \"p\", \"q\" ] }";
    QTest::newRow("bools, null, integers")
        << QVariantMap{{"f", false},
                       {"n", QVariant()},
                       {"t", true},
                       {"i", -5},
                       {"u", 4294967295u},
                       {"ll", Q_INT64_C(-9000000000)},
                       {"ull", Q_UINT64_C(18446744073709551615)}}
        << "{ \"f\" : false, \"i\" : -5, \"ll\" : -9000000000, \"n\" : null, \"t\" : true, "
           "\"u\" : 4294967295, \"ull\" : 18446744073709551615 }";
    QTest::newRow("doubles") << QVariantMap{{"a", 2.0}, {"b", 0.5}, {"c", 1234567.0}, {"d", 1e-7}}
                             << "{ \"a\" : 2.0, \"b\" : 0.5, \"c\" : 1.23457e+06, \"d\" : 1e-07 }";
    QTest::newRow("escapes in order") << QVariantMap{{"s", QString("a\\b\"c\nd\te\rf\bg\fh")}}
                                      << "{ \"s\" : \"a\\\\b\\\"c\\nd\\te\\rf\\bg\\fh\" }";
    QTest::newRow("from U+0080 on as lower-case \\u, other controls raw")
        << QVariantMap{{"s", QString::fromUtf8("\xc2\x80\xe4\xb8\xad\x7f")}}
        << QString("{ \"s\" : \"\\u0080\\u4e2d\x7f\" }");
    QTest::newRow("byte array, key escaped, text ends at zero")
        << QVariantMap{{"b\"", QByteArray("q\"")}, {"s", QString::fromLatin1("ab\0cd", 5)}}
        << "{ \"b\\\"\" : \"q\\\"\", \"s\" : \"ab\" }";
    QTest::newRow("character as its code, date as text")
        << QVariantMap{{"c", QChar('A')}, {"d", QDate(2024, 2, 29)}}
        << "{ \"c\" : 65, \"d\" : \"2024-02-29\" }";
    QTest::newRow("nan") << QVariantMap{{"a", 1}, {"x", qQNaN()}} << "";
    QTest::newRow("infinity nested") << QVariantMap{{"m", QVariantMap{{"x", qInf()}}}} << "";
    QTest::newRow("infinity in a list") << QVariantMap{{"l", QVariantList{1, -qInf()}}} << "";
}

void TestUtility::toJsonString()
{
    QFETCH(QVariantMap, map);
    QTEST(Utility::toJsonString(map), "json");
}

void TestUtility::base64Encode_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("expected"); // null: no text at all
    QTest::newRow("one zero byte") << QByteArray(1, '\0') << QByteArray("AA==");
    QTest::newRow("two bytes") << QByteArray("ab") << QByteArray("YWI=");
    QTest::newRow("all high bits") << QByteArray("\xff\xfe\xfd\xfc", 4) << QByteArray("//79/A==");
    const QByteArray big(3000, 'z');
    QTest::newRow("long input has no line breaks") << big << big.toBase64();
    QTest::newRow("nothing") << QByteArray("") << QByteArray();
}

void TestUtility::base64Encode()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, expected);
    char* text = Utility::base64Encode(reinterpret_cast<const unsigned char*>(input.constData()),
                                       input.size());
    QCOMPARE(text == nullptr, expected.isNull());
    QCOMPARE(QByteArray(text), expected);
    free(text);
    QVERIFY(!Utility::base64Encode(nullptr, 5));
}

void TestUtility::fieldText()
{
    QCOMPARE(Utility::fieldText("", false), QStringLiteral("unknown"));
    QCOMPARE(Utility::fieldText("", true), QStringLiteral("false"));
    QCOMPARE(Utility::fieldText("0", true), QStringLiteral("true"));
    QCOMPARE(Utility::fieldText("Maps", false), QStringLiteral("Maps"));
}

void TestUtility::dataPath()
{
    const QString norva = kavreltest::TempHome::documentsPath() + "/norva";
    QCOMPARE(Utility::dataPath(), norva + "/");
    QVERIFY(QFileInfo(norva).isDir());
    // A plain file where the directory should be: creation fails, the path still comes back.
    QVERIFY(QDir(norva).removeRecursively());
    QVERIFY(kavreltest::writeFile(norva, "x"));
    kavreltest::LogCapture log;
    QCOMPARE(Utility::dataPath(), norva + "/");
    QVERIFY2(log.hasLine("Warning, failed to create path"), qPrintable(log.dump()));
    QFile::remove(norva);
}

void TestUtility::waitSeconds()
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

KAVREL_TEST_MAIN(TestUtility)
#include "tst_utility.moc"
