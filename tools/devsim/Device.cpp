#include "Device.h"

#include "FixedKeys.h"
#include "Json.h"
#include "Log.h"
#include "Png.h"
#include "Stream.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace devsim {

namespace {

const char* const kGlobal = "global";

// Keys a device never lets a host change.
const char* const kReadOnlyKeys[] = {
    "UniqueDeviceID", "DevicePublicKey", "ProductType",  "ProductVersion",  "BuildVersion",
    "SerialNumber",   "HardwareModel",   "UniqueChipID", "CPUArchitecture", "DeviceClass"};

// Root and host keys of "this computer", shared by every pair record the simulator makes.
struct HostKeys
{
    std::string rootKey, rootCert, hostKey, hostCert;
};

const HostKeys& hostKeys()
{
    static std::once_flag once;
    static HostKeys keys;
    std::call_once(once, [] {
        keys.rootKey = kFixedRootKey;
        keys.rootCert = makeCertificatePem(keys.rootKey, keys.rootKey, "kavrel-devsim root");
        keys.hostKey = kFixedHostKey;
        keys.hostCert = makeCertificatePem(keys.hostKey, keys.rootKey, "kavrel-devsim host");
    });
    return keys;
}

bool validUdid(const std::string& udid)
{
    if (udid.empty() || udid.size() > 64)
        return false;
    for (char c : udid) {
        bool ok =
            (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
        if (!ok)
            return false;
    }
    return true;
}

bool fileExists(const std::string& path)
{
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::string parentOf(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

// File names derived from profile text stay inside their folder.
std::string safeName(const std::string& name)
{
    std::string out;
    for (char c : name)
        out += (c == '/' || c == 0) ? '_' : c;
    if (out.empty() || out == "." || out == "..")
        out = "App";
    return out;
}

uint32_t colourOf(const std::string& text)
{
    uint32_t h = crc32Of(text);
    // Keep colours away from black and white.
    return ((0x30 + (h & 0x9F)) << 16) | ((0x30 + ((h >> 8) & 0x9F)) << 8) |
           (0x30 + ((h >> 16) & 0x9F));
}

// Files described by profile entries ("size", "text", "data", "source", "directory",
// "symlink"), created below base unless they exist already.
void populateFiles(const std::string& base, plist_t entries, const std::string& profileDir)
{
    for (uint32_t i = 0; entries && i < plist_array_get_size(entries); ++i) {
        plist_t entry = plist_array_get_item(entries, i);
        std::string path = dictString(entry, "path");
        if (path.empty() || path.find("..") != std::string::npos)
            continue;
        std::string host = base + (path[0] == '/' ? "" : "/") + path;
        if (fileExists(host))
            continue;
        if (dictBool(entry, "directory")) {
            makePath(host);
        } else if (dictItem(entry, "symlink", PLIST_STRING)) {
            makePath(parentOf(host));
            if (::symlink(dictString(entry, "symlink").c_str(), host.c_str()) != 0)
                logError("cannot create symlink %s", host.c_str());
        } else if (dictItem(entry, "text", PLIST_STRING)) {
            writeWholeFile(host, dictString(entry, "text"));
        } else if (dictItem(entry, "data", PLIST_DATA)) {
            writeWholeFile(host, dictData(entry, "data"));
        } else if (dictItem(entry, "source", PLIST_STRING)) {
            std::string bytes;
            std::string source = dictString(entry, "source");
            if (source[0] != '/')
                source = profileDir + "/" + source;
            if (readWholeFile(source, &bytes))
                writeWholeFile(host, bytes);
        } else {
            makeSizedFile(host, dictUInt(entry, "size", 0));
        }
    }
}

} // namespace

bool makePath(const std::string& path)
{
    if (path.empty())
        return false;
    std::string current;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t slash = path.find('/', pos);
        if (slash == std::string::npos)
            slash = path.size();
        current = path.substr(0, slash);
        if (!current.empty() && ::mkdir(current.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
        pos = slash + 1;
    }
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool removeTree(const std::string& path)
{
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
        return errno == ENOENT;
    if (S_ISDIR(st.st_mode)) {
        DIR* dir = ::opendir(path.c_str());
        if (dir) {
            while (dirent* entry = ::readdir(dir)) {
                std::string name = entry->d_name;
                if (name == "." || name == "..")
                    continue;
                removeTree(path + "/" + name);
            }
            ::closedir(dir);
        }
        return ::rmdir(path.c_str()) == 0;
    }
    return ::unlink(path.c_str()) == 0;
}

bool writeWholeFile(const std::string& path, const std::string& bytes)
{
    makePath(parentOf(path));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

bool readWholeFile(const std::string& path, std::string* bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    *bytes = ss.str();
    return true;
}

bool makeSizedFile(const std::string& path, uint64_t size)
{
    makePath(parentOf(path));
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
    ::close(fd);
    return ok;
}

// ---- App ----

Plist App::browseEntry() const
{
    Plist entry = plistCopy(info.get());
    if (!entry || plist_get_node_type(entry.get()) != PLIST_DICT)
        entry = plistDict();
    for (const std::string& key : dictKeys(attributes.get()))
        plist_dict_set_item(entry.get(), key.c_str(),
                            plist_copy(plist_dict_get_item(attributes.get(), key.c_str())));
    dictSetString(entry.get(), "CFBundleIdentifier", bundleId);
    dictSetString(entry.get(), "ApplicationType", applicationType);
    dictSetString(entry.get(), "Path", deviceContainerPath + "/" + bundleName);
    dictSetString(entry.get(), "Container", deviceContainerPath);
    return entry;
}

std::string App::iconBytes() const
{
    std::string bytes;
    if (!iconFile.empty())
        readWholeFile(bundlePath() + "/" + iconFile, &bytes);
    return bytes;
}

// ---- Device: construction ----

std::shared_ptr<Device> Device::create(plist_t profile, const std::string& profileDir,
                                       const std::string& stateRoot, std::string* error)
{
    std::shared_ptr<Device> device(new Device());
    if (!device->build(profile, profileDir, stateRoot, error))
        return nullptr;
    return device;
}

Device::~Device()
{
    if (mTls)
        SSL_CTX_free(mTls);
}

bool Device::build(plist_t profile, const std::string& profileDir, const std::string& stateRoot,
                   std::string* error)
{
    if (!profile || plist_get_node_type(profile) != PLIST_DICT) {
        *error = "a profile is a dictionary";
        return false;
    }
    mUdid = dictString(profile, "udid");
    if (!validUdid(mUdid)) {
        *error = "the profile needs a \"udid\" of letters, digits and '-' (40 characters "
                 "for a classic device)";
        return false;
    }
    mProductId = static_cast<uint32_t>(dictUInt(profile, "productId", 0x12a8));
    mJailbroken = dictBool(profile, "jailbroken", false);
    mUniqueKey = dictBool(profile, "uniqueKey", false);
    loadFaults(dictItem(profile, "faults", PLIST_DICT));
    for (const char* key : kReadOnlyKeys)
        mReadOnlyKeys.insert(key);
    if (plist_t keys = dictItem(profile, "readOnlyKeys", PLIST_ARRAY)) {
        for (uint32_t i = 0; i < plist_array_get_size(keys); ++i)
            mReadOnlyKeys.insert(nodeString(plist_array_get_item(keys, i)));
    }

    mStatePath = stateRoot + "/" + mUdid;
    if (!makePath(mStatePath) || !makePath(mediaPath()) || !makePath(applicationsPath())) {
        *error = "cannot create the device folder " + mStatePath;
        return false;
    }
    const std::string valuesPath = mStatePath + "/lockdown.plist";
    std::string saved;
    bool restored = readWholeFile(valuesPath, &saved);
    if (restored) {
        mValues = plistFromBytes(saved);
        restored = mValues && plist_get_node_type(mValues.get()) == PLIST_DICT;
    }
    if (!restored) {
        mValues = plistDict();
        if (plist_t lockdown = dictItem(profile, "lockdown", PLIST_DICT))
            mValues = plistCopy(lockdown);
    }
    if (!dictItem(mValues.get(), kGlobal, PLIST_DICT))
        dictSet(mValues.get(), kGlobal, plistDict());

    if (!loadIdentity(error) || !makePairRecord(error))
        return false;

    plist_t global = plist_dict_get_item(mValues.get(), kGlobal);
    dictSetString(global, "UniqueDeviceID", mUdid);
    dictSetData(global, "DevicePublicKey", mPublicKeyPem);
    if (!dictItem(global, "ProductVersion", PLIST_STRING))
        dictSetString(global, "ProductVersion", "14.4");
    if (!dictItem(global, "DeviceName", PLIST_STRING))
        dictSetString(global, "DeviceName", "Simulated device");

    populateMedia(profile, profileDir);
    if (restored)
        scanApps();
    else {
        populateApps(dictItem(profile, "apps", PLIST_ARRAY), profileDir);
        generateApps(dictItem(profile, "generate", PLIST_DICT));
    }
    saveValues();
    return true;
}

void Device::loadFaults(plist_t faults)
{
    if (!faults)
        return;
    if (plist_t failing = dictItem(faults, "failServices", PLIST_DICT)) {
        for (const std::string& name : dictKeys(failing))
            mFaults.failingServices[name] = dictString(failing, name.c_str(), "ServiceProhibited");
    } else if (plist_t list = dictItem(faults, "failServices", PLIST_ARRAY)) {
        for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
            mFaults.failingServices[nodeString(plist_array_get_item(list, i))] =
                "ServiceProhibited";
    }
    if (plist_t malformed = dictItem(faults, "malformed", PLIST_DICT)) {
        for (const std::string& name : dictKeys(malformed))
            mFaults.malformedServices[name] = dictString(malformed, name.c_str(), "bytes");
    }
    mFaults.installError = dictString(faults, "installError");
    mFaults.installErrorDescription = dictString(faults, "installErrorDescription");
    mFaults.uninstallError = dictString(faults, "uninstallError");
    mFaults.uninstallErrorDescription = dictString(faults, "uninstallErrorDescription");
    mFaults.statusDelayMs = static_cast<int>(dictUInt(faults, "statusDelayMs", 0));
    mFaults.iconDelayMs = static_cast<int>(dictUInt(faults, "iconDelayMs", 0));
    mFaults.silent = dictBool(faults, "silent", false);
    mFaults.statusWithoutPercent = dictBool(faults, "statusWithoutPercent", false);
    if (dictItem(faults, "afcWriteLimit", PLIST_UINT))
        mFaults.afcWriteLimit = static_cast<int64_t>(dictUInt(faults, "afcWriteLimit"));
    mFaults.dropAfterBytes = dictUInt(faults, "dropAfterBytes", 0);
    mFaults.dropService = dictString(faults, "dropService");
    mFaults.detachAfterAfcBytes = dictUInt(faults, "detachAfterAfcBytes", 0);
}

bool Device::loadIdentity(std::string* error)
{
    const std::string keyPath = mStatePath + "/device-key.pem";
    const std::string certPath = mStatePath + "/device-cert.pem";
    if (!readWholeFile(keyPath, &mIdentity.keyPem) || mIdentity.keyPem.empty()) {
        mIdentity.keyPem = mUniqueKey ? generateRsaKeyPem() : std::string(kFixedDeviceKey);
        writeWholeFile(keyPath, mIdentity.keyPem);
        ::chmod(keyPath.c_str(), 0600);
    }
    if (!readWholeFile(certPath, &mIdentity.certPem) || mIdentity.certPem.empty()) {
        mIdentity.certPem = makeCertificatePem(mIdentity.keyPem, hostKeys().rootKey, mUdid);
        writeWholeFile(certPath, mIdentity.certPem);
    }
    mPublicKeyPem = publicKeyPemOf(mIdentity.keyPem);
    mTls = makeServerContext(mIdentity);
    if (mPublicKeyPem.empty() || !mTls) {
        *error = "cannot set up the device's keys";
        return false;
    }
    return true;
}

bool Device::makePairRecord(std::string* error)
{
    const std::string recordPath = mStatePath + "/pair-record.plist";
    std::string bytes;
    Plist record;
    if (readWholeFile(recordPath, &bytes))
        record = plistFromBytes(bytes);
    if (!record || dictString(record.get(), "HostID").empty()) {
        const HostKeys& keys = hostKeys();
        if (keys.rootCert.empty() || keys.hostCert.empty()) {
            *error = "cannot generate pairing certificates";
            return false;
        }
        record = plistDict();
        dictSetData(record.get(), "DeviceCertificate", mIdentity.certPem);
        dictSetData(record.get(), "HostCertificate", keys.hostCert);
        dictSetData(record.get(), "HostPrivateKey", keys.hostKey);
        dictSetData(record.get(), "RootCertificate", keys.rootCert);
        dictSetData(record.get(), "RootPrivateKey", keys.rootKey);
        dictSetString(record.get(), "HostID", randomUuid());
        dictSetString(record.get(), "SystemBUID", randomUuid());
        dictSetData(record.get(), "EscrowBag", randomHex(32));
        plist_t global = plist_dict_get_item(mValues.get(), kGlobal);
        dictSetString(record.get(), "WiFiMACAddress",
                      dictString(global, "WiFiAddress", "a4:5e:60:00:00:01"));
        writeWholeFile(recordPath, plistToXml(record.get()));
    }
    mEscrowBag = dictData(record.get(), "EscrowBag");
    mInitialPairRecord = plistToBinary(record.get());
    mTrustedHosts.insert(dictString(record.get(), "HostID"));
    std::string hosts;
    if (readWholeFile(mStatePath + "/trusted-hosts.txt", &hosts)) {
        std::istringstream in(hosts);
        std::string line;
        while (std::getline(in, line))
            if (!line.empty())
                mTrustedHosts.insert(line);
    }
    return true;
}

// ---- media ----

void Device::populateMedia(plist_t profile, const std::string& profileDir)
{
    const std::string media = mediaPath();
    for (const char* dir : {"/DCIM", "/iTunes_Control/iTunes", "/Books", "/Downloads"})
        makePath(media + dir);

    // The media library's totals, as a synced device keeps them.
    const std::string prefs = media + "/iTunes_Control/iTunes/iTunesPrefs.plist";
    plist_t totals = dictItem(profile, "diskTotals", PLIST_DICT);
    if (totals && !fileExists(prefs)) {
        Plist doc = plistDict();
        dictSet(doc.get(), "EstimatedDeviceTotals", plistCopy(totals));
        dictSetString(doc.get(), "iPodPrefsVersion", "1");
        writeWholeFile(prefs, plistToBinary(doc.get()));
    }

    populateFiles(media, dictItem(profile, "media", PLIST_ARRAY), profileDir);
}

// ---- apps ----

std::string Device::devicePathOf(const std::string& hostPath) const
{
    const std::string root = rootPath();
    if (hostPath.compare(0, root.size(), root) == 0)
        return hostPath.substr(root.size());
    return hostPath;
}

std::string Device::newContainer() const
{
    std::string path = applicationsPath() + "/" + randomUuid();
    for (const char* sub : {"/Documents", "/Library/Preferences", "/Library/Caches", "/tmp"})
        makePath(path + sub);
    return path;
}

std::shared_ptr<App> Device::appFromProfile(plist_t entry, const std::string& profileDir) const
{
    auto app = std::make_shared<App>();
    app->bundleId = dictString(entry, "bundleId");
    if (app->bundleId.empty())
        return nullptr;
    std::string name = dictString(entry, "name");
    if (name.empty()) {
        size_t dot = app->bundleId.find_last_of('.');
        name = dot == std::string::npos ? app->bundleId : app->bundleId.substr(dot + 1);
    }
    const std::string executable = safeName(dictString(entry, "executable", name));
    app->applicationType = dictString(entry, "type", "User");
    app->bundleName = executable + ".app";
    app->containerPath = newContainer();
    app->deviceContainerPath = devicePathOf(app->containerPath);

    const std::string version = dictString(entry, "version", "1.0");
    Plist info = plistDict();
    dictSetString(info.get(), "CFBundleIdentifier", app->bundleId);
    dictSetString(info.get(), "CFBundleName", name);
    // Many apps have no display name of their own: "displayName": "" leaves it out.
    const std::string displayName = dictString(entry, "displayName", name);
    if (!displayName.empty())
        dictSetString(info.get(), "CFBundleDisplayName", displayName);
    dictSetString(info.get(), "CFBundleExecutable", executable);
    dictSetString(info.get(), "CFBundleVersion", version);
    dictSetString(info.get(), "CFBundleShortVersionString",
                  dictString(entry, "shortVersion", version));
    dictSetString(info.get(), "CFBundlePackageType", "APPL");
    dictSetString(info.get(), "MinimumOSVersion", dictString(entry, "minimumOSVersion", "9.0"));
    Plist families = plistArray();
    if (plist_t platforms = dictItem(entry, "platforms", PLIST_ARRAY)) {
        families = plistCopy(platforms);
    } else {
        plist_array_append_item(families.get(), plist_new_uint(1));
    }
    dictSet(info.get(), "UIDeviceFamily", std::move(families));

    // The icon: a file next to the profile, inline bytes, none, or a generated one.
    std::string icon;
    plist_t iconItem = plist_dict_get_item(entry, "icon");
    if (iconItem && plist_get_node_type(iconItem) == PLIST_STRING) {
        std::string source = nodeString(iconItem);
        if (!source.empty() && source[0] != '/')
            source = profileDir + "/" + source;
        if (!readWholeFile(source, &icon))
            logError("icon %s of %s not readable", source.c_str(), app->bundleId.c_str());
    } else if (iconItem && plist_get_node_type(iconItem) == PLIST_DATA) {
        icon = dictData(entry, "icon");
    } else if (!iconItem) {
        icon = makeIconPng(57, 57, colourOf(app->bundleId));
    }
    if (!icon.empty()) {
        app->iconFile = "Icon.png";
        Plist files = plistArray();
        plist_array_append_item(files.get(), plist_new_string("Icon.png"));
        dictSet(info.get(), "CFBundleIconFiles", std::move(files));
    }
    if (plist_t extra = dictItem(entry, "info", PLIST_DICT)) {
        for (const std::string& key : dictKeys(extra))
            plist_dict_set_item(info.get(), key.c_str(),
                                plist_copy(plist_dict_get_item(extra, key.c_str())));
    }

    const std::string bundle = app->bundlePath();
    makePath(bundle);
    const std::string infoBytes = plistToBinary(info.get());
    writeWholeFile(bundle + "/Info.plist", infoBytes);
    if (!icon.empty())
        writeWholeFile(bundle + "/" + app->iconFile, icon);
    // The executable fills the bundle up to the size the profile asks for.
    uint64_t wanted = dictUInt(entry, "bundleSize", 0);
    uint64_t used = infoBytes.size() + icon.size();
    makeSizedFile(bundle + "/" + executable, wanted > used ? wanted - used : 0);
    if (uint64_t docs = dictUInt(entry, "documentsSize", 0))
        makeSizedFile(app->documentsPath() + "/userdata.bin", docs);
    if (plist_t metadata = dictItem(entry, "iTunesMetadata", PLIST_DICT))
        writeWholeFile(app->containerPath + "/iTunesMetadata.plist", plistToBinary(metadata));
    // Further content: "files" below the container, "bundleFiles" below the bundle.
    populateFiles(app->containerPath, dictItem(entry, "files", PLIST_ARRAY), profileDir);
    populateFiles(bundle, dictItem(entry, "bundleFiles", PLIST_ARRAY), profileDir);
    if (!dictBool(entry, "documents", true))
        removeTree(app->documentsPath());
    app->containerUnreadable = dictBool(entry, "unreadableContainer");

    app->info = std::move(info);
    app->attributes = plistDict();
    if (app->applicationType == "User")
        dictSetString(app->attributes.get(), "SignerIdentity",
                      dictString(entry, "signerIdentity", "Apple iPhone OS Application Signing"));
    else if (dictItem(entry, "signerIdentity", PLIST_STRING))
        dictSetString(app->attributes.get(), "SignerIdentity", dictString(entry, "signerIdentity"));
    if (plist_t extra = dictItem(entry, "attributes", PLIST_DICT)) {
        for (const std::string& key : dictKeys(extra))
            plist_dict_set_item(app->attributes.get(), key.c_str(),
                                plist_copy(plist_dict_get_item(extra, key.c_str())));
    }
    return app;
}

void Device::populateApps(plist_t apps, const std::string& profileDir)
{
    for (uint32_t i = 0; apps && i < plist_array_get_size(apps); ++i) {
        auto app = appFromProfile(plist_array_get_item(apps, i), profileDir);
        if (app)
            registerApp(app);
        else
            logError("%s: app %u has no bundleId; skipped", mUdid.c_str(), i);
    }
}

// Many similar user apps from one rule, for profiles that need a few hundred apps:
// <prefix><n> for n = 1..count, each bundle holding `files` files of about `fileSize`
// bytes in nested folders with a link, `documentsFiles` files in Documents and an
// iTunesMetadata.plist naming user<n>@example.com.
void Device::generateApps(plist_t rule)
{
    if (!rule)
        return;
    const std::string prefix = dictString(rule, "prefix", "com.generated.app");
    const uint64_t count = dictUInt(rule, "count", 0);
    const uint64_t files = dictUInt(rule, "files", 0);
    const uint64_t fileSize = dictUInt(rule, "fileSize", 1024);
    const uint64_t documentsFiles = dictUInt(rule, "documentsFiles", 0);
    for (uint64_t n = 1; n <= count; ++n) {
        const std::string number = std::to_string(n);
        Plist entry = plistDict();
        dictSetString(entry.get(), "bundleId", prefix + number);
        dictSetString(entry.get(), "name", "App" + number);
        Plist metadata = plistDict();
        dictSetString(metadata.get(), "appleId", "user" + number + "@example.com");
        dictSetUInt(metadata.get(), "itemId", 1500000000 + n);
        dictSet(entry.get(), "iTunesMetadata", std::move(metadata));
        auto app = appFromProfile(entry.get(), std::string());
        const std::string assets = app->bundlePath() + "/Assets";
        for (uint64_t f = 0; f < files; ++f)
            makeSizedFile(assets + "/d" + std::to_string(f / 30) + "/s" + std::to_string(f % 3) +
                              "/f" + std::to_string(f) + ".bin",
                          fileSize + f % 7);
        if (files > 0 && ::symlink("d0", (assets + "/latest").c_str()) != 0)
            logError("cannot create symlink in %s", assets.c_str());
        for (uint64_t f = 0; f < documentsFiles; ++f)
            makeSizedFile(app->documentsPath() + "/Inbox/doc" + std::to_string(f) + ".dat",
                          fileSize);
        registerApp(app);
    }
}

std::string Device::appRecordPath(const std::string& bundleId) const
{
    return mStatePath + "/apps/" + safeName(bundleId) + ".plist";
}

std::shared_ptr<App> Device::loadAppRecord(const std::string& recordPath) const
{
    std::string bytes;
    if (!readWholeFile(recordPath, &bytes))
        return nullptr;
    Plist record = plistFromBytes(bytes);
    if (!record)
        return nullptr;
    auto app = std::make_shared<App>();
    app->bundleId = dictString(record.get(), "bundleId");
    app->applicationType = dictString(record.get(), "applicationType", "User");
    app->containerPath = dictString(record.get(), "containerPath");
    app->deviceContainerPath = dictString(record.get(), "deviceContainerPath");
    app->bundleName = dictString(record.get(), "bundleName");
    app->iconFile = dictString(record.get(), "iconFile");
    app->containerUnreadable = dictBool(record.get(), "containerUnreadable");
    app->attributes = plistCopy(dictItem(record.get(), "attributes", PLIST_DICT));
    if (!app->attributes)
        app->attributes = plistDict();
    std::string infoBytes;
    if (!readWholeFile(app->bundlePath() + "/Info.plist", &infoBytes))
        return nullptr;
    app->info = plistFromBytes(infoBytes);
    if (app->bundleId.empty() || !app->info)
        return nullptr;
    return app;
}

void Device::scanApps()
{
    const std::string dir = mStatePath + "/apps";
    DIR* d = ::opendir(dir.c_str());
    if (!d)
        return;
    while (dirent* entry = ::readdir(d)) {
        std::string name = entry->d_name;
        if (name.size() < 7 || name.compare(name.size() - 6, 6, ".plist") != 0)
            continue;
        if (auto app = loadAppRecord(dir + "/" + name)) {
            std::lock_guard<std::mutex> lock(mLock);
            mApps[app->bundleId] = app;
        }
    }
    ::closedir(d);
}

std::vector<AppPtr> Device::apps() const
{
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<AppPtr> out;
    for (const auto& entry : mApps)
        out.push_back(entry.second);
    return out;
}

AppPtr Device::findApp(const std::string& bundleId) const
{
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mApps.find(bundleId);
    return it == mApps.end() ? nullptr : it->second;
}

void Device::registerApp(std::shared_ptr<App> app)
{
    if (app->deviceContainerPath.empty())
        app->deviceContainerPath = devicePathOf(app->containerPath);
    if (!app->attributes)
        app->attributes = plistDict();
    Plist record = plistDict();
    dictSetString(record.get(), "bundleId", app->bundleId);
    dictSetString(record.get(), "applicationType", app->applicationType);
    dictSetString(record.get(), "containerPath", app->containerPath);
    dictSetString(record.get(), "deviceContainerPath", app->deviceContainerPath);
    dictSetString(record.get(), "bundleName", app->bundleName);
    dictSetString(record.get(), "iconFile", app->iconFile);
    dictSetBool(record.get(), "containerUnreadable", app->containerUnreadable);
    dictSet(record.get(), "attributes", plistCopy(app->attributes.get()));
    writeWholeFile(appRecordPath(app->bundleId), plistToXml(record.get()));
    std::lock_guard<std::mutex> lock(mLock);
    mApps[app->bundleId] = std::move(app);
}

bool Device::removeApp(const std::string& bundleId)
{
    AppPtr app;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mApps.find(bundleId);
        if (it == mApps.end())
            return false;
        app = it->second;
        mApps.erase(it);
    }
    ::unlink(appRecordPath(bundleId).c_str());
    if (!app->containerPath.empty())
        removeTree(app->containerPath);
    return true;
}

// ---- lockdown values ----

Plist Device::value(const std::string& domain, const std::string& key) const
{
    std::lock_guard<std::mutex> lock(mLock);
    plist_t values = dictItem(mValues.get(), domain.empty() ? kGlobal : domain.c_str(), PLIST_DICT);
    if (!values)
        return nullptr;
    if (key.empty())
        return plistCopy(values);
    return plistCopy(plist_dict_get_item(values, key.c_str()));
}

bool Device::setValue(const std::string& domain, const std::string& key, plist_t value,
                      std::string* error)
{
    if (key.empty() || !value) {
        *error = key.empty() ? "MissingKey" : "MissingValue";
        return false;
    }
    std::lock_guard<std::mutex> lock(mLock);
    if (domain.empty() && mReadOnlyKeys.count(key)) {
        *error = "SetProhibited";
        return false;
    }
    const char* name = domain.empty() ? kGlobal : domain.c_str();
    plist_t values = dictItem(mValues.get(), name, PLIST_DICT);
    if (!values) {
        plist_dict_set_item(mValues.get(), name, plist_new_dict());
        values = plist_dict_get_item(mValues.get(), name);
    }
    plist_dict_set_item(values, key.c_str(), plist_copy(value));
    saveValues();
    return true;
}

bool Device::removeValue(const std::string& domain, const std::string& key, std::string* error)
{
    std::lock_guard<std::mutex> lock(mLock);
    if (domain.empty() && mReadOnlyKeys.count(key)) {
        *error = "RemoveProhibited";
        return false;
    }
    plist_t values = dictItem(mValues.get(), domain.empty() ? kGlobal : domain.c_str(), PLIST_DICT);
    if (!values || key.empty() || !plist_dict_get_item(values, key.c_str())) {
        *error = "MissingValue";
        return false;
    }
    plist_dict_remove_item(values, key.c_str());
    saveValues();
    return true;
}

void Device::saveValues() const
{
    // Called with mLock held or during construction.
    writeWholeFile(mStatePath + "/lockdown.plist", plistToXml(mValues.get()));
}

// ---- pairing ----

bool Device::trustsHost(const std::string& hostId) const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mTrustedHosts.count(hostId) > 0;
}

void Device::trustHost(const std::string& hostId)
{
    std::lock_guard<std::mutex> lock(mLock);
    mTrustedHosts.insert(hostId);
    saveTrustedHosts();
}

void Device::forgetHost(const std::string& hostId)
{
    std::lock_guard<std::mutex> lock(mLock);
    mTrustedHosts.erase(hostId);
    saveTrustedHosts();
}

void Device::saveTrustedHosts() const
{
    std::string text;
    for (const std::string& host : mTrustedHosts)
        text += host + "\n";
    writeWholeFile(mStatePath + "/trusted-hosts.txt", text);
}

// ---- services ----

uint16_t Device::openServicePort(const std::string& service)
{
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(mLock);
    for (auto it = mServicePorts.begin(); it != mServicePorts.end();) {
        if (now - it->second.opened > std::chrono::minutes(1))
            it = mServicePorts.erase(it);
        else
            ++it;
    }
    for (int tries = 0; tries < 16384; ++tries) {
        uint16_t port = mNextPort++;
        if (mNextPort == 0 || mNextPort < 49152)
            mNextPort = 49152;
        if (!mServicePorts.count(port)) {
            mServicePorts[port] = OpenPort{service, now};
            return port;
        }
    }
    return 0;
}

std::string Device::takeServicePort(uint16_t port)
{
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mServicePorts.find(port);
    if (it == mServicePorts.end())
        return {};
    std::string service = it->second.service;
    mServicePorts.erase(it);
    return service;
}

// ---- notifications ----

int Device::addObserver(Observer observer)
{
    std::lock_guard<std::mutex> lock(mLock);
    int token = mNextObserver++;
    mObservers[token] = std::move(observer);
    return token;
}

void Device::removeObserver(int token)
{
    std::lock_guard<std::mutex> lock(mLock);
    mObservers.erase(token);
}

void Device::postNotification(const std::string& name)
{
    std::vector<Observer> observers;
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (const auto& entry : mObservers)
            observers.push_back(entry.second);
    }
    logDebug("%s: notification %s", mUdid.c_str(), name.c_str());
    for (const Observer& observer : observers)
        observer(name);
}

// ---- connections ----

void Device::trackConnection(Stream* stream)
{
    std::lock_guard<std::mutex> lock(mLock);
    mConnections.insert(stream);
    if (mDetached)
        stream->shutdownNow();
}

void Device::untrackConnection(Stream* stream)
{
    std::lock_guard<std::mutex> lock(mLock);
    mConnections.erase(stream);
}

void Device::disconnectAll()
{
    std::lock_guard<std::mutex> lock(mLock);
    mDetached = true;
    for (Stream* stream : mConnections)
        stream->shutdownNow();
}

bool Device::detached() const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mDetached;
}

} // namespace devsim
