#include "AppPackage.h"

#include "Crypto.h"
#include "Device.h"
#include "Log.h"

#include <zip.h>

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace devsim {

namespace {

constexpr const char* kPayload = "Payload/";

bool isDir(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isFile(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool endsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::vector<std::string> listDir(const std::string& path)
{
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(path.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        ::closedir(dir);
    }
    return names;
}

// A relative archive entry name that stays inside the folder it is unpacked into.
bool safeRelative(const std::string& name)
{
    if (name.empty() || name[0] == '/')
        return false;
    size_t pos = 0;
    while (pos <= name.size()) {
        size_t slash = name.find('/', pos);
        if (slash == std::string::npos)
            slash = name.size();
        if (name.compare(pos, slash - pos, "..") == 0 && slash - pos == 2)
            return false;
        pos = slash + 1;
    }
    return true;
}

// "Payload/<Name>.app/" of the first visible bundle in the archive; empty when none.
std::string bundlePrefix(zip_t* archive)
{
    zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const char* raw = zip_get_name(archive, static_cast<zip_uint64_t>(i), 0);
        if (!raw)
            continue;
        std::string name = raw;
        if (name.compare(0, 8, kPayload) != 0 || name.size() <= 8 || name[8] == '.')
            continue;
        size_t slash = name.find('/', 8);
        if (slash == std::string::npos)
            continue;
        std::string dir = name.substr(8, slash - 8);
        if (endsWith(dir, ".app") && dir.size() > 4)
            return name.substr(0, slash + 1);
    }
    return {};
}

bool readEntry(zip_t* archive, zip_uint64_t index, std::string* bytes, uint64_t limit)
{
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(archive, index, 0, &st) != 0 || st.size > limit)
        return false;
    zip_file_t* file = zip_fopen_index(archive, index, 0);
    if (!file)
        return false;
    bytes->assign(st.size, '\0');
    zip_int64_t n = st.size ? zip_fread(file, &(*bytes)[0], st.size) : 0;
    zip_fclose(file);
    return n == static_cast<zip_int64_t>(st.size);
}

bool extractEntry(zip_t* archive, zip_uint64_t index, const std::string& target)
{
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    zip_file_get_external_attributes(archive, index, 0, &system, &attributes);
    const bool symlink = system == ZIP_OPSYS_UNIX && ((attributes >> 16) & S_IFMT) == S_IFLNK;
    if (symlink) {
        std::string linkTarget;
        if (!readEntry(archive, index, &linkTarget, 4096))
            return false;
        // A link may point within the bundle only.
        if (!safeRelative(linkTarget))
            return true;
        makePath(target.substr(0, target.find_last_of('/')));
        return ::symlink(linkTarget.c_str(), target.c_str()) == 0;
    }
    zip_file_t* file = zip_fopen_index(archive, index, 0);
    if (!file)
        return false;
    makePath(target.substr(0, target.find_last_of('/')));
    FILE* out = std::fopen(target.c_str(), "wb");
    bool ok = out != nullptr;
    std::vector<char> buffer(1 << 16);
    while (ok) {
        zip_int64_t n = zip_fread(file, buffer.data(), buffer.size());
        if (n < 0)
            ok = false;
        if (n <= 0)
            break;
        ok = std::fwrite(buffer.data(), 1, static_cast<size_t>(n), out) == static_cast<size_t>(n);
    }
    if (out)
        ok = std::fclose(out) == 0 && ok;
    zip_fclose(file);
    return ok;
}

bool unpackZip(const std::string& packagePath, const std::string& workDir, UnpackedPackage* out,
               std::string* errorName, std::string* description)
{
    int code = 0;
    zip_t* archive = zip_open(packagePath.c_str(), ZIP_RDONLY, &code);
    if (!archive) {
        *errorName = "PackageExtractionFailed";
        *description = "Failed to open the package as a zip archive (libzip error " +
                       std::to_string(code) + ")";
        return false;
    }
    const std::string prefix = bundlePrefix(archive);
    if (prefix.empty()) {
        zip_discard(archive);
        *errorName = "PackageInspectionFailed";
        *description = "Failed to find an app bundle below Payload in the package";
        return false;
    }
    out->bundleName = prefix.substr(8, prefix.size() - 9);
    out->bundleDir = workDir + "/" + out->bundleName;
    makePath(out->bundleDir);
    bool ok = true;
    zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; ok && i < count; ++i) {
        const char* raw = zip_get_name(archive, static_cast<zip_uint64_t>(i), 0);
        if (!raw)
            continue;
        std::string name = raw;
        if (name == "iTunesMetadata.plist") {
            readEntry(archive, static_cast<zip_uint64_t>(i), &out->metadata, 16u << 20);
            continue;
        }
        if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size())
            continue;
        std::string relative = name.substr(prefix.size());
        if (!safeRelative(relative))
            continue;
        std::string target = out->bundleDir + "/" + relative;
        if (name.back() == '/')
            ok = makePath(target.substr(0, target.size() - 1));
        else
            ok = extractEntry(archive, static_cast<zip_uint64_t>(i), target);
    }
    zip_discard(archive);
    if (!ok) {
        *errorName = "PackageExtractionFailed";
        *description = "Failed to extract the package";
    }
    return ok;
}

bool copyTree(const std::string& from, const std::string& to)
{
    struct stat st;
    if (::lstat(from.c_str(), &st) != 0)
        return false;
    if (S_ISDIR(st.st_mode)) {
        if (!makePath(to))
            return false;
        for (const std::string& name : listDir(from))
            if (!copyTree(from + "/" + name, to + "/" + name))
                return false;
        return true;
    }
    if (S_ISLNK(st.st_mode)) {
        char target[4096];
        ssize_t n = ::readlink(from.c_str(), target, sizeof target - 1);
        if (n < 0)
            return false;
        target[n] = 0;
        return !safeRelative(target) || ::symlink(target, to.c_str()) == 0;
    }
    std::string bytes;
    return readWholeFile(from, &bytes) && writeWholeFile(to, bytes);
}

// An uploaded folder: the .app itself, or a folder holding Payload/<Name>.app or <Name>.app.
bool unpackFolder(const std::string& packagePath, const std::string& workDir, UnpackedPackage* out,
                  std::string* errorName, std::string* description)
{
    std::string bundle;
    if (endsWith(packagePath, ".app") && isFile(packagePath + "/Info.plist")) {
        bundle = packagePath;
    } else {
        for (const std::string& base : {packagePath + "/Payload", packagePath}) {
            for (const std::string& name : listDir(base))
                if (endsWith(name, ".app") && name[0] != '.' && isDir(base + "/" + name)) {
                    bundle = base + "/" + name;
                    break;
                }
            if (!bundle.empty())
                break;
        }
    }
    if (bundle.empty()) {
        *errorName = "PackageInspectionFailed";
        *description = "Failed to find an app bundle in the uploaded folder";
        return false;
    }
    out->bundleName = bundle.substr(bundle.find_last_of('/') + 1);
    out->bundleDir = workDir + "/" + out->bundleName;
    readWholeFile(packagePath + "/iTunesMetadata.plist", &out->metadata);
    if (!copyTree(bundle, out->bundleDir)) {
        *errorName = "PackageExtractionFailed";
        *description = "Failed to copy the uploaded app bundle";
        return false;
    }
    return true;
}

void collectIconNames(plist_t list, std::vector<std::string>* names)
{
    if (!list)
        return;
    if (plist_get_node_type(list) == PLIST_STRING) {
        names->push_back(nodeString(list));
        return;
    }
    if (plist_get_node_type(list) != PLIST_ARRAY)
        return;
    for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
        names->push_back(nodeString(plist_array_get_item(list, i)));
}

// Adds a host file or folder tree to the archive under name.
bool addTree(zip_t* archive, const std::string& host, const std::string& name)
{
    struct stat st;
    if (::lstat(host.c_str(), &st) != 0)
        return false;
    if (S_ISDIR(st.st_mode)) {
        if (zip_dir_add(archive, name.c_str(), ZIP_FL_ENC_UTF_8) < 0)
            return false;
        for (const std::string& child : listDir(host))
            if (!addTree(archive, host + "/" + child, name + "/" + child))
                return false;
        return true;
    }
    if (!S_ISREG(st.st_mode))
        return true; // links and special files stay out of archives
    zip_source_t* source = zip_source_file(archive, host.c_str(), 0, -1);
    if (!source)
        return false;
    if (zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
        zip_source_free(source);
        return false;
    }
    return true;
}

} // namespace

bool hostPathIn(const std::string& root, const std::string& devicePath, std::string* hostPath)
{
    std::string relative = devicePath;
    while (!relative.empty() && relative[0] == '/')
        relative.erase(0, 1);
    while (!relative.empty() && relative.back() == '/')
        relative.pop_back();
    if (relative.empty() || !safeRelative(relative))
        return false;
    *hostPath = root + "/" + relative;
    return true;
}

bool unpackPackage(const std::string& packagePath, const std::string& workDir, UnpackedPackage* out,
                   std::string* errorName, std::string* description)
{
    struct stat st;
    if (::stat(packagePath.c_str(), &st) != 0) {
        *errorName = "PackageExtractionFailed";
        *description = "The package does not exist";
        return false;
    }
    bool ok = S_ISDIR(st.st_mode) ? unpackFolder(packagePath, workDir, out, errorName, description)
                                  : unpackZip(packagePath, workDir, out, errorName, description);
    if (!ok)
        return false;
    std::string infoBytes;
    if (!readWholeFile(out->bundleDir + "/Info.plist", &infoBytes)) {
        *errorName = "PackageInspectionFailed";
        *description = "The app bundle " + out->bundleName + " has no Info.plist";
        return false;
    }
    out->info = plistFromBytes(infoBytes);
    if (!out->info || plist_get_node_type(out->info.get()) != PLIST_DICT) {
        *errorName = "PackageInspectionFailed";
        *description = "The Info.plist of " + out->bundleName + " is not a property list";
        return false;
    }
    if (dictString(out->info.get(), "CFBundleIdentifier").empty()) {
        *errorName = "MissingBundleIdentifier";
        *description = "The Info.plist of " + out->bundleName + " has no CFBundleIdentifier";
        return false;
    }
    return true;
}

std::string findIconFile(const std::string& bundleDir, plist_t info)
{
    std::vector<std::string> names;
    plist_t icons = dictItem(info, "CFBundleIcons", PLIST_DICT);
    collectIconNames(dictItem(dictItem(icons, "CFBundlePrimaryIcon", PLIST_DICT),
                              "CFBundleIconFiles", PLIST_ARRAY),
                     &names);
    collectIconNames(dictItem(info, "CFBundleIconFiles", PLIST_ARRAY), &names);
    collectIconNames(dictItem(info, "CFBundleIconFile", PLIST_STRING), &names);
    for (const char* usual : {"Icon", "icon", "Icon@2x", "AppIcon60x60"})
        names.push_back(usual);

    // The biggest of the named candidates, as the device shows its sharpest icon.
    std::string best;
    off_t bestSize = -1;
    for (const std::string& name : names) {
        if (name.empty() || !safeRelative(name))
            continue;
        std::string base = endsWith(name, ".png") ? name.substr(0, name.size() - 4) : name;
        for (const char* suffix : {".png", "@2x.png", "@3x.png", "@2x~iphone.png", "~ipad.png"}) {
            struct stat st;
            std::string candidate = base + suffix;
            if (::stat((bundleDir + "/" + candidate).c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
                st.st_size > bestSize) {
                best = candidate;
                bestSize = st.st_size;
            }
        }
        if (!endsWith(name, ".png") && isFile(bundleDir + "/" + name) && best.empty())
            best = name;
    }
    return best;
}

bool writeAppArchive(const App& app, ArchiveContent content, const std::string& zipPath,
                     std::string* error)
{
    makePath(zipPath.substr(0, zipPath.find_last_of('/')));
    const std::string temporary = zipPath + ".partial-" + randomHex(4);
    int code = 0;
    zip_t* archive = zip_open(temporary.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
    if (!archive) {
        *error = "cannot create the archive (libzip error " + std::to_string(code) + ")";
        return false;
    }
    bool ok = true;
    if (content != ArchiveContent::DocumentsOnly) {
        ok = zip_dir_add(archive, "Payload", ZIP_FL_ENC_UTF_8) >= 0 &&
             addTree(archive, app.bundlePath(), "Payload/" + app.bundleName);
        const std::string metadata = app.containerPath + "/iTunesMetadata.plist";
        if (ok && isFile(metadata))
            ok = addTree(archive, metadata, "iTunesMetadata.plist");
    }
    if (ok && content != ArchiveContent::ApplicationOnly) {
        ok = zip_dir_add(archive, "Container", ZIP_FL_ENC_UTF_8) >= 0;
        for (const std::string& name : listDir(app.containerPath)) {
            if (!ok)
                break;
            if (name == app.bundleName || name == "iTunesMetadata.plist")
                continue;
            ok = addTree(archive, app.containerPath + "/" + name, "Container/" + name);
        }
    }
    if (!ok) {
        *error = std::string("cannot add the app to the archive: ") + zip_strerror(archive);
        zip_discard(archive);
        ::unlink(temporary.c_str());
        return false;
    }
    if (zip_close(archive) != 0) {
        *error = std::string("cannot write the archive: ") + zip_strerror(archive);
        zip_discard(archive);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), zipPath.c_str()) != 0) {
        ::unlink(temporary.c_str());
        *error = "cannot move the archive into place";
        return false;
    }
    return true;
}

Plist archivedAppInfo(const std::string& zipPath)
{
    int code = 0;
    zip_t* archive = zip_open(zipPath.c_str(), ZIP_RDONLY, &code);
    if (!archive)
        return nullptr;
    Plist info;
    const std::string prefix = bundlePrefix(archive);
    if (!prefix.empty()) {
        zip_int64_t index = zip_name_locate(archive, (prefix + "Info.plist").c_str(), 0);
        std::string bytes;
        if (index >= 0 && readEntry(archive, static_cast<zip_uint64_t>(index), &bytes, 16u << 20))
            info = plistFromBytes(bytes);
    }
    zip_discard(archive);
    if (info && plist_get_node_type(info.get()) != PLIST_DICT)
        info.reset();
    return info;
}

bool unpackArchivedContainer(const std::string& zipPath, const std::string& containerDir)
{
    int code = 0;
    zip_t* archive = zip_open(zipPath.c_str(), ZIP_RDONLY, &code);
    if (!archive)
        return false;
    const std::string prefix = "Container/";
    bool ok = true;
    zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; ok && i < count; ++i) {
        const char* raw = zip_get_name(archive, static_cast<zip_uint64_t>(i), 0);
        std::string name = raw ? raw : "";
        if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size())
            continue;
        const std::string relative = name.substr(prefix.size());
        if (!safeRelative(relative))
            continue;
        const std::string target = containerDir + "/" + relative;
        if (name.back() == '/')
            ok = makePath(target.substr(0, target.size() - 1));
        else
            ok = extractEntry(archive, static_cast<zip_uint64_t>(i), target);
    }
    zip_discard(archive);
    return ok;
}

uint64_t treeSize(const std::string& path)
{
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
        return 0;
    if (S_ISREG(st.st_mode))
        return static_cast<uint64_t>(st.st_size);
    if (!S_ISDIR(st.st_mode))
        return 0;
    uint64_t total = 0;
    for (const std::string& name : listDir(path))
        total += treeSize(path + "/" + name);
    return total;
}

} // namespace devsim
