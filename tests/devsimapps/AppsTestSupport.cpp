#include "AppsTestSupport.h"

#include "PngBuilder.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

namespace appstest {

namespace {

using kavreltest::plistBytes;

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

} // namespace appstest
