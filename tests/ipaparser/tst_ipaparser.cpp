// IpaParser: reading app records out of .ipa archives built here at run time.

#include "IpaParser.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QImage>

using Entries = QList<QPair<QString, QByteArray>>;
Q_DECLARE_METATYPE(Entries)

namespace {

const QString kApp = QStringLiteral("Payload/Sample.app/");

// A property list of texts (a string list becomes an array), as XML or binary.
QByteArray plistBytes(const QVariantMap& map, bool binary)
{
    QByteArray xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>";
    for (auto it = map.begin(); it != map.end(); ++it) {
        const QStringList texts = it.value().toStringList();
        const QByteArray strings =
            "<string>" + texts.join("</string><string>").toUtf8() + "</string>";
        xml += "<key>" + it.key().toUtf8() + "</key>" +
               (it.value().type() == QVariant::StringList ? "<array>" + strings + "</array>"
                                                          : strings);
    }
    xml += "</dict></plist>";
    if (!binary)
        return xml;
    plist_t node = nullptr;
    plist_from_xml(xml.constData(), uint32_t(xml.size()), &node);
    return kavreltest::plistBytes(node, true);
}

const QVariantMap kInfo{{"CFBundleDisplayName", "Sample"},
                        {"CFBundleIdentifier", "com.example.sample"},
                        {"CFBundleShortVersionString", "1.2"},
                        {"CFBundleVersion", "345"},
                        {"MinimumOSVersion", "9.0"},
                        {"CFBundleIconFile", "AppIcon.png"},
                        {"CFBundleSupportedPlatforms", QStringList{"iPhoneOS"}}};

const QVariantMap kMetadata{{"softwareVersionBundleId", "com.store.listing"},
                            {"itemName", "Store Name"},
                            {"bundleVersion", "9.9"},
                            {"appleId", "buyer@example.com"},
                            {"genre", "Games"}};

QVariantMap without(QVariantMap map, const QStringList& keys)
{
    for (const QString& key : keys)
        map.remove(key);
    return map;
}

const QByteArray kIconA = QByteArray("\x89PNG app icon A", 15);
const QByteArray kIconB = QByteArray("\x89PNG lower-case icon.png", 24);
const QByteArray kIcon72 = QByteArray("\x89PNG Icon-72", 12);

// An app's Info.plist and its icon AppIcon.png (kIconA), then the other entries.
Entries app(const QVariantMap& info, bool binary, const Entries& more = Entries())
{
    return Entries{{kApp + "Info.plist", plistBytes(info, binary)},
                   {kApp + "AppIcon.png", kIconA}} +
           more;
}

} // namespace

class TestIpaParser : public QObject
{
    Q_OBJECT
private slots:
    void parseIpa_data();
    void parseIpa();
    void refusedArchives_data();
    void refusedArchives();
    void defaultIcon();
    void invalidArguments();

private:
    QString writeIpa(const QString& name, const Entries& entries);
    QTemporaryDir mDir;
};

QString TestIpaParser::writeIpa(const QString& name, const Entries& entries)
{
    kavreltest::ZipBuilder zip;
    for (const auto& entry : entries)
        zip.add(entry.first, entry.second);
    const QString path = mDir.filePath(name);
    if (!zip.write(path, true))
        qFatal("could not write %s", qPrintable(path));
    return path;
}

void TestIpaParser::parseIpa_data()
{
    QTest::addColumn<Entries>("entries");
    QTest::addColumn<QByteArray>("icon");
    // id|name|version|icon name|Apple id|app type|devices; the caller preset the Apple id
    // and the app type, which only metadata replaces.
    QTest::addColumn<QString>("record");

    const QString sample = "com.example.sample|Sample|";
    const QString preset = "|preset-apple|preset-type|iPhoneOS";
    QTest::newRow("binary Info.plist: build version wins over short version")
        << app(kInfo, true, {{kApp + "icon.png", kIconB}}) << kIconA
        << sample + "345|AppIcon.png" + preset;
    QTest::newRow("XML Info.plist: short version kept without build version")
        << app(without(kInfo, {"CFBundleVersion"}), false) << kIconA
        << sample + "1.2|AppIcon.png" + preset;

    QVariantMap iconFiles = without(kInfo, {"CFBundleIconFile"});
    iconFiles.insert("CFBundleIconFiles", QStringList{"Icon-72.png", "Icon.png"});
    QTest::newRow("icon files array: first entry is taken")
        << app(iconFiles, true, {{kApp + "Icon.png", kIconB}, {kApp + "Icon-72.png", kIcon72}})
        << kIcon72 << sample + "345|Icon-72.png" + preset;
    QTest::newRow("no icon key: Icon.png is assumed")
        << app(without(kInfo, {"CFBundleIconFile"}), true, {{kApp + "Icon.png", kIconB}}) << kIconB
        << sample + "345|Icon.png" + preset;
    QVariantMap bareIcon = kInfo;
    bareIcon.insert("CFBundleIconFile", "Icon");
    QTest::newRow("icon name without extension: falls back to icon.png, name kept")
        << app(bareIcon, true, {{kApp + "Icon.png", kIconA}, {kApp + "icon.png", kIconB}}) << kIconB
        << sample + "345|Icon" + preset;

    const QVariantMap extension = {{"CFBundleIdentifier", "com.example.sample.widget"},
                                   {"CFBundleDisplayName", "Widget"},
                                   {"CFBundleVersion", "7"},
                                   {"CFBundleIconFile", "AppIcon.png"}};
    QTest::newRow("nested bundle's Info.plist listed first wins")
        << Entries{{kApp + "PlugIns/Widget.appex/Info.plist", plistBytes(extension, true)}} +
               app(kInfo, true)
        << kIconA << "com.example.sample.widget|Widget|7|AppIcon.png|preset-apple|preset-type|";

    QTest::newRow("binary metadata: Info.plist overrides id, name, version")
        << Entries{{"iTunesMetadata.plist", plistBytes(kMetadata, true)}} + app(kInfo, true)
        << kIconA << sample + "345|AppIcon.png|buyer@example.com|Games|iPhoneOS";
    const QVariantMap sparse =
        without(kInfo, {"CFBundleDisplayName", "CFBundleVersion", "CFBundleShortVersionString"});
    QTest::newRow("XML metadata fills what Info.plist lacks")
        << app(sparse, false, {{"iTunesMetadata.plist", plistBytes(kMetadata, false)}}) << kIconA
        << "com.example.sample|Store Name|9.9|AppIcon.png|buyer@example.com|Games|iPhoneOS";
    // Metadata that is no property list is refused on its own; the parse goes on.
    QTest::newRow("unparsable metadata is skipped")
        << Entries{{"iTunesMetadata.plist", "bplist00 but not really"}} + app(kInfo, true) << kIconA
        << sample + "345|AppIcon.png" + preset;
}

void TestIpaParser::parseIpa()
{
    QFETCH(Entries, entries);
    const QString path = writeIpa(QStringLiteral("app.ipa"), entries);

    IpaParser::IpaInfo info;
    info.mAppleId = QStringLiteral("preset-apple");
    info.mAppType = QStringLiteral("preset-type");
    QVERIFY(IpaParser::parseIpa(path, &info));
    const QStringList record{info.mAppId,   info.mAppName, info.mVersion,          info.mIconName,
                             info.mAppleId, info.mAppType, info.mDevices.join(',')};
    QTEST(record.join('|'), "record");
    QTEST(info.mIcon, "icon");
    QCOMPARE(info.mIpaSize, quint64(QFileInfo(path).size()));
}

void TestIpaParser::refusedArchives_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("logLine");

    const QString notZip = mDir.filePath(QStringLiteral("notzip.ipa"));
    QVERIFY(kavreltest::writeFile(notZip, "this is not a zip archive"));
    QTest::newRow("not a zip") << notZip << "ERROR: zip_open: ";
    QTest::newRow("no Info.plist") << writeIpa("noinfo.ipa", {{kApp + "AppIcon.png", kIconA}})
                                   << "Warning: could not locate Info.plist in archive!";
    QTest::newRow("Info.plist is not a property list")
        << writeIpa("badinfo.ipa", {{kApp + "Info.plist", "<plist><dict><key>oops"}})
        << "Error: Could not parse Info.plist!";
}

void TestIpaParser::refusedArchives()
{
    QFETCH(QString, path);
    QFETCH(QString, logLine);
    kavreltest::LogCapture log;
    IpaParser::IpaInfo info;
    QVERIFY(!IpaParser::parseIpa(path, &info));
    QVERIFY2(log.contains(logLine), qPrintable(log.dump()));
}

void TestIpaParser::defaultIcon()
{
    const QString path =
        writeIpa(QStringLiteral("noicon.ipa"), {{kApp + "Info.plist", plistBytes(kInfo, true)}});
    kavreltest::LogCapture log;
    IpaParser::IpaInfo info;
    QVERIFY(IpaParser::parseIpa(path, &info));
    QVERIFY(log.hasLine(QStringLiteral("Warning, failed to get app icon by icon.png")));
    QCOMPARE(info.mIconName, QStringLiteral("pc_default_icon.png"));
    // The bytes are the resource image re-encoded as PNG.
    const QImage expected(QStringLiteral(":res/img/download/pc_default_icon.png"));
    QCOMPARE(QImage::fromData(info.mIcon, "PNG").convertToFormat(expected.format()), expected);
}

void TestIpaParser::invalidArguments()
{
    // A one-byte path is refused before the file system is asked, even when it exists.
    QVERIFY(QDir::setCurrent(mDir.path())); // the last test: the folder is not changed back
    QVERIFY(kavreltest::writeFile(mDir.filePath(QStringLiteral("a")), "x"));
    kavreltest::LogCapture log;
    IpaParser::IpaInfo info;
    QVERIFY(!IpaParser::parseIpa(QStringLiteral("a"), &info));
    QVERIFY(log.hasLine(QStringLiteral("ipa name shouldn't be empty.")));
    QVERIFY(!IpaParser::parseIpa(mDir.filePath(QStringLiteral("a")), nullptr));
    QVERIFY(!IpaParser::parseIpa(mDir.filePath(QStringLiteral("missing.ipa")), &info));
    QVERIFY(log.contains(QStringLiteral("Error, failed to stat ipa file: ")));
}

KAVREL_TEST_MAIN(TestIpaParser)
#include "tst_ipaparser.moc"
