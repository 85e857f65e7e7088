// "com.apple.mobile.installation_proxy": lists, installs, upgrades, uninstalls and
// archives apps. Every command is a property list {"Command": ..., "ClientOptions": {...}}
// and is answered by status messages ({"Status": ..., "PercentComplete": n}) ending with
// {"Status": "Complete"}, or by one {"Error": ..., "ErrorDescription": ...}. Browse answers
// in batches ("BrowsingApplications" with CurrentList/CurrentIndex/CurrentAmount/Total).
// Packages are taken from the media folder (PublicStaging), archives are written to
// ApplicationArchives/<id>.zip there.

#include "AppPackage.h"
#include "Crypto.h"
#include "Device.h"
#include "Log.h"
#include "Service.h"
#include "Stream.h"

#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace devsim {

namespace {

// Apps per BrowsingApplications message.
constexpr uint32_t kBrowseBatch = 8;

const char* const kAppInstalled = "com.apple.mobile.application_installed";
const char* const kAppUninstalled = "com.apple.mobile.application_uninstalled";

struct Progress
{
    const char* status;
    int percent;
};

// The steps an install or upgrade reports, as a device running iOS 14 does.
const Progress kInstallSteps[] = {
    {"CreatingStagingDirectory", 5}, {"ExtractingPackage", 15},
    {"InspectingPackage", 20},       {"TakingInstallLock", 20},
    {"PreflightingApplication", 30}, {"InstallingEmbeddedProfile", 30},
    {"VerifyingApplication", 40},    {"CreatingContainer", 50},
    {"InstallingApplication", 60},   {"PostflightingApplication", 70},
    {"SandboxingApplication", 80},   {"GeneratingApplicationMap", 90}};

class InstallationProxy
{
public:
    explicit InstallationProxy(ServiceContext& context)
        : mDevice(*context.device), mStream(context.stream)
    {
    }

    void run()
    {
        while (true) {
            Plist request;
            PlistReadResult result = receivePlist(mStream, request);
            if (result != PlistReadResult::Ok && result != PlistReadResult::Invalid)
                return;
            if (mDevice.faults().silent)
                continue; // a device gone silent takes requests and never answers
            if (!request || plist_get_node_type(request.get()) != PLIST_DICT) {
                if (!sendError("MissingCommand", "The request is not a dictionary"))
                    return;
                continue;
            }
            if (!handle(request.get()))
                return;
        }
    }

private:
    bool handle(plist_t request)
    {
        const std::string command = dictString(request, "Command");
        plist_t options = dictItem(request, "ClientOptions", PLIST_DICT);
        logDebug("%s: installation_proxy %s", mDevice.udid().c_str(), command.c_str());
        if (command == "Browse")
            return browse(options);
        if (command == "Lookup")
            return lookup(options);
        if (command == "Install" || command == "Upgrade")
            return install(request, options);
        if (command == "Uninstall")
            return uninstall(dictString(request, "ApplicationIdentifier"));
        if (command == "Archive")
            return archive(dictString(request, "ApplicationIdentifier"), options);
        if (command == "RemoveArchive")
            return removeArchive(dictString(request, "ApplicationIdentifier"));
        if (command == "Restore")
            return restore(dictString(request, "ApplicationIdentifier"));
        if (command == "LookupArchives")
            return lookupArchives();
        if (command.empty())
            return sendError("MissingCommand", "The request has no Command");
        return sendError("UnknownCommand", "Unknown command " + command);
    }

    // ---- messages ----

    bool send(plist_t message)
    {
        if (int delay = mDevice.faults().statusDelayMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        return sendPlist(mStream, message);
    }

    bool sendStatus(const char* status, int percent)
    {
        Plist message = plistDict();
        // Some commands of real devices report their steps without a percentage.
        if (!mDevice.faults().statusWithoutPercent)
            dictSetUInt(message.get(), "PercentComplete", static_cast<uint64_t>(percent));
        dictSetString(message.get(), "Status", status);
        return send(message.get());
    }

    bool sendComplete(Plist message = nullptr)
    {
        if (!message)
            message = plistDict();
        dictSetString(message.get(), "Status", "Complete");
        return send(message.get());
    }

    bool sendError(const std::string& error, const std::string& description)
    {
        logDebug("%s: installation_proxy error %s: %s", mDevice.udid().c_str(), error.c_str(),
                 description.c_str());
        Plist message = plistDict();
        dictSetString(message.get(), "Error", error);
        dictSetString(message.get(), "ErrorDescription", description);
        return send(message.get());
    }

    // ---- listing ----

    // Whether an app matches ApplicationType (absent or "Any": every app) and BundleIDs.
    static bool selected(const App& app, plist_t options)
    {
        plist_t typeItem = dictItem(options, "ApplicationType", PLIST_STRING);
        const std::string type = typeItem ? nodeString(typeItem) : "Any";
        if (type != "Any" && type != app.applicationType)
            return false;
        plist_t ids = dictItem(options, "BundleIDs", PLIST_ARRAY);
        if (!ids)
            return true;
        for (uint32_t i = 0; i < plist_array_get_size(ids); ++i)
            if (nodeString(plist_array_get_item(ids, i)) == app.bundleId)
                return true;
        return false;
    }

    // The app as listed: every attribute, or those ReturnAttributes asks for.
    static Plist entryOf(const App& app, plist_t options)
    {
        Plist entry = app.browseEntry();
        if (!dictItem(entry.get(), "StaticDiskUsage", PLIST_UINT))
            dictSetUInt(entry.get(), "StaticDiskUsage", treeSize(app.bundlePath()));
        if (!dictItem(entry.get(), "DynamicDiskUsage", PLIST_UINT))
            dictSetUInt(entry.get(), "DynamicDiskUsage",
                        treeSize(app.containerPath) - treeSize(app.bundlePath()));
        plist_t wanted = dictItem(options, "ReturnAttributes", PLIST_ARRAY);
        if (!wanted)
            return entry;
        Plist filtered = plistDict();
        for (uint32_t i = 0; i < plist_array_get_size(wanted); ++i) {
            const std::string key = nodeString(plist_array_get_item(wanted, i));
            if (plist_t value =
                    key.empty() ? nullptr : plist_dict_get_item(entry.get(), key.c_str()))
                plist_dict_set_item(filtered.get(), key.c_str(), plist_copy(value));
        }
        return filtered;
    }

    std::vector<AppPtr> selectedApps(plist_t options) const
    {
        std::vector<AppPtr> apps;
        for (const AppPtr& app : mDevice.apps())
            if (selected(*app, options))
                apps.push_back(app);
        return apps;
    }

    bool browse(plist_t options)
    {
        const std::vector<AppPtr> apps = selectedApps(options);
        const uint64_t total = apps.size();
        for (size_t index = 0; index < apps.size(); index += kBrowseBatch) {
            Plist list = plistArray();
            size_t end = std::min(apps.size(), index + kBrowseBatch);
            for (size_t i = index; i < end; ++i)
                plist_array_append_item(list.get(), entryOf(*apps[i], options).release());
            Plist message = plistDict();
            dictSetUInt(message.get(), "CurrentAmount", end - index);
            dictSetUInt(message.get(), "CurrentIndex", index);
            dictSet(message.get(), "CurrentList", std::move(list));
            dictSetString(message.get(), "Status", "BrowsingApplications");
            dictSetUInt(message.get(), "Total", total);
            if (!send(message.get()))
                return false;
        }
        return sendComplete();
    }

    bool lookup(plist_t options)
    {
        Plist result = plistDict();
        for (const AppPtr& app : selectedApps(options))
            dictSet(result.get(), app->bundleId.c_str(), entryOf(*app, options));
        Plist message = plistDict();
        dictSet(message.get(), "LookupResult", std::move(result));
        return sendComplete(std::move(message));
    }

    // ---- install / upgrade ----

    bool install(plist_t request, plist_t options)
    {
        const std::string packagePath = dictString(request, "PackagePath");
        if (packagePath.empty())
            return sendError("MissingPackagePath", "The request has no PackagePath");
        size_t step = 0;
        auto advanceTo = [&](size_t last) {
            for (; step <= last; ++step)
                if (!sendStatus(kInstallSteps[step].status, kInstallSteps[step].percent))
                    return false;
            return true;
        };

        if (!advanceTo(1)) // CreatingStagingDirectory, ExtractingPackage
            return false;
        std::string hostPackage;
        if (!hostPathIn(mDevice.mediaPath(), packagePath, &hostPackage))
            return sendError("PackageExtractionFailed",
                             "The package path " + packagePath + " is not valid");
        const std::string staging = stagingFolder();
        struct StagingCleanup
        {
            std::string path;
            ~StagingCleanup() { removeTree(path); }
        } cleanup{staging};

        UnpackedPackage package;
        std::string errorName, description;
        if (!unpackPackage(hostPackage, staging, &package, &errorName, &description))
            return sendError(errorName, description);
        if (!advanceTo(6)) // ... VerifyingApplication
            return false;
        const Faults& faults = mDevice.faults();
        if (!faults.installError.empty())
            return sendError(faults.installError, faults.installErrorDescription.empty()
                                                      ? "Could not install the application"
                                                      : faults.installErrorDescription);

        if (!advanceTo(7)) // CreatingContainer
            return false;
        AppPtr previous = mDevice.findApp(dictString(package.info.get(), "CFBundleIdentifier"));
        std::shared_ptr<App> app = newAppRecord(package, previous);
        if (!advanceTo(8)) // InstallingApplication
            return false;
        if (!moveBundle(package, previous, *app))
            return sendError("ApplicationMoveFailed", "Could not move the app into its container");
        storeOptions(*app, package, options);
        if (dictItem(options, "ApplicationSINF", PLIST_DATA))
            dictSetString(app->attributes.get(), "SignerIdentity",
                          "Apple iPhone OS Application Signing");
        app->info = std::move(package.info);
        app->iconFile = findIconFile(app->bundlePath(), app->info.get());

        if (!advanceTo(11)) // PostflightingApplication ... GeneratingApplicationMap
            return false;
        mDevice.registerApp(app);
        mDevice.postNotification(kAppInstalled);
        return sendComplete();
    }

    // The record of an app being installed: an upgrade keeps the container (and so the
    // Documents) of the installed version.
    std::shared_ptr<App> newAppRecord(const UnpackedPackage& package, const AppPtr& previous)
    {
        auto app = std::make_shared<App>();
        app->bundleId = dictString(package.info.get(), "CFBundleIdentifier");
        app->applicationType = "User";
        app->containerPath = previous ? previous->containerPath : mDevice.newContainer();
        app->bundleName = package.bundleName;
        app->attributes = plistDict();
        return app;
    }

    static bool moveBundle(const UnpackedPackage& package, const AppPtr& previous, const App& app)
    {
        if (previous)
            removeTree(previous->bundlePath());
        removeTree(app.bundlePath());
        return ::rename(package.bundleDir.c_str(), app.bundlePath().c_str()) == 0;
    }

    // iTunesMetadata (from the options, else the package) and the signature.
    static void storeOptions(const App& app, const UnpackedPackage& package, plist_t options)
    {
        std::string metadata = dictData(options, "iTunesMetadata");
        if (metadata.empty())
            metadata = package.metadata;
        if (!metadata.empty())
            writeWholeFile(app.containerPath + "/iTunesMetadata.plist", metadata);
        const std::string sinf = dictData(options, "ApplicationSINF");
        const std::string executable = dictString(package.info.get(), "CFBundleExecutable");
        if (!sinf.empty() && !executable.empty() && executable.find('/') == std::string::npos)
            writeWholeFile(app.bundlePath() + "/SC_Info/" + executable + ".sinf", sinf);
    }

    // ---- uninstall ----

    bool uninstall(const std::string& bundleId)
    {
        if (bundleId.empty())
            return sendError("MissingApplicationIdentifier",
                             "The request has no ApplicationIdentifier");
        AppPtr app = mDevice.findApp(bundleId);
        // Removing an app that is not there is no error on a device.
        if (!app)
            return sendComplete();
        if (app->applicationType != "User")
            return sendError("UninstallProhibited",
                             "System app " + bundleId + " cannot be uninstalled");
        if (!sendStatus("RemovingApplication", 50))
            return false;
        const Faults& faults = mDevice.faults();
        if (!faults.uninstallError.empty())
            return sendError(faults.uninstallError, faults.uninstallErrorDescription.empty()
                                                        ? "Could not uninstall the application"
                                                        : faults.uninstallErrorDescription);
        if (!sendStatus("GeneratingApplicationMap", 90))
            return false;
        mDevice.removeApp(bundleId);
        mDevice.postNotification(kAppUninstalled);
        return sendComplete();
    }

    // ---- archives ----

    std::string archivesPath() const { return mDevice.mediaPath() + "/ApplicationArchives"; }

    bool archiveFileOf(const std::string& bundleId, std::string* path) const
    {
        return bundleId.find('/') == std::string::npos &&
               hostPathIn(archivesPath(), bundleId + ".zip", path);
    }

    bool archive(const std::string& bundleId, plist_t options)
    {
        if (bundleId.empty())
            return sendError("MissingApplicationIdentifier",
                             "The request has no ApplicationIdentifier");
        AppPtr app = mDevice.findApp(bundleId);
        std::string zipPath;
        if (!app || !archiveFileOf(bundleId, &zipPath))
            return sendError("LookupFailed", "No app with identifier " + bundleId);
        struct stat st;
        if (::stat(zipPath.c_str(), &st) == 0)
            return sendError("AlreadyArchived", "An archive of " + bundleId + " already exists");
        const bool skipUninstall = dictBool(options, "SkipUninstall", false);
        const std::string type = dictString(options, "ArchiveType");
        ArchiveContent content = type == "ApplicationOnly" ? ArchiveContent::ApplicationOnly
                                 : type == "DocumentsOnly" ? ArchiveContent::DocumentsOnly
                                                           : ArchiveContent::Everything;
        if (!sendStatus("ArchivingApplication", 10))
            return false;
        std::string error;
        if (!writeAppArchive(*app, content, zipPath, &error))
            return sendError("APIInternalError", "Could not archive " + bundleId + ": " + error);
        if (!sendStatus("ArchivingApplication", 50))
            return false;
        if (!skipUninstall) {
            if (!sendStatus("RemovingApplication", 70))
                return false;
            mDevice.removeApp(bundleId);
        }
        if (!sendStatus("GeneratingApplicationMap", 90))
            return false;
        if (!skipUninstall)
            mDevice.postNotification(kAppUninstalled);
        return sendComplete();
    }

    bool removeArchive(const std::string& bundleId)
    {
        if (bundleId.empty())
            return sendError("MissingApplicationIdentifier",
                             "The request has no ApplicationIdentifier");
        std::string zipPath;
        struct stat st;
        if (!archiveFileOf(bundleId, &zipPath) || ::stat(zipPath.c_str(), &st) != 0)
            return sendError("ArchiveDestructionFailed", "No archive of " + bundleId);
        if (!sendStatus("RemovingArchive", 50))
            return false;
        if (::unlink(zipPath.c_str()) != 0)
            return sendError("ArchiveDestructionFailed",
                             "Could not remove the archive of " + bundleId);
        return sendComplete();
    }

    // Installs an app again from its archive (bundle and container as archived).
    bool restore(const std::string& bundleId)
    {
        if (bundleId.empty())
            return sendError("MissingApplicationIdentifier",
                             "The request has no ApplicationIdentifier");
        std::string zipPath;
        struct stat st;
        if (!archiveFileOf(bundleId, &zipPath) || ::stat(zipPath.c_str(), &st) != 0)
            return sendError("LookupFailed", "No archive of " + bundleId);
        if (!sendStatus("ExtractingPackage", 15))
            return false;
        const std::string staging = stagingFolder();
        struct StagingCleanup
        {
            std::string path;
            ~StagingCleanup() { removeTree(path); }
        } cleanup{staging};
        UnpackedPackage package;
        std::string errorName, description;
        AppPtr previous = mDevice.findApp(bundleId);
        const bool hasBundle = static_cast<bool>(archivedAppInfo(zipPath));
        if (hasBundle && !unpackPackage(zipPath, staging, &package, &errorName, &description))
            return sendError(errorName, description);
        if (!hasBundle && !previous)
            return sendError("PackageInspectionFailed",
                             "The archive of " + bundleId + " holds no app bundle");
        if (!sendStatus("RestoringApplication", 50))
            return false;
        if (hasBundle) {
            std::shared_ptr<App> app = newAppRecord(package, previous);
            if (!moveBundle(package, previous, *app))
                return sendError("ApplicationMoveFailed",
                                 "Could not move the app into its container");
            if (!package.metadata.empty())
                writeWholeFile(app->containerPath + "/iTunesMetadata.plist", package.metadata);
            if (previous)
                app->attributes = plistCopy(previous->attributes.get());
            app->info = std::move(package.info);
            app->iconFile = findIconFile(app->bundlePath(), app->info.get());
            previous = app;
            mDevice.registerApp(app);
        }
        if (!unpackArchivedContainer(zipPath, previous->containerPath))
            return sendError("RestoreContainerFailed",
                             "Could not restore the container of " + bundleId);
        if (!sendStatus("GeneratingApplicationMap", 90))
            return false;
        mDevice.postNotification(kAppInstalled);
        return sendComplete();
    }

    std::string stagingFolder() const
    {
        const std::string path = mDevice.rootPath() +
                                 "/private/var/mobile/Library/Caches/"
                                 "com.apple.mobile.installd.staging/temp." +
                                 randomUuid();
        makePath(path);
        return path;
    }

    bool lookupArchives()
    {
        Plist result = plistDict();
        if (DIR* dir = ::opendir(archivesPath().c_str())) {
            while (dirent* entry = ::readdir(dir)) {
                std::string name = entry->d_name;
                if (name.size() <= 4 || name.compare(name.size() - 4, 4, ".zip") != 0)
                    continue;
                const std::string bundleId = name.substr(0, name.size() - 4);
                Plist info = archivedAppInfo(archivesPath() + "/" + name);
                if (!info)
                    info = plistDict();
                dictSetString(info.get(), "CFBundleIdentifier", bundleId);
                dictSet(result.get(), bundleId.c_str(), std::move(info));
            }
            ::closedir(dir);
        }
        Plist message = plistDict();
        dictSet(message.get(), "LookupResult", std::move(result));
        return sendComplete(std::move(message));
    }

    Device& mDevice;
    Stream& mStream;
};

void serveInstallationProxy(ServiceContext& context)
{
    InstallationProxy(context).run();
}

} // namespace

DEVSIM_SERVICE("com.apple.mobile.installation_proxy", serveInstallationProxy, nullptr);

} // namespace devsim
