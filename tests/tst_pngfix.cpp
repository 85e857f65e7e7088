// kavrel pngfix: the host command converts crushed files that pngcheck accepts, refuses
// plain ones untouched, and reports failure through its exit status.

#include "PngBuilder.h"
#include "TestSupport.h"

#include <QImage>

using namespace kavreltest;

namespace {

ProgramRun pngfix(const QStringList& args)
{
    return runProgram(QStringLiteral(KAVREL_CLI), QStringList{"pngfix"} + args);
}

PngRecipe iconRecipe(bool crushed)
{
    return PngRecipe{57, 57, 6, false, crushed, true, 1, testPixels(57, 57, 6, 11)};
}

QByteArray iconFile(bool crushed)
{
    const Bytes b = buildPng(iconRecipe(crushed));
    return QByteArray(reinterpret_cast<const char*>(b.data()), int(b.size()));
}

} // namespace

class TestPngfix : public QObject
{
    Q_OBJECT
private slots:
    void convertsInPlaceAndPngcheckAccepts();
    void reportsEveryFileIntoOutDir();

private:
    QTemporaryDir mDir;
};

void TestPngfix::convertsInPlaceAndPngcheckAccepts()
{
    const QString path = mDir.filePath("Icon.png");
    QVERIFY(writeFile(path, iconFile(true)));
    const ProgramRun r = pngfix({path});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(QString::fromLocal8Bit(r.out), path + " : converted to " + path + "\n");

    const QString pngcheck = QStandardPaths::findExecutable("pngcheck");
    if (!pngcheck.isEmpty())
        QCOMPARE(runProgram(pngcheck, {path}).exitCode, 0);
    // The colours come back demultiplied.
    PngRecipe plain = iconRecipe(false);
    plain.pixels = convertedPixels(iconRecipe(true), true);
    const Bytes b = buildPng(plain);
    QCOMPARE(QImage(path, "PNG"), QImage::fromData(b.data(), int(b.size()), "PNG"));
}

void TestPngfix::reportsEveryFileIntoOutDir()
{
    const QString plain = mDir.filePath("a/plain.png");
    const QString bad = mDir.filePath("a/bad.png");
    const QString good = mDir.filePath("a/good.png");
    QVERIFY(writeFile(plain, iconFile(false)));
    QVERIFY(writeFile(bad, "not a png"));
    QVERIFY(writeFile(good, iconFile(true)));
    const QString out = mDir.filePath("converted/deeper");
    const ProgramRun r = pngfix({"--out", out, plain, bad, good});
    QCOMPARE(r.exitCode, 1);
    QCOMPARE(QString::fromLocal8Bit(r.out), plain + " : not an -iphone crushed PNG file\n" + bad +
                                                " : not a PNG file\n" + good + " : converted to " +
                                                out + "/good.png\n");
    QCOMPARE(readFile(plain), iconFile(false));
    QCOMPARE(readFile(good), iconFile(true));
    QVERIFY(!QFile::exists(out + "/plain.png"));
    QVERIFY(QImage().load(out + "/good.png", "PNG"));
    QCOMPARE(pngfix({}).exitCode, 2);
}

KAVREL_TEST_MAIN(TestPngfix)
#include "tst_pngfix.moc"
