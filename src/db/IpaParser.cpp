#include "IpaParser.h"

#include "DeviceHelper.h"

#include <QBuffer>
#include <QDebug>
#include <QFile>
#include <QImage>

#include <plist/plist.h>
#include <sys/stat.h>
#include <zip.h>

#include <cstdlib>

namespace {

const char* const kDefaultIconResource = ":res/img/download/pc_default_icon.png";

// Entries are matched by their file name alone, wherever they sit in the archive.
const int kMatchFileNameOnly = ZIP_FL_NODIR;

void closeArchive(zip* archive)
{
    zip_unchange_all(archive);
    zip_close(archive);
}

// Reads one entry by file name and parses it as a binary or XML property list.
// Null when the entry is missing or does not parse.
plist_t readPlistEntry(zip* archive, const char* name, bool* entryRead = nullptr)
{
    char* bytes = nullptr;
    unsigned int size = 0;
    const bool read =
        DeviceHelper::readZipEntry(archive, name, kMatchFileNameOnly, &bytes, &size) == 0;
    if (entryRead)
        *entryRead = read;
    if (!read)
        return nullptr;
    plist_t plist = nullptr;
    DeviceHelper::plistFromBuffer(bytes, size, &plist);
    free(bytes);
    return plist;
}

// A missing metadata entry is no error. One that is present is always handed on, also
// when it does not parse: parseMetadata then logs the refused argument.
void applyMetadata(zip* archive, IpaParser::IpaInfo* info)
{
    bool entryRead = false;
    plist_t metadata = readPlistEntry(archive, "iTunesMetadata.plist", &entryRead);
    if (!entryRead)
        return;
    IpaParser::parseMetadata(metadata, info);
    if (metadata)
        plist_free(metadata);
}

// The icon named by the record, else "icon.png"; empty when neither is in the archive.
QByteArray readIcon(zip* archive, const QString& iconName)
{
    char* bytes = nullptr;
    unsigned int size = 0;
    const QByteArray name = iconName.toLatin1();
    if (DeviceHelper::readZipEntry(archive, name.constData(), kMatchFileNameOnly, &bytes, &size) !=
        0) {
        qDebug() << "Try to get app icon by name icon.png...";
        if (DeviceHelper::readZipEntry(archive, "icon.png", kMatchFileNameOnly, &bytes, &size) != 0)
            qDebug() << "Warning, failed to get app icon by icon.png";
    }
    QByteArray icon;
    if (bytes && size > 0)
        icon = QByteArray(bytes, int(size));
    free(bytes);
    return icon;
}

// The host application ships a default icon as a compiled-in resource; apps without an
// icon of their own show that one.
void useDefaultIcon(IpaParser::IpaInfo* info)
{
    const QImage image(QString::fromLatin1(kDefaultIconResource));
    QBuffer buffer;
    if (!buffer.open(QIODevice::WriteOnly))
        return;
    qDebug() << "********* save default icon **************";
    if (!image.save(&buffer, "PNG", 100))
        qDebug() << "Warning, failed to save pc_default_icon.png.";
    buffer.close();
    info->mIcon.append(buffer.data());
    info->mIconName = QStringLiteral("pc_default_icon.png");
}

} // namespace

IpaParser::IpaInfo::IpaInfo()
    : mIpaSize(0), mAppSize(0), mDocSize(0), mFromDownload(false), mInDevice(false), mInLocal(false)
{
}

IpaParser::IpaInfo::~IpaInfo() = default;

void IpaParser::IpaInfo::clear()
{
    mAppType.clear();
    mAppName.clear();
    mAppleId.clear();
    mVersion.clear();
    mMinOsVer.clear();
    mIconName.clear();
    mIcon.clear();
    mIpaSize = 0;
    mAppSize = 0;
    mDocSize = 0;
    mFromDownload = false;
    mInDevice = false;
    mInLocal = false;
}

static const char* flagText(bool flag)
{
    return flag ? "true" : "false";
}

void IpaParser::IpaInfo::debugInfo()
{
    qDebug() << "mAppId: " << mAppId;
    qDebug() << "mAppType:" << mAppType;
    qDebug() << "mIpaSize: " << mIpaSize;
    qDebug() << "mAppSize: " << mAppSize;
    qDebug() << "mDocSize: " << mDocSize;
    qDebug() << "mAppName: " << mAppName;
    qDebug() << "mAppleId: " << mAppleId;
    qDebug() << "mVersion: " << mVersion;
    qDebug() << "mMinOsVer: " << mMinOsVer;
    qDebug() << "mIconName" << mIconName;
    qDebug() << "mFromDownload: " << flagText(mFromDownload);
    qDebug() << "mInDevice: " << flagText(mInDevice);
    qDebug() << "mInLocal: " << flagText(mInLocal);
    qDebug() << "size of mIcon: " << mIcon.size();
}

IpaParser::IpaInfo* createIpaInfo()
{
    return new IpaParser::IpaInfo();
}

IpaParser::IpaParser(QObject* parent) : QObject(parent) {}

bool IpaParser::parseInfo(void* plist, IpaInfo* info)
{
    qDebug() << "IpaParser::parseInfo";
    if (!plist || !info) {
        qDebug() << "Invalid parameter.";
        return false;
    }
    plist_t dict = static_cast<plist_t>(plist);
    DeviceHelper::getDictString(dict, QStringLiteral("CFBundleDisplayName"), info->mAppName);
    DeviceHelper::getDictString(dict, QStringLiteral("CFBundleIdentifier"), info->mAppId);
    // The build version is read last on purpose: it wins over the short version
    // whenever both exist.
    DeviceHelper::getDictString(dict, QStringLiteral("CFBundleShortVersionString"), info->mVersion);
    DeviceHelper::getDictString(dict, QStringLiteral("CFBundleVersion"), info->mVersion);
    DeviceHelper::getDictString(dict, QStringLiteral("MinimumOSVersion"), info->mMinOsVer);
    DeviceHelper::getDictString(dict, QStringLiteral("CFBundleIconFile"), info->mIconName);
    if (info->mIconName.isEmpty())
        DeviceHelper::getDictFirstString(dict, QStringLiteral("CFBundleIconFiles"),
                                         info->mIconName);
    if (info->mIconName.isEmpty())
        info->mIconName = QStringLiteral("Icon.png");
    DeviceHelper::getDictStringList(dict, QStringLiteral("CFBundleSupportedPlatforms"),
                                    info->mDevices);
    return true;
}

bool IpaParser::parseMetadata(void* plist, IpaInfo* info)
{
    qDebug() << "IpaParser::parseMetadata";
    if (!plist || !info) {
        qDebug() << "Invalid parameters.";
        return false;
    }
    plist_t dict = static_cast<plist_t>(plist);
    DeviceHelper::getDictString(dict, QStringLiteral("softwareVersionBundleId"), info->mAppId);
    DeviceHelper::getDictString(dict, QStringLiteral("itemName"), info->mAppName);
    DeviceHelper::getDictString(dict, QStringLiteral("bundleVersion"), info->mVersion);
    DeviceHelper::getDictString(dict, QStringLiteral("appleId"), info->mAppleId);
    DeviceHelper::getDictString(dict, QStringLiteral("genre"), info->mAppType);
    return true;
}

bool IpaParser::parseIpa(const QString& ipaPath, IpaInfo* info)
{
    qDebug() << "IpaParser::parseIpa, ipa: " << ipaPath;
    if (ipaPath.isEmpty() || !info)
        return false;

    // File access goes through the platform's narrow file-name encoding.
    const QByteArray path = QFile::encodeName(ipaPath);
    if (path.size() < 2) {
        qDebug() << "ipa name shouldn't be empty.";
        return false;
    }

    struct stat st;
    if (::stat(path.constData(), &st) != 0) {
        qDebug("Error, failed to stat ipa file: %s", path.constData());
        return false;
    }
    // The size is kept as a signed 32-bit value widened with its sign, as the catalog
    // has always recorded it.
    info->mIpaSize = quint64(qint64(qint32(st.st_size)));

    int error = 0;
    zip* archive = zip_open(path.constData(), 0, &error);
    if (!archive) {
        qDebug("ERROR: zip_open: %s: %d", path.constData(), error);
        return false;
    }

    // Metadata first, so that Info.plist values replace its identifier, name and version.
    applyMetadata(archive, info);

    bool infoRead = false;
    plist_t infoPlist = readPlistEntry(archive, "Info.plist", &infoRead);
    if (!infoRead) {
        closeArchive(archive);
        return false;
    }
    if (!infoPlist) {
        qDebug() << "Error: Could not parse Info.plist!";
        closeArchive(archive);
        return false;
    }
    parseInfo(infoPlist, info);
    plist_free(infoPlist);

    const QByteArray icon = readIcon(archive, info->mIconName);
    if (icon.size() > 0) {
        qDebug("got icon, length: %d", icon.size());
        info->mIcon.append(icon);
    } else {
        useDefaultIcon(info);
    }

    closeArchive(archive);
    return true;
}

void IpaParser::debugInfo(const IpaInfo& info)
{
    qDebug() << "mAppId: " << info.mAppId;
    qDebug() << "mAppleId: " << info.mAppleId;
    qDebug() << "mAppName: " << info.mAppName;
    qDebug() << "mDevices: " << info.mDevices.join(QLatin1Char('|'));
    qDebug() << "mIconName: " << info.mIconName;
    qDebug() << "mMinOsVer: " << info.mMinOsVer;
    qDebug() << "mVersion: " << info.mVersion;
    qDebug() << "size of icon: " << info.mIcon.size();
}
