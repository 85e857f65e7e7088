#pragma once
// App packages and archives on the host side of the simulated device: unpacking an
// .ipa (or an uploaded .app folder) for the installation service, finding a bundle's
// icon, and writing/reading the archives the installation service keeps in
// ApplicationArchives.

#include "Plist.h"

#include <string>

namespace devsim {

struct App;

// What unpacking a package produced.
struct UnpackedPackage
{
    std::string bundleDir;  // host folder of the unpacked <Name>.app
    std::string bundleName; // "<Name>.app"
    Plist info;             // the bundle's Info.plist
    std::string metadata;   // bytes of the package's iTunesMetadata.plist (may be empty)
};

// Unpacks the package at packagePath (a zip archive or a folder holding an .app) into
// workDir. On failure errorName is an installation-service error name and description
// says what went wrong.
bool unpackPackage(const std::string& packagePath, const std::string& workDir, UnpackedPackage* out,
                   std::string* errorName, std::string* description);

// The icon file of a bundle (relative to bundleDir) named by its Info.plist, or one of the
// usual icon names; empty when the bundle has none.
std::string findIconFile(const std::string& bundleDir, plist_t info);

// What an archive holds.
enum class ArchiveContent
{
    Everything,      // Payload/<Name>.app, Container/..., iTunesMetadata.plist
    ApplicationOnly, // Payload/<Name>.app and iTunesMetadata.plist
    DocumentsOnly    // Container/...
};

// Writes the app's archive to zipPath (through a temporary file, so readers never see a
// half-written archive).
bool writeAppArchive(const App& app, ArchiveContent content, const std::string& zipPath,
                     std::string* error);

// The Info.plist of the app inside an archive written by writeAppArchive; null when the
// archive holds no bundle or cannot be read.
Plist archivedAppInfo(const std::string& zipPath);

// Unpacks the Container/ part of such an archive into containerDir; false when the archive
// cannot be read.
bool unpackArchivedContainer(const std::string& zipPath, const std::string& containerDir);

// Sum of the sizes of the regular files below path (0 when missing).
uint64_t treeSize(const std::string& path);

// Joins a device-relative path to root, refusing paths that would leave it ("..").
bool hostPathIn(const std::string& root, const std::string& devicePath, std::string* hostPath);

} // namespace devsim
