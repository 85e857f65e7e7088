// bench-ipa generate DIR COUNT   writes COUNT .ipa files of realistic shape into DIR
// bench-ipa parse DIR ROUNDS     parses every .ipa in DIR with IpaParser::parseIpa, ROUNDS
//                                times, and prints the best round's files per second

#include "IpaParser.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QPainter>
#include <QRandomGenerator>

#include <plist/plist.h>
#include <zip.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

QByteArray binaryInfoPlist(int n)
{
    plist_t dict = plist_new_dict();
    const QByteArray id = "com.example.bench.app" + QByteArray::number(n);
    plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(id.constData()));
    plist_dict_set_item(dict, "CFBundleDisplayName", plist_new_string("Bench App"));
    plist_dict_set_item(dict, "CFBundleName", plist_new_string("BenchApp"));
    plist_dict_set_item(dict, "CFBundleExecutable", plist_new_string("BenchApp"));
    plist_dict_set_item(dict, "CFBundleShortVersionString", plist_new_string("3.4.1"));
    plist_dict_set_item(dict, "CFBundleVersion", plist_new_string("341"));
    plist_dict_set_item(dict, "MinimumOSVersion", plist_new_string("12.0"));
    plist_dict_set_item(dict, "CFBundleIconFile", plist_new_string("AppIcon60x60@2x.png"));
    plist_t platforms = plist_new_array();
    plist_array_append_item(platforms, plist_new_string("iPhoneOS"));
    plist_dict_set_item(dict, "CFBundleSupportedPlatforms", platforms);
    plist_t iconFiles = plist_new_array();
    plist_array_append_item(iconFiles, plist_new_string("AppIcon60x60"));
    plist_t primary = plist_new_dict();
    plist_dict_set_item(primary, "CFBundleIconFiles", iconFiles);
    plist_dict_set_item(primary, "CFBundleIconName", plist_new_string("AppIcon"));
    plist_t icons = plist_new_dict();
    plist_dict_set_item(icons, "CFBundlePrimaryIcon", primary);
    plist_dict_set_item(dict, "CFBundleIcons", icons);
    plist_t families = plist_new_array();
    plist_array_append_item(families, plist_new_uint(1));
    plist_array_append_item(families, plist_new_uint(2));
    plist_dict_set_item(dict, "UIDeviceFamily", families);
    // Typical extra keys an Xcode build carries.
    for (int i = 0; i < 40; ++i) {
        const QByteArray key = "NSExtraUsageDescriptionKey" + QByteArray::number(i);
        plist_dict_set_item(dict, key.constData(),
                            plist_new_string("This app uses this feature to do something useful."));
    }
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    const QByteArray result(bytes, int(length));
    free(bytes);
    plist_free(dict);
    return result;
}

QByteArray iconPng()
{
    QImage image(120, 120, QImage::Format_ARGB32);
    image.fill(QColor(40, 120, 200));
    QPainter painter(&image);
    painter.setBrush(QColor(250, 200, 40));
    painter.drawEllipse(20, 20, 80, 80);
    painter.end();
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

// About 1 MB of machine-code-like bytes: compresses roughly as a real binary does.
QByteArray executable(int n)
{
    QByteArray bytes(1024 * 1024, '\0');
    QRandomGenerator rng(quint32(n + 1));
    for (int i = 0; i < bytes.size(); i += 4) {
        const quint32 word = rng.generate();
        const quint32 value = (word & 3) ? (word & 0x00ff00ff) : word;
        memcpy(bytes.data() + i, &value, 4);
    }
    return bytes;
}

bool addEntry(zip_t* archive, const QByteArray& name, const QByteArray& data)
{
    char* copy = static_cast<char*>(malloc(size_t(qMax(1, data.size()))));
    memcpy(copy, data.constData(), size_t(data.size()));
    zip_source_t* source = zip_source_buffer(archive, copy, zip_uint64_t(data.size()), 1);
    return source && zip_file_add(archive, name.constData(), source, ZIP_FL_ENC_UTF_8) >= 0;
}

bool writeIpa(const QString& path, int n, const QByteArray& icon)
{
    int error = 0;
    zip_t* archive =
        zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!archive)
        return false;
    const QByteArray app = "Payload/BenchApp.app/";
    zip_dir_add(archive, "Payload/", 0);
    zip_dir_add(archive, app.constData(), 0);
    bool ok = true;
    // Resources first, the way Xcode's archives list them: a few hundred entries.
    const char* languages[] = {"en", "de", "fr", "ja", "zh-Hans", "es", "it", "ko"};
    for (const char* lang : languages) {
        const QByteArray dir = app + lang + ".lproj/";
        zip_dir_add(archive, dir.constData(), 0);
        for (int i = 0; i < 12; ++i)
            ok &= addEntry(archive, dir + "Screen" + QByteArray::number(i) + ".strings",
                           QByteArray("\"title\" = \"Some text\";\n").repeated(20 + i));
    }
    for (int i = 0; i < 120; ++i)
        ok &= addEntry(archive, app + "Assets/image" + QByteArray::number(i) + "@2x.png",
                       icon.left(200 + i * 10));
    zip_dir_add(archive, (app + "Base.lproj/Main.storyboardc/").constData(), 0);
    for (int i = 0; i < 60; ++i)
        ok &= addEntry(archive,
                       app + "Base.lproj/Main.storyboardc/View" + QByteArray::number(i) + ".nib",
                       QByteArray("NIBArchive").repeated(50 + i));
    ok &= addEntry(archive, app + "_CodeSignature/CodeResources",
                   QByteArray("<plist/>").repeated(400));
    ok &= addEntry(archive, app + "BenchApp", executable(n));
    ok &= addEntry(archive, app + "AppIcon60x60@2x.png", icon);
    ok &=
        addEntry(archive, app + "embedded.mobileprovision", QByteArray("provision").repeated(800));
    ok &= addEntry(archive, app + "PkgInfo", "APPL????");
    ok &= addEntry(archive, app + "Info.plist", binaryInfoPlist(n));
    if (zip_close(archive) != 0) {
        zip_discard(archive);
        return false;
    }
    return ok;
}

int generate(const QString& dir, int count)
{
    QDir().mkpath(dir);
    const QByteArray icon = iconPng();
    for (int n = 0; n < count; ++n) {
        const QString path =
            QDir(dir).filePath(QStringLiteral("app%1.ipa").arg(n, 4, 10, QLatin1Char('0')));
        if (!writeIpa(path, n, icon)) {
            fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
    }
    printf("generated %d files in %s\n", count, qPrintable(dir));
    return 0;
}

void dropDebugLines(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type != QtDebugMsg)
        fprintf(stderr, "%s\n", qPrintable(msg));
}

int parse(const QString& dir, int rounds)
{
    // The parser logs every step; the terminal is not what is being measured.
    qInstallMessageHandler(dropDebugLines);
    const QStringList names =
        QDir(dir).entryList({QStringLiteral("*.ipa")}, QDir::Files, QDir::Name);
    if (names.isEmpty()) {
        fprintf(stderr, "no .ipa files in %s\n", qPrintable(dir));
        return 1;
    }
    QStringList paths;
    for (const QString& name : names)
        paths << QDir(dir).filePath(name);
    double best = 0;
    for (int round = 0; round < rounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        for (const QString& path : qAsConst(paths)) {
            IpaParser::IpaInfo info;
            if (!IpaParser::parseIpa(path, &info) || info.mAppId.isEmpty() ||
                info.mIcon.isEmpty()) {
                fprintf(stderr, "failed to parse %s\n", qPrintable(path));
                return 1;
            }
        }
        const double seconds = timer.nsecsElapsed() / 1e9;
        best = qMax(best, paths.size() / seconds);
    }
    printf("kavrel IpaParser::parseIpa: %d files, best of %d rounds: %.1f files/s\n",
           int(paths.size()), rounds, best);
    printf("RESULT kavrel %.3f\n", best);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 4 && args[1] == QLatin1String("generate"))
        return generate(args[2], args[3].toInt());
    if (args.size() == 4 && args[1] == QLatin1String("parse"))
        return parse(args[2], qMax(1, args[3].toInt()));
    fprintf(stderr, "usage: bench-ipa generate DIR COUNT | bench-ipa parse DIR ROUNDS\n");
    return 2;
}
