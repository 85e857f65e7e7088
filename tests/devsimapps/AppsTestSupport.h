#pragma once
// Helpers for the app-service tests of kavrel-devsim: .ipa packages built with
// kavreltest::ZipBuilder, a lockdown session with service starts, and readers for AFC
// and property lists.

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace appstest {

extern const QString kPhone;

// A generated app package.
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

// A device handle with a completed lockdown handshake (TLS session).
class Session
{
public:
    explicit Session(const QString& udid = kPhone);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool ok() const { return mLockdown != nullptr; }
    idevice_t device() const { return mDevice; }
    // Starts a service; null on failure. The caller frees the descriptor.
    lockdownd_service_descriptor_t start(const char* service);
    // An AFC client on com.apple.afc; null on failure.
    afc_client_t afc();

private:
    idevice_t mDevice = nullptr;
    lockdownd_client_t mLockdown = nullptr;
};

QStringList readDirectory(afc_client_t afc, const QString& path);
QByteArray readAfcFile(afc_client_t afc, const QString& path);
bool writeAfcFile(afc_client_t afc, const QString& path, const QByteArray& bytes);

QString stringOf(plist_t dict, const char* key);
quint64 uintOf(plist_t dict, const char* key, quint64 fallback = ~0ull);
QStringList keysOf(plist_t dict);

} // namespace appstest
