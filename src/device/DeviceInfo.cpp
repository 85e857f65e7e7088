#include "DeviceInfo.h"

#include "DeviceHelper.h"

#include <QDebug>

#include <cstdlib>
#include <cstring>

namespace {

// Lockdown services and domains used by the report.
const char* const kJailbreakService = "com.apple.afc2";
const char* const kAfcService = "com.apple.afc";
const char* const kDiskUsageDomain = "com.apple.disk_usage";
const char* const kBatteryDomain = "com.apple.mobile.battery";

const char* const kKnownDomains[] = {
    "com.apple.disk_usage",
    "com.apple.mobile.battery",
    "com.apple.iqagent",
    "com.apple.mobile.third_party_termination",
    "com.apple.mobile.lockdownd",
    "com.apple.xcode.developerdomain",
    "com.apple.international",
    "com.apple.mobile.data_sync",
    "com.apple.mobile.tethered_sync",
    "com.apple.mobile.mobile_application_usage",
    "com.apple.mobile.backup",
    "com.apple.mobile.nikita",
    "com.apple.mobile.restriction",
    "com.apple.mobile.user_preferences",
    "com.apple.mobile.sync_data_class",
    "com.apple.mobile.software_behavior",
    "com.apple.mobile.iTunes.SQLMusicLibraryPostProcessCommands",
    "com.apple.mobile.iTunes.accessories",
    "com.apple.mobile.internal",
    "com.apple.mobile.wireless_lockdown",
    "com.apple.fairplay",
    "com.apple.iTunes",
    "com.apple.mobile.iTunes.store",
    "com.apple.mobile.iTunes",
    nullptr,
};

// Starts a lockdown service; true (with the descriptor handed out) when the device
// answered with a usable port.
bool startService(lockdownd_client_t lockdown, const char* name,
                  lockdownd_service_descriptor_t* service)
{
    *service = nullptr;
    if (!lockdown)
        return false;
    if (lockdownd_start_service(lockdown, name, service) != LOCKDOWN_E_SUCCESS || !*service)
        return false;
    if ((*service)->port == 0) {
        lockdownd_service_descriptor_free(*service);
        *service = nullptr;
        return false;
    }
    return true;
}

} // namespace

DeviceInfo::DeviceInfo(QObject* parent, const QString& udid)
    : DeviceBase(parent, udid), mJailed(false), mAfc(nullptr)
{
    // A device that runs the unrestricted file service has been jailbroken. The
    // service is only probed, never connected to.
    lockdownd_service_descriptor_t service = nullptr;
    if (startService(mLockdown, kJailbreakService, &service)) {
        qDebug() << "Start service com.apple.afc2, it's jailed.";
        mJailed = true;
        lockdownd_service_descriptor_free(service);
    }
}

void DeviceInfo::cleanUp()
{
    DeviceBase::cleanUp();
    if (mAfc) {
        afc_client_free(mAfc);
        mAfc = nullptr;
    }
}

bool DeviceInfo::getValue(QString& out, const char* domain, const char* key, int mode)
{
    plist_t node = nullptr;
    if (!mLockdown || lockdownd_get_value(mLockdown, domain, key, &node) != LOCKDOWN_E_SUCCESS ||
        !node) {
        qDebug() << "lockdownd_get_value failed.";
        if (node)
            plist_free(node);
        return false;
    }

    if (mode == 0) {
        switch (plist_get_node_type(node)) {
        case PLIST_DICT:
            DeviceHelper::dictToJson(out, node);
            break;
        case PLIST_ARRAY:
            DeviceHelper::arrayToJson(out, node);
            break;
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            out = value ? QStringLiteral("1") : QStringLiteral("0");
            break;
        }
        case PLIST_UINT: {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            out = QString::number(static_cast<qulonglong>(value));
            break;
        }
        case PLIST_STRING: {
            char* value = DeviceHelper::copyString(node);
            out = QString::fromUtf8(value);
            free(value);
            break;
        }
        default:
            qDebug() << "Unhandled plist type: " << static_cast<int>(plist_get_node_type(node));
            break;
        }
    } else if (mode == 1) {
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(node, &xml, &length);
        out = QString::fromLatin1(xml, xml ? static_cast<int>(length) : 0);
        if (xml)
            plist_to_xml_free(xml);
    } else if (key) {
        DeviceHelper::nodeToJson(out, node);
    }

    plist_free(node);
    return true;
}

bool DeviceInfo::getDevInfo(QString& out, const char* domain, const char* key, int mode)
{
    Q_UNUSED(mode);
    qDebug() << "DeviceInfo::getDevInfo, domain: " << domain << ", key: " << key;
    if (!isInited()) {
        qDebug() << "Not inited yet.";
        return false;
    }

    QString global;
    if (!getValue(global, nullptr, nullptr, 0)) {
        qDebug() << "failed to get device info of global!";
        return false;
    }
    QString disk;
    if (!getValue(disk, kDiskUsageDomain, nullptr, 0)) {
        qDebug() << "failed to get device info of disk usage!";
        return false;
    }
    QString battery;
    if (!getValue(battery, kBatteryDomain, nullptr, 0)) {
        qDebug() << "failed to get device info of batter.";
        return false;
    }
    QString usage;
    if (!getDiskUsageInfo(usage))
        qDebug() << "Warning, failed to get disk usage info.";

    // Each rendered dictionary already ends with "},", so the parts are joined as is.
    out.append(QStringLiteral("{\"global_info\":")).append(global);
    out.append(QStringLiteral("\"disk_info\":")).append(disk);
    out.append(QStringLiteral("\"battery_info\":")).append(battery);
    if (!usage.isEmpty())
        out.append(QStringLiteral("\"disk_usage\":%1,").arg(usage));
    out.append(QStringLiteral("\"other_info\":{\"IsJailed\":\"%1\"}")
                   .arg(mJailed ? QStringLiteral("true") : QStringLiteral("false")));
    out.append(QStringLiteral("}"));

    // Repair what the renderer leaves behind: doubled commas after nested
    // dictionaries and commas before the closing brace or bracket.
    out.replace(QStringLiteral(",,"), QStringLiteral(","));
    out.replace(QStringLiteral("},}"), QStringLiteral("}}"));
    out.replace(QStringLiteral("},]"), QStringLiteral("}]"));

    // The host expects the short names of these identities.
    out.replace(QStringLiteral("IntegratedCircuitCardIdentity"), QStringLiteral("ICCID"));
    out.replace(QStringLiteral("InternationalMobileEquipmentIdentity"), QStringLiteral("IMEI"));
    out.replace(QStringLiteral("InternationalMobileSubscriberIdentity"), QStringLiteral("IMSI"));
    return true;
}

bool DeviceInfo::setDevProperty(const QString& key, const QString& value)
{
    qDebug() << "DeviceInfo::setDevProperty, key: " << key << ", value: " << value;
    if (key.isEmpty()) {
        qDebug() << "key shouldn't be NULL";
        return false;
    }
    if (!isInited()) {
        qDebug() << "Not inited yet.";
        return false;
    }

    // libplist cannot build a string node from a null text, so an empty value goes
    // to the device as an empty string.
    const QByteArray text = value.toUtf8();
    plist_t node = plist_new_string(text.constData());
    const QByteArray name = key.toLatin1();
    // The lockdown library takes the node.
    if (lockdownd_set_value(mLockdown, nullptr, name.constData(), node) != LOCKDOWN_E_SUCCESS) {
        qDebug() << "lockdownd_set_value failed.";
        return false;
    }
    return true;
}

bool DeviceInfo::getDiskUsageInfo(QString& out)
{
    qDebug() << "DeviceInfo::getDiskUsageInfo";

    lockdownd_service_descriptor_t service = nullptr;
    if (startService(mLockdown, kAfcService, &service)) {
        // A second call replaces the client of the first without closing it; only
        // cleanUp() closes the AFC client, on success and failure alike.
        afc_client_t afc = nullptr;
        if (afc_client_new(mDevice, service, &afc) == AFC_E_SUCCESS && afc)
            mAfc = afc;
        lockdownd_service_descriptor_free(service);
    }
    if (!mAfc) {
        qDebug() << "Failed to create afc client";
        return false;
    }

    char path[41];
    std::memset(path, 0, sizeof(path));
    std::strcat(path, "/iTunes_Control/iTunes/");
    std::strcat(path, "iTunesPrefs.plist");

    char* bytes = nullptr;
    quint64 size = 0;
    DeviceHelper::readAfcFile(mAfc, path, &bytes, &size);
    if (!bytes || size == 0) {
        qDebug() << "failed to get content of iTunesPrefs.plist.";
        free(bytes);
        return false;
    }
    qDebug() << "data_size: " << size;

    plist_t prefs = nullptr;
    DeviceHelper::plistFromBuffer(bytes, static_cast<unsigned int>(size), &prefs);
    free(bytes);
    plist_t totals = nullptr;
    if (prefs && plist_get_node_type(prefs) == PLIST_DICT)
        totals = plist_dict_get_item(prefs, "EstimatedDeviceTotals");
    if (!totals || plist_get_node_type(totals) != PLIST_DICT) {
        qDebug() << "failed to get dict of EstimatedDeviceTotals by key";
        if (prefs)
            plist_free(prefs);
        return false;
    }

    static const char* const kTotals[] = {
        "totalApplicationBytes", "totalAudioBytes", "totalBookBytes",     "totalMovieBytes",
        "totalMusicBytes",       "totalPhotoBytes", "totalRingtoneBytes", "totalVideoBytes",
    };
    QStringList fields;
    for (const char* name : kTotals) {
        quint64 value = 0;
        DeviceHelper::getDictUInt(totals, QString::fromLatin1(name), &value);
        fields << QStringLiteral("\"%1\":%2").arg(QLatin1String(name)).arg(value, 0, 10);
    }
    out.append(QLatin1Char('{') + fields.join(QLatin1Char(',')) + QLatin1Char('}'));
    plist_free(prefs);
    return true;
}

const char* const* DeviceInfo::knownDomains()
{
    return kKnownDomains;
}

bool DeviceInfo::containsKnownDomain(const char* text)
{
    if (!text)
        return false;
    for (const char* const* domain = kKnownDomains; *domain; ++domain) {
        if (std::strstr(text, *domain))
            return true;
    }
    return false;
}
