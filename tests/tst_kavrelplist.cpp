// `kavrel plist FILE` run as a user would run it: output on stdout, one-line errors on
// stderr, and the exit status.

#include "TestSupport.h"

#include <QProcess>
#include <QTemporaryDir>
#include <plist/plist.h>

namespace {

kavreltest::ProgramRun runKavrel(const QStringList& args)
{
    return kavreltest::runProgram(QStringLiteral(KAVREL_CLI), args);
}

// The sample document: a dictionary in insertion order with the kinds a device sends.
plist_t sample()
{
    plist_t d = plist_new_dict();
    plist_dict_set_item(d, "A", plist_new_uint(1));
    plist_dict_set_item(d, "B", plist_new_string("x"));
    return d;
}

plist_t richSample()
{
    plist_t d = plist_new_dict();
    plist_dict_set_item(d, "Name", plist_new_string("Jos\xc3\xa9's iPhone"));
    plist_dict_set_item(d, "Ok", plist_new_bool(1));
    plist_dict_set_item(d, "Ratio", plist_new_real(0.5));
    plist_t a = plist_new_array();
    plist_array_append_item(a, plist_new_uint(1));
    plist_array_append_item(a, plist_new_string("two"));
    plist_dict_set_item(d, "List", a);
    plist_dict_set_item(d, "Blob", plist_new_data("abc", 3));
    plist_dict_set_item(d, "DevicePublicKey", plist_new_data("key", 3));
    return d;
}

} // namespace

class TestKavrelPlist : public QObject
{
    Q_OBJECT
private slots:
    void renders_data();
    void renders();
    void refuses_data();
    void refuses();
    void needsExactlyOneFile();

private:
    QTemporaryDir mDir;
};

void TestKavrelPlist::renders_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("output");

    QTest::newRow("binary") << kavreltest::plistBytes(sample(), true)
                            << QByteArray("{\"A\":1,\"B\":\"x\"},\n");
    QTest::newRow("XML") << kavreltest::plistBytes(sample(), false)
                         << QByteArray("{\"A\":1,\"B\":\"x\"},\n");
    const QByteArray rich = "{\"Name\":\"Jos\xc3\xa9's iPhone\",\"Ok\":\"true\",\"Ratio\":0.5,"
                            "\"List\":[1\"two\"],\"Blob\":\"YWJj\",},\n";
    QTest::newRow("binary, every kind, UTF-8 out")
        << kavreltest::plistBytes(richSample(), true) << rich;
    QTest::newRow("XML, every kind, UTF-8 out")
        << kavreltest::plistBytes(richSample(), false) << rich;
    QTest::newRow("top-level array")
        << QByteArray("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string>"
                      "<integer>2</integer></array></plist>")
        << QByteArray("[\"a\"2]\n");
}

void TestKavrelPlist::renders()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, output);
    const QString path = mDir.filePath(QString::fromLatin1(QTest::currentDataTag()) + ".plist");
    QVERIFY(kavreltest::writeFile(path, content));
    const kavreltest::ProgramRun r = runKavrel({QStringLiteral("plist"), path});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, output);
    QCOMPARE(r.err, QByteArray());
}

void TestKavrelPlist::refuses_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("create");
    QTest::addColumn<QString>("reason");

    QTest::newRow("missing file") << "missing.plist" << QByteArray() << false
                                  << "No such file or directory";
    QTest::newRow("directory") << "folder" << QByteArray() << true << "is a directory";
    QTest::newRow("empty file") << "empty.plist" << QByteArray() << true
                                << "is not a property list";
    QTest::newRow("text file") << "text.plist" << QByteArray("hello\n") << true
                               << "is not a property list";
    QTest::newRow("binary magic before XML")
        << "disguised.plist"
        << "bplist00" + kavreltest::plistBytes(sample(), false) << true << "is not a property list";
    QTest::newRow("truncated binary")
        << "truncated.plist" << kavreltest::plistBytes(sample(), true).left(20) << true
        << "is not a property list";
}

void TestKavrelPlist::refuses()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    QFETCH(bool, create);
    QFETCH(QString, reason);
    const QString path = mDir.filePath(name);
    if (create && name == QLatin1String("folder"))
        QVERIFY(QDir().mkpath(path));
    else if (create)
        QVERIFY(kavreltest::writeFile(path, content));

    const kavreltest::ProgramRun r = runKavrel({QStringLiteral("plist"), path});
    QVERIFY(r.exitCode > 0);
    QCOMPARE(r.out, QByteArray());
    // Exactly one line, naming the file and the reason.
    QVERIFY2(r.err.endsWith('\n') && r.err.count('\n') == 1, r.err.constData());
    const QString line = QString::fromUtf8(r.err).trimmed();
    QVERIFY2(line.startsWith(QLatin1String("kavrel plist: ")), qPrintable(line));
    QVERIFY2(line.contains(path), qPrintable(line));
    QVERIFY2(line.contains(reason), qPrintable(line));
}

void TestKavrelPlist::needsExactlyOneFile()
{
    const kavreltest::ProgramRun none = runKavrel({QStringLiteral("plist")});
    QCOMPARE(none.exitCode, 2);
    QCOMPARE(none.out, QByteArray());
    QCOMPARE(none.err.count('\n'), 1);
    const kavreltest::ProgramRun help =
        runKavrel({QStringLiteral("plist"), QStringLiteral("--help")});
    QCOMPARE(help.exitCode, 0);
    QVERIFY(help.out.contains("FILE"));
}

KAVREL_TEST_MAIN(TestKavrelPlist)
#include "tst_kavrelplist.moc"
