// PngCrush: crushed PNG files built here from known pixels are converted and read back
// with QImage; bad input is refused with its message and never touches the file.

#include "PngBuilder.h"
#include "PngCrush.h"
#include "TestSupport.h"

#include <QImage>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

using namespace kavreltest;

Q_DECLARE_METATYPE(kavreltest::Bytes)

namespace {

QByteArray toQt(const Bytes& b)
{
    return QByteArray(reinterpret_cast<const char*>(b.data()), int(b.size()));
}

struct Run
{
    int result = 0;
    QString output;
    QString outName; // empty when process() left it unset
};

// PngCrush reports with printf/puts only, so its standard output goes to a file meanwhile.
Run runCrush(PngCrush& crush, const QString& path)
{
    QTemporaryFile log;
    log.open(); // if not, the output stays empty
    QByteArray name = QFile::encodeName(path);
    char* outName = nullptr;
    Run run;
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(log.handle(), STDOUT_FILENO);
    run.result = crush.process(name.data(), &outName);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    run.output = QString::fromLocal8Bit(readFile(log.fileName()));
    run.outName = QFile::decodeName(outName);
    free(outName);
    return run;
}

PngRecipe rgbaRecipe(uint32_t w, uint32_t h)
{
    return PngRecipe{w, h, 6, false, true, true, 0, testPixels(w, h, 6, w * 31 + h)};
}

// Whether the converted file at path shows what the recipe's pixels should become
// (false also when it is unreadable, which includes a wrong CRC).
bool showsRecipe(const PngRecipe& recipe, const QString& path, bool fixAlpha = true)
{
    PngRecipe plain = recipe;
    plain.crushed = false;
    plain.pixels = convertedPixels(recipe, fixAlpha);
    return QImage(path, "PNG") == QImage::fromData(toQt(buildPng(plain)), "PNG");
}

// The converter's row operations one byte at a time, to check its vectorised loops
// against on many random rows. Removing goes left to right with the row above already
// restored; applying goes right to left with the row above already re-filtered, and
// Up and Paeth predict from the same row.
void refFilters(QByteArray& buf, int width, int height, bool apply)
{
    const int n = 4 * width, stride = n + 1;
    int k = n; // applying: where the last re-filtering loop stopped
    for (int y = 0; y < height; ++y) {
        const int x = y * stride + 1, filter = uint8_t(buf[x - 1]);
        auto X = [&](int i) -> int { return uint8_t(buf[x + i]); };
        auto P = [&](int i) -> int { return y > 0 ? uint8_t(buf[x - stride + i]) : 0; };
        if (filter == 3 && y > 0) // the Average quirk, byte 0 before the others
            buf[x] = char(X(0) + (apply ? -1 : 1) * (P(apply ? k : n) / 2));
        for (int j = 0; j < n; ++j) {
            const int i = apply ? n - 1 - j : j;
            const int left = i == 0 || x + i < 4 ? 0 : X(i - 4);
            int predicted = 0;
            if (filter == 1 && i >= 4)
                predicted = X(i - 4);
            else if (filter == 2 && y > 0)
                predicted = apply ? X(i - 1) : P(i);
            else if (filter == 3 && i >= 4)
                predicted = (X(i - 4) + P(i)) / 2;
            else if (filter == 4 && y == 0)
                predicted = left;
            else if (filter == 4)
                predicted = apply ? paeth(left, X(i - 1), i >= 4 ? X(i - 5) : 0)
                                  : paeth(left, P(i), i >= 4 ? P(i - 4) : 0);
            buf[x + i] = char(X(i) + (apply ? -predicted : predicted));
        }
        if (filter == 1 || filter == 3)
            k = 3;
        else if (filter == 4 || (filter == 2 && y > 0))
            k = -1;
    }
}

} // namespace

class TestPngCrush : public QObject
{
    Q_OBJECT
private slots:
    void convertsCrushedImages_data();
    void convertsCrushedImages();
    void process_data();
    void process();
    void rowFiltersMatchDefinition_data();
    void rowFiltersMatchDefinition();

private:
    QString writeInput(const QString& name, const Bytes& file);
    QTemporaryDir mDir;
};

QString TestPngCrush::writeInput(const QString& name, const Bytes& file)
{
    const QString path = mDir.filePath(name);
    return writeFile(path, toQt(file)) ? path : QString();
}

void TestPngCrush::convertsCrushedImages_data()
{
    QTest::addColumn<int>("colorType");
    QTest::addColumn<bool>("interlaced");
    QTest::addColumn<int>("filter");
    QTest::addColumn<bool>("fixAlpha");
    QTest::addColumn<bool>("premultiply");
    QTest::addColumn<bool>("standard"); // standard_filters

    // RGB rows are never re-filtered, so every filter type (a different one per row) must
    // come back exactly.
    for (bool interlaced : {false, true}) {
        const char* mode = interlaced ? "interlaced" : "progressive";
        QTest::addRow("rgb %s all filters", mode) << 2 << interlaced << -1 << true << true << false;
        // RGBA with the alpha fix: None and Sub rows re-filter exactly.
        QTest::addRow("rgba %s filter 1", mode) << 6 << interlaced << 1 << true << true << false;
        // Without the fix only the channels are swapped, for every filter type.
        QTest::addRow("rgba %s all filters, no alpha fix", mode)
            << 6 << interlaced << -1 << false << true << false;
        // Colours above their alpha (not premultiplied) keep the low 8 bits.
        QTest::addRow("rgba %s over-alpha", mode) << 6 << interlaced << 1 << true << false << false;
        // Standard re-filtering gives every filter type back exactly; by default the
        // converter re-filters Up, Average and Paeth rows its own way, which ordinary
        // decoders show with wrong pixels.
        QTest::addRow("rgba %s all filters, standard", mode)
            << 6 << interlaced << -1 << true << true << true;
        QTest::addRow("rgba %s all filters, own filters", mode)
            << 6 << interlaced << -1 << true << true << false;
    }
    // Palette and grey files only lose their CgBI chunk.
    QTest::newRow("palette") << 3 << false << -1 << true << true << false;
    QTest::newRow("grey interlaced") << 0 << true << -1 << true << true << false;
}

void TestPngCrush::convertsCrushedImages()
{
    QFETCH(int, colorType);
    QFETCH(bool, interlaced);
    QFETCH(int, filter);
    QFETCH(bool, fixAlpha);
    QFETCH(bool, premultiply);
    QFETCH(bool, standard);

    PngRecipe recipe{23, 17, colorType, interlaced, true, premultiply, filter};
    recipe.pixels = testPixels(recipe.width, recipe.height, colorType, 5);
    recipe.palette = testPixels(16, 1, 2, 2);
    recipe.idatSize = 100; // several IDAT chunks in
    if (colorType == 6) {
        // Include fully transparent and opaque pixels.
        recipe.pixels[3] = 0;
        recipe.pixels[7] = 255;
    }
    for (uint8_t& p : recipe.pixels)
        p &= colorType == 3 ? 15 : 255;
    Bytes file = buildPng(recipe);
    const QString path = writeInput(QStringLiteral("icon.png"), file);

    PngCrush crush;
    crush.fix_alpha = fixAlpha ? 1 : 0;
    if (standard)
        crush.standard_filters = 1;
    if (interlaced)
        crush.max_idat_size = 100;
    const Run run = runCrush(crush, path);
    QCOMPARE(run.result, 1);
    QCOMPARE(run.output, path + " : ");
    QCOMPARE(run.outName, path); // rewritten in place
    if (colorType == 2 || colorType == 6) {
        const bool ownFilters = colorType == 6 && filter == -1 && fixAlpha && !standard;
        QCOMPARE(showsRecipe(recipe, path, fixAlpha), !ownFilters);
        // The output is split at max_idat_size, whatever the input's split was.
        std::vector<ParsedChunk> chunks;
        const QByteArray converted = readFile(path);
        QVERIFY(parseChunks(Bytes(converted.begin(), converted.end()), chunks));
        QString sizes;
        for (const ParsedChunk& c : chunks)
            sizes += c.type == "IDAT" ? QString::number(c.data.size()) + ' ' : QString();
        const QRegularExpression split(interlaced ? "^(100 )+(100|\\d\\d?) $" : "^\\d+ $");
        QVERIFY2(split.match(sizes).hasMatch(), qPrintable(sizes));
        return;
    }
    // Everything but the CgBI chunk (16 bytes after the signature) is copied as it was,
    // including the raw deflate data.
    file.erase(file.begin() + 8, file.begin() + 24);
    QCOMPARE(readFile(path), toQt(file));
}

void TestPngCrush::process_data()
{
    QTest::addColumn<QString>("name"); // the input, in the test folder
    QTest::addColumn<Bytes>("file");
    QTest::addColumn<QString>("options"); // fields set to 1, "dry": no writing, "out=DIR"
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("output");  // %1 stands for the input path
    QTest::addColumn<QString>("outName"); // in the test folder; empty: left unset
    QTest::addColumn<uint>("pixel");      // expected at 0,0 of the written file; 0: not checked
    auto hex = [](uint32_t v) { return QString::number(v, 16).toUpper().rightJustified(8, '0'); };
    const Bytes small = buildPng(rgbaRecipe(8, 3));

    Bytes badCrc = buildPng(rgbaRecipe(4, 4));
    const uint32_t right = 0xAE426082; // the CRC of every IEND chunk
    badCrc.back() ^= 0x5A;
    // The name is printed once, before the first report.
    QTest::newRow("CRC repaired") << "crc.png" << badCrc << "" << 1
                                  << "%1 :\n    chunk : IEND  length      0  CRC32 " +
                                         hex(right ^ 0x5A) + " -> invalid, changed to " +
                                         hex(right) + "\n"
                                  << "crc.png" << 0u;
    std::vector<ParsedChunk> chunks;
    parseChunks(badCrc, chunks);
    QString listing = "%1 :\n";
    for (const ParsedChunk& c : chunks) {
        listing += QStringLiteral("    chunk : %1  length %2  CRC32 ")
                       .arg(QString::fromStdString(c.type))
                       .arg(c.data.size(), 6) +
                   hex(c.storedCrc);
        if (!c.crcValid)
            listing += " --> CRC32 check invalid! Should be " + hex(right);
        listing += "\n";
    }
    QTest::newRow("chunks listed, not repaired")
        << "list.png" << badCrc << "list_chunks" << 1 << listing << "list.png" << 0u;

    Bytes trailing = buildPng(rgbaRecipe(5, 5));
    trailing.insert(trailing.end(), {'t', 'r', 'a', 'i', 'l'});
    QTest::newRow("data after IEND dropped")
        << "extra.png" << trailing << "" << 1
        << "%1 : Extra data after IEND, very suspicious! Excluded from conversion\n"
        << "extra.png" << 0u;
    QTest::newRow("output dir: base name, input kept")
        << "sub/in.png" << small << "out=out" << 1 << "%1 : "
        << "out/in.png" << 0u;
    QTest::newRow("dry run names the file") << "dry.png" << small << "dry" << 0 << "%1\n"
                                            << "" << 0u;

    PngRecipe interlaced = rgbaRecipe(10, 3);
    interlaced.interlaced = true;
    // 3 rows: passes 0..6 have 1, 1, 0, 1, 1, 2, 1 rows (sum 7) of 2, 1, 3, 2, 5, 5, 10 columns.
    QTest::newRow("image info") << "info.png" << buildPng(interlaced) << "print_info dry" << 0
                                << "%1 :\n"
                                   "    image width        : 10\n"
                                   "    image height       : 3\n"
                                   "    bit depth          : 8\n"
                                   "    color type         : 6\n"
                                   "    compression        : 0\n"
                                   "    filter             : 0\n"
                                   "    interlace          : 1\n"
                                   "    bits per pixel     : 32\n"
                                   "    bytes per line     : 40\n"
                                   "    Adam7 interlacing:\n"
                                   "      pass 0: 2 x 1\n"
                                   "      pass 1: 1 x 1\n"
                                   "      pass 2: 3 x 0\n"
                                   "      pass 3: 2 x 1\n"
                                   "      pass 4: 5 x 1\n"
                                   "      pass 5: 5 x 2\n"
                                   "      pass 6: 10 x 1\n"
                                   "    row filter bytes   : 7\n"
                                   "    expected data size : 127 bytes\n"
                                   "    swapping BGR(A) to RGB(A)\n"
                                   "    uncompressed size  : 127 bytes\n"
                                   "    repacked size: N bytes\n"
                                << "" << 0u;

    Bytes longChunk = buildPng(rgbaRecipe(4, 4));
    longChunk.resize(longChunk.size() - 12);
    longChunk.insert(longChunk.end(), {0, 0, 0x10, 0, 'I', 'E', 'N', 'D', 0, 0, 0, 0});
    QTest::newRow("oversized chunk explained")
        << "long.png" << longChunk << "informational" << 0
        << "    informational : chunk length 4096 larger than file\n%1 : invalid chunk size\n"
        << "" << 0u;

    // A plain file, when allowed, goes through the same channel swap.
    const PngRecipe plain{4, 2, 2, false, false, true, 4, testPixels(4, 2, 2, 9)};
    const uint8_t* p = plain.pixels.data();
    QTest::newRow("plain file allowed") << "plain.png" << buildPng(plain) << "allow_plain" << 1
                                        << "%1 : not an -iphone crushed PNG file\n"
                                        << "plain.png" << uint(qRgb(p[2], p[1], p[0]));

    // Bad input: refused with its message, the file untouched.
    auto refused = [](const char* row, const Bytes& file, const QString& message) {
        QTest::newRow(row) << "bad.png" << file << "" << 0 << message << "" << 0u;
    };

    const Bytes good = buildPng(rgbaRecipe(6, 4));
    std::vector<ParsedChunk> goodChunks;
    parseChunks(good, goodChunks);
    const Bytes signature(good.begin(), good.begin() + 8);
    const size_t iendAt = good.size() - 12;

    PngRecipe plainRecipe = rgbaRecipe(6, 4);
    plainRecipe.crushed = false;
    refused("plain png", buildPng(plainRecipe), "%1 : not an -iphone crushed PNG file\n");
    refused("not a png", Bytes{'G', 'I', 'F', '8', '9', 'a', 0, 0, 0, 0}, "%1 : not a PNG file\n");
    refused("signature only", signature, "%1 : premature end of file\n");

    Bytes firstTooLong = signature;
    firstTooLong.insert(firstTooLong.end(), {0x7F, 0, 0, 0, 'C', 'g', 'B', 'I'});
    refused("first chunk longer than file", firstTooLong, "%1 : invalid chunk size\n");

    refused("truncated in IDAT", Bytes(good.begin(), good.begin() + iendAt - 10),
            "%1 : premature end of file\n");
    Bytes hugeLength(good.begin(), good.begin() + iendAt);
    hugeLength.insert(hugeLength.end(), {0xFF, 0xFF, 0xFF, 0xFC, 'I', 'E', 'N', 'D'});
    refused("chunk length near 4 GB", hugeLength, "%1 : invalid chunk size\n");
    refused("missing IEND", Bytes(good.begin(), good.begin() + iendAt),
            "%1 : missing IEND chunk\n");

    const Bytes cgbi = chunk("CgBI", {0x50, 0, 0x20, 6});
    const Bytes idat = chunk("IDAT", goodChunks[2].data);
    const Bytes iend = chunk("IEND", {});
    auto file = [&](std::initializer_list<Bytes> parts) {
        Bytes f = signature;
        for (const Bytes& p : parts)
            f.insert(f.end(), p.begin(), p.end());
        return f;
    };
    refused("IHDR missing", file({cgbi, idat, iend}), "%1 : no IHDR chunk found\n");
    refused("IHDR too short", file({cgbi, chunk("IHDR", Bytes(12, 1)), idat, iend}),
            "%1 : IHDR chunk length incorrect\n");
    refused("zero width", file({cgbi, ihdr(0, 4, 8, 6, 0), idat, iend}),
            "%1 : image dimensions invalid\n");
    auto badIhdr = [&](int byte, uint8_t value) {
        Bytes d = goodChunks[1].data;
        d[byte] = value;
        return file({cgbi, chunk("IHDR", d), idat, iend});
    };
    auto crushedWithData = [&](uint32_t w, uint32_t h, int type, int interlace, const Bytes& raw) {
        return file(
            {cgbi, ihdr(w, h, 8, type, interlace), chunk("IDAT", compress(raw, true)), iend});
    };
    refused("compression 1", badIhdr(10, 1), "%1 : unknown compression type 1\n");
    refused("interlace 2", badIhdr(12, 2), "%1 : unknown interlace type 2\n");
    refused("colour type 7", badIhdr(9, 7), "%1 : unknown color type 7\n");
    refused("rgb depth 4", badIhdr(8, 4), "%1 : invalid bit depth 4 for color type 6\n");
    refused("no IDAT", file({cgbi, chunk("IHDR", goodChunks[1].data), iend}),
            "%1 : no IDAT chunks found\n");
    refused("IDAT not consecutive",
            file({cgbi, chunk("IHDR", goodChunks[1].data), idat, chunk("tEXt", {'a', 0, 'b'}), idat,
                  iend}),
            "%1 : IDAT chunks are not consecutive\n");
    refused(
        "IDAT empty",
        file({cgbi, chunk("IHDR", goodChunks[1].data), chunk("IDAT", {}), chunk("IDAT", {}), iend}),
        "%1 : all IDAT chunks are empty\n");

    // 6x4 RGBA expects 4 * (1 + 24) = 100 bytes.
    refused("IDAT inflates short", crushedWithData(6, 4, 6, 0, Bytes(60, 0)),
            "%1 : decompression error, expected 100 but got 60 bytes\n");
    refused("IDAT inflates long", crushedWithData(6, 4, 6, 0, Bytes(101, 0)),
            "%1 : unspecified decompression error\n");
    // Declared dimensions far beyond what the data can hold: refused without
    // reserving memory for them.
    const unsigned long long side = 0x7FFFFFFF;
    refused("huge dimensions", crushedWithData(0x7FFFFFFF, 0x7FFFFFFF, 6, 0, Bytes(100, 0)),
            "%1 : decompression error, expected " + QString::number(4 * side * side + side) +
                " but got 100 bytes\n");
    // Passes without columns still count their filter bytes, so a 3-pixel-wide
    // interlaced image never has the size the converter expects.
    PngRecipe narrow = rgbaRecipe(3, 9);
    narrow.interlaced = true;
    refused("interlaced narrower than 5", buildPng(narrow),
            "%1 : decompression error, expected 127 but got 125 bytes\n");
    // 1x1 RGBA: 5 bytes of data leave 6 bytes for a zlib stream that needs more.
    refused("too small to recompress", buildPng(rgbaRecipe(1, 1)),
            "%1 : unspecified compression error\n");
    Bytes badRows(4 * 25, 0);
    badRows[25] = 5;
    refused("row filter 5", crushedWithData(6, 4, 6, 0, badRows),
            "%1 : unknown row filter type (5)\n");
    // An unknown filter byte in the last Adam7 pass is found before any pixel changes.
    // 8x8 RGB passes take 4 + 4 + 7 + 2 * 7 + 2 * 13 + 4 * 13 + 4 * 25 bytes, all None rows.
    Bytes passRows(207, 0);
    passRows[207 - 4 * 25] = 7; // first row of pass 6
    refused("row filter 7 in last pass", crushedWithData(8, 8, 2, 1, passRows),
            "%1 : unknown row filter type (7)\n");
}

void TestPngCrush::process()
{
    QFETCH(QString, name);
    QFETCH(Bytes, file);
    QFETCH(QString, options);
    QFETCH(int, result);
    QFETCH(QString, output);
    QFETCH(QString, outName);
    QFETCH(uint, pixel);
    const QString path = writeInput(name, file);
    QVERIFY(QDir().mkpath(mDir.filePath("out")));

    PngCrush crush;
    crush.print_info = options.contains("print_info");
    crush.list_chunks = options.contains("list_chunks");
    crush.informational = options.contains("informational");
    crush.allow_plain = options.contains("allow_plain");
    crush.write_output = !options.contains("dry");
    const QString outDir = options.section("out=", 1);
    QByteArray outDirName = QFile::encodeName(mDir.filePath(outDir));
    if (!outDir.isEmpty())
        crush.output_dir = outDirName.data();
    Run run = runCrush(crush, path);
    run.output.replace(QRegularExpression("repacked size: \\d+"), "repacked size: N");
    QCOMPARE(run.result, result);
    QCOMPARE(run.output, output.arg(path));
    QCOMPARE(run.outName, outName.isEmpty() ? QString() : mDir.filePath(outName));
    if (run.outName != path)
        QCOMPARE(readFile(path), toQt(file));
    if (result == 0)
        return;

    QImage image;
    // A wrong CRC kept is refused.
    QCOMPARE(image.load(run.outName, "PNG"), !options.contains("list_chunks"));
    if (pixel)
        QCOMPARE(image.pixel(0, 0), QRgb(pixel));
}

void TestPngCrush::rowFiltersMatchDefinition_data()
{
    QTest::addColumn<int>("filter"); // -1: a random filter per row
    for (int f = -1; f <= 4; ++f)
        QTest::addRow("filter %d", f) << f;
}

void TestPngCrush::rowFiltersMatchDefinition()
{
    QFETCH(int, filter);
    uint32_t s = 7 + filter;
    auto next = [&s] {
        s = s * 1103515245u + 12345u;
        return int(s >> 16);
    };
    // Widths around the vector block sizes (4 and 16 bytes, 2 and 4 pixels).
    for (int width = 1; width <= 37; ++width) {
        const int height = 1 + width % 5;
        QByteArray rows(height * (4 * width + 1), 0);
        for (int i = 0; i < rows.size(); ++i)
            rows[i] = char(next());
        for (int y = 0; y < height; ++y)
            rows[y * (4 * width + 1)] = char(filter >= 0 ? filter : next() % 5);
        QByteArray expected = rows;
        refFilters(expected, width, height, false);
        QByteArray got = rows;
        PngCrush::removeRowFilters(width, height, reinterpret_cast<unsigned char*>(got.data()));
        QVERIFY2(got == expected, qPrintable(QStringLiteral("remove, width %1").arg(width)));
        refFilters(expected, width, height, true);
        PngCrush::applyRowFilters(width, height, reinterpret_cast<unsigned char*>(got.data()));
        QVERIFY2(got == expected, qPrintable(QStringLiteral("apply, width %1").arg(width)));
    }
}

KAVREL_TEST_MAIN(TestPngCrush)
#include "tst_pngcrush.moc"
