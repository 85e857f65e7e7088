#include "AppsTestSupport.h"

#include "PngBuilder.h"
#include "ZipBuilder.h"

#include <cstdlib>

namespace appstest {

const QString kPhone = "a1b2c3d4e5f60718293a4b5c6d7e8f9012345678";

namespace {

QByteArray plistBytes(plist_t dict, bool binary)
{
    char* bytes = nullptr;
    uint32_t length = 0;
    if (binary)
        plist_to_bin(dict, &bytes, &length);
    else
        plist_to_xml(dict, &bytes, &length);
    QByteArray out(bytes, int(length));
    free(bytes);
    plist_free(dict);
    return out;
}

void setString(plist_t dict, const char* key, const QString& value)
{
    plist_dict_set_item(dict, key, plist_new_string(value.toUtf8().constData()));
}

} // namespace

bool Package::write(const QString& path) const
{
    plist_t info = plist_new_dict();
    setString(info, "CFBundleIdentifier", bundleId);
    setString(info, "CFBundleName", bundleName);
    setString(info, "CFBundleDisplayName", displayName);
    setString(info, "CFBundleExecutable", bundleName);
    setString(info, "CFBundleVersion", version);
    setString(info, "MinimumOSVersion", "12.0");
    plist_t platforms = plist_new_array();
    plist_array_append_item(platforms, plist_new_string("iPhoneOS"));
    plist_dict_set_item(info, "CFBundleSupportedPlatforms", platforms);
    if (!icon.isEmpty()) {
        plist_t files = plist_new_array();
        plist_array_append_item(files, plist_new_string("AppIcon60x60"));
        plist_t primary = plist_new_dict();
        plist_dict_set_item(primary, "CFBundleIconFiles", files);
        plist_t icons = plist_new_dict();
        plist_dict_set_item(icons, "CFBundlePrimaryIcon", primary);
        plist_dict_set_item(info, "CFBundleIcons", icons);
    }

    const QString app = "Payload/" + bundleName + ".app/";
    kavreltest::ZipBuilder zip;
    zip.addDir("Payload/").addDir(app);
    zip.add(app + "Info.plist", plistBytes(info, binaryInfo));
    zip.add(app + bundleName, QByteArray(4096, '\x7f'));
    zip.add(app + "Assets/readme.txt", "bundled resource\n");
    if (!icon.isEmpty())
        zip.add(app + "AppIcon60x60@2x.png", icon);
    if (!appleId.isEmpty()) {
        plist_t metadata = plist_new_dict();
        setString(metadata, "appleId", appleId);
        zip.add("iTunesMetadata.plist", plistBytes(metadata, false));
    }
    return zip.write(path, true);
}

QByteArray iconPng(int seed)
{
    kavreltest::PngRecipe recipe;
    recipe.width = 4;
    recipe.height = 4;
    recipe.colorType = 2;
    recipe.crushed = false;
    for (uint32_t i = 0; i < recipe.width * recipe.height * 3; ++i)
        recipe.pixels.push_back(uint8_t(seed * 31 + i * 7));
    kavreltest::Bytes bytes = kavreltest::buildPng(recipe);
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), int(bytes.size()));
}

Session::Session(const QString& udid)
{
    if (idevice_new(&mDevice, udid.toLatin1().constData()) != IDEVICE_E_SUCCESS)
        return;
    lockdownd_client_new_with_handshake(mDevice, &mLockdown, "devsimapps-test");
}

Session::~Session()
{
    if (mLockdown)
        lockdownd_client_free(mLockdown);
    if (mDevice)
        idevice_free(mDevice);
}

lockdownd_service_descriptor_t Session::start(const char* service)
{
    lockdownd_service_descriptor_t descriptor = nullptr;
    if (!mLockdown ||
        lockdownd_start_service(mLockdown, service, &descriptor) != LOCKDOWN_E_SUCCESS)
        return nullptr;
    return descriptor;
}

afc_client_t Session::afc()
{
    lockdownd_service_descriptor_t descriptor = start("com.apple.afc");
    if (!descriptor)
        return nullptr;
    afc_client_t client = nullptr;
    afc_client_new(mDevice, descriptor, &client);
    lockdownd_service_descriptor_free(descriptor);
    return client;
}

QStringList readDirectory(afc_client_t afc, const QString& path)
{
    char** list = nullptr;
    QStringList out;
    if (afc_read_directory(afc, path.toUtf8().constData(), &list) != AFC_E_SUCCESS)
        return out;
    for (int i = 0; list && list[i]; ++i)
        out << QString::fromUtf8(list[i]);
    afc_dictionary_free(list);
    out.removeAll(".");
    out.removeAll("..");
    out.sort();
    return out;
}

QByteArray readAfcFile(afc_client_t afc, const QString& path)
{
    uint64_t handle = 0;
    if (afc_file_open(afc, path.toUtf8().constData(), AFC_FOPEN_RDONLY, &handle) != AFC_E_SUCCESS)
        return {};
    QByteArray out;
    char buffer[8192];
    uint32_t got = 0;
    while (afc_file_read(afc, handle, buffer, sizeof buffer, &got) == AFC_E_SUCCESS && got > 0)
        out.append(buffer, int(got));
    afc_file_close(afc, handle);
    return out;
}

bool writeAfcFile(afc_client_t afc, const QString& path, const QByteArray& bytes)
{
    uint64_t handle = 0;
    if (afc_file_open(afc, path.toUtf8().constData(), AFC_FOPEN_WRONLY, &handle) != AFC_E_SUCCESS)
        return false;
    uint32_t written = 0;
    bool ok = afc_file_write(afc, handle, bytes.constData(), uint32_t(bytes.size()), &written) ==
                  AFC_E_SUCCESS &&
              written == uint32_t(bytes.size());
    return afc_file_close(afc, handle) == AFC_E_SUCCESS && ok;
}

QString stringOf(plist_t dict, const char* key)
{
    plist_t node = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (!node || plist_get_node_type(node) != PLIST_STRING)
        return {};
    char* text = nullptr;
    plist_get_string_val(node, &text);
    QString out = QString::fromUtf8(text);
    free(text);
    return out;
}

quint64 uintOf(plist_t dict, const char* key, quint64 fallback)
{
    plist_t node = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (!node || plist_get_node_type(node) != PLIST_UINT)
        return fallback;
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return value;
}

QStringList keysOf(plist_t dict)
{
    QStringList keys;
    if (!dict || plist_get_node_type(dict) != PLIST_DICT)
        return keys;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(dict, &it);
    while (it) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, it, &key, &value);
        if (!key)
            break;
        keys << QString::fromUtf8(key);
        free(key);
    }
    free(it);
    keys.sort();
    return keys;
}

} // namespace appstest
