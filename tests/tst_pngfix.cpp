// kavrel pngfix: the host command converts crushed files that pngcheck accepts, refuses
// plain ones untouched, and reports failure through its exit status.

#include "PngBuilder.h"
#include "TestSupport.h"

#include <QDir>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

using namespace kavreltest;

namespace {

struct Result
{
    int exitCode = -1;
    QString out;
};

Result runKavrel(const QStringList& args)
{
    QProcess p;
    p.start(QStringLiteral(KAVREL_CLI), QStringList{"pngfix"} + args);
    Result r;
    if (!p.waitForFinished(60000))
        return r;
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
    return r;
}

QByteArray toQt(const Bytes& b)
{
    return QByteArray(reinterpret_cast<const char*>(b.data()), int(b.size()));
}

PngRecipe iconRecipe(bool crushed)
{
    PngRecipe s;
    s.width = 57;
    s.height = 57;
    s.colorType = 6;
    s.crushed = crushed;
    s.filter = 1;
    s.pixels = testPixels(57, 57, 6, 11);
    return s;
}

} // namespace

class TestPngfix : public QObject
{
    Q_OBJECT
private slots:
    void convertsInPlaceAndPngcheckAccepts();
    void refusesPlainPngUntouched();
    void writesIntoOutDirAndReportsEveryFile();
    void infoAndChunkListing();
    void needsAFile();

private:
    QTemporaryDir mDir;
};

void TestPngfix::convertsInPlaceAndPngcheckAccepts()
{
    const PngRecipe recipe = iconRecipe(true);
    const QString path = mDir.filePath("Icon.png");
    QVERIFY(writeFile(path, toQt(buildPng(recipe))));
    const Result r = runKavrel({path});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, path + " : converted to " + path + "\n");

    const QString pngcheck = QStandardPaths::findExecutable("pngcheck");
    if (!pngcheck.isEmpty()) {
        QProcess check;
        check.start(pngcheck, {path});
        QVERIFY(check.waitForFinished(30000));
        const QString report = QString::fromLocal8Bit(check.readAllStandardOutput());
        QCOMPARE(check.exitCode(), 0);
        QVERIFY2(report.startsWith("OK: " + path), qPrintable(report));
    }
    QImage image;
    QVERIFY(image.load(path, "PNG"));
    const uint8_t* p = &recipe.pixels[(10 * 57 + 20) * 4];
    auto demul = [&](int c) {
        const unsigned v = premultiplied(p[c], p[3]);
        return int(((v * 255 + p[3] / 2) / p[3]) & 0xFF);
    };
    QVERIFY(p[3] != 0);
    QCOMPARE(image.pixel(20, 10), qRgba(demul(0), demul(1), demul(2), p[3]));
}

void TestPngfix::refusesPlainPngUntouched()
{
    const QString path = mDir.filePath("plain.png");
    const QByteArray plain = toQt(buildPng(iconRecipe(false)));
    QVERIFY(writeFile(path, plain));
    const Result r = runKavrel({path});
    QCOMPARE(r.exitCode, 1);
    QCOMPARE(r.out, path + " : not an -iphone crushed PNG file\n");
    QCOMPARE(readFile(path), plain);
}

void TestPngfix::writesIntoOutDirAndReportsEveryFile()
{
    const QString good = mDir.filePath("a/good.png");
    const QString bad = mDir.filePath("a/bad.png");
    const QByteArray crushed = toQt(buildPng(iconRecipe(true)));
    QVERIFY(writeFile(good, crushed));
    QVERIFY(writeFile(bad, "not a png"));
    const QString out = mDir.filePath("converted/deeper");
    const Result r = runKavrel({"--out", out, bad, good});
    QCOMPARE(r.exitCode, 1); // one file failed
    QCOMPARE(r.out, bad + " : not a PNG file\n" + good + " : converted to " + out + "/good.png\n");
    QCOMPARE(readFile(good), crushed);
    QImage image;
    QVERIFY(image.load(out + "/good.png", "PNG"));
}

void TestPngfix::infoAndChunkListing()
{
    const QString path = mDir.filePath("info.png");
    QVERIFY(writeFile(path, toQt(buildPng(iconRecipe(true)))));
    const Result r = runKavrel({"--info", "--list-chunks", path});
    QCOMPARE(r.exitCode, 0);
    const QStringList lines = r.out.split('\n');
    QCOMPARE(lines.value(0), path + " :");
    QVERIFY(lines.value(1).startsWith("    chunk : CgBI  length      4  CRC32 "));
    QVERIFY(lines.contains("    image width        : 57"));
    QVERIFY(lines.contains("    swapping BGR(A) to RGB(A)"));
    QCOMPARE(lines.value(lines.size() - 2), "converted to " + path);
}

void TestPngfix::needsAFile()
{
    QCOMPARE(runKavrel({}).exitCode, 2);
}

KAVREL_TEST_MAIN(TestPngfix)
#include "tst_pngfix.moc"
