#pragma once
// App packages (.ipa) for the app-service tests of kavrel-devsim, built with
// kavreltest::ZipBuilder.

#include <QByteArray>
#include <QString>

namespace appstest {

struct Package
{
    QString bundleId = "com.example.hello";
    QString bundleName = "Hello"; // the bundle is Payload/<bundleName>.app
    QString displayName = "Hello World";
    QString version = "1.0";
    QByteArray icon;         // stored as AppIcon60x60@2x.png; empty: no icon
    QString appleId;         // iTunesMetadata.plist with appleId when set
    bool binaryInfo = false; // Info.plist as binary plist instead of XML
    // Writes the .ipa; false on failure.
    bool write(const QString& path) const;
};

// A small PNG whose pixels depend on seed.
QByteArray iconPng(int seed);

} // namespace appstest
