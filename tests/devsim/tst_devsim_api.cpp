// kavrel-devsim through the libimobiledevice C API: a TLS lockdown session, values,
// service starts, AFC (a 50 MB round trip, file kinds, folders), pairing, hot-plug
// events and state kept across restarts.

#include "DevSim.h"
#include "TestSupport.h"

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>
#include <usbmuxd.h>

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QMutex>
#include <QSet>

#include <cstdlib>
#include <memory>

using kavreltest::DevSim;

namespace {

const QString kPhone = "a1b2c3d4e5f60718293a4b5c6d7e8f9012345678";
const QString kPad = "f0e1d2c3b4a5968778695a4b3c2d1e0f9a8b7c6d";

// A device handle with a completed lockdown handshake (TLS session).
struct Session
{
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
    lockdownd_error_t error = LOCKDOWN_E_UNKNOWN_ERROR;

    explicit Session(const QString& udid)
    {
        if (idevice_new(&device, udid.toLatin1().constData()) != IDEVICE_E_SUCCESS)
            return;
        error = lockdownd_client_new_with_handshake(device, &lockdown, "devsim-test");
    }
    ~Session()
    {
        if (lockdown)
            lockdownd_client_free(lockdown);
        if (device)
            idevice_free(device);
    }
    bool ok() const { return lockdown != nullptr; }

    // Starts a service and opens an AFC client on it.
    afc_client_t afc(const char* service = "com.apple.afc")
    {
        lockdownd_service_descriptor_t descriptor = nullptr;
        if (lockdownd_start_service(lockdown, service, &descriptor) != LOCKDOWN_E_SUCCESS)
            return nullptr;
        afc_client_t client = nullptr;
        afc_client_new(device, descriptor, &client);
        lockdownd_service_descriptor_free(descriptor);
        return client;
    }
};

struct AfcDeleter
{
    void operator()(afc_client_private* c) const { afc_client_free(c); }
};
using Afc = std::unique_ptr<afc_client_private, AfcDeleter>;

QMap<QString, QString> fileInfo(afc_client_t afc, const QString& path, afc_error_t* error)
{
    char** info = nullptr;
    *error = afc_get_file_info(afc, path.toUtf8().constData(), &info);
    QMap<QString, QString> out;
    for (int i = 0; info && info[i] && info[i + 1]; i += 2)
        out[info[i]] = info[i + 1];
    if (info)
        afc_dictionary_free(info);
    return out;
}

QStringList readDirectory(afc_client_t afc, const QString& path, afc_error_t* error)
{
    char** list = nullptr;
    *error = afc_read_directory(afc, path.toUtf8().constData(), &list);
    QStringList out;
    for (int i = 0; list && list[i]; ++i)
        out << QString::fromUtf8(list[i]);
    if (list)
        afc_dictionary_free(list);
    return out;
}

QByteArray readAfcFile(afc_client_t afc, const QString& path, uint32_t chunk)
{
    uint64_t handle = 0;
    if (afc_file_open(afc, path.toUtf8().constData(), AFC_FOPEN_RDONLY, &handle) != AFC_E_SUCCESS)
        return {};
    QByteArray out;
    QByteArray buffer(int(chunk), '\0');
    while (true) {
        uint32_t got = 0;
        if (afc_file_read(afc, handle, buffer.data(), chunk, &got) != AFC_E_SUCCESS || got == 0)
            break;
        out.append(buffer.constData(), int(got));
    }
    afc_file_close(afc, handle);
    return out;
}

bool writeAfcFile(afc_client_t afc, const QString& path, const QByteArray& bytes, int chunk)
{
    uint64_t handle = 0;
    if (afc_file_open(afc, path.toUtf8().constData(), AFC_FOPEN_WRONLY, &handle) != AFC_E_SUCCESS)
        return false;
    for (int pos = 0; pos < bytes.size(); pos += chunk) {
        uint32_t written = 0;
        int n = qMin(chunk, bytes.size() - pos);
        if (afc_file_write(afc, handle, bytes.constData() + pos, uint32_t(n), &written) !=
                AFC_E_SUCCESS ||
            written != uint32_t(n))
            return false;
    }
    return afc_file_close(afc, handle) == AFC_E_SUCCESS;
}

QByteArray patternBytes(int size, quint32 seed)
{
    QByteArray bytes(size, '\0');
    quint32 x = seed;
    for (int i = 0; i < size; ++i) {
        x = x * 1664525u + 1013904223u;
        bytes[i] = char(x >> 24);
    }
    return bytes;
}

QString stringValue(plist_t node)
{
    char* text = nullptr;
    if (node && plist_get_node_type(node) == PLIST_STRING)
        plist_get_string_val(node, &text);
    QString out = QString::fromUtf8(text);
    free(text);
    return out;
}

// Hot-plug events as libimobiledevice delivers them, on its own thread.
QMutex gEventLock;
QStringList gEvents;

void recordEvent(const idevice_event_t* event, void*)
{
    QMutexLocker lock(&gEventLock);
    const char* kind = event->event == IDEVICE_DEVICE_ADD      ? "add"
                       : event->event == IDEVICE_DEVICE_REMOVE ? "remove"
                                                               : "paired";
    gEvents << QString("%1 %2").arg(kind, QString::fromLatin1(event->udid));
}

bool waitForEvent(const QString& event, int timeoutMs = 10000)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        {
            QMutexLocker lock(&gEventLock);
            if (gEvents.contains(event))
                return true;
        }
        QTest::qWait(20);
    }
    return false;
}

} // namespace

class TestDevsimApi : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void handshakeOpensTlsSession();
    void valuesReadAndWritten();
    void startServiceAnswers_data();
    void startServiceAnswers();
    void afcRoundTripOf50MB();
    void afcFileInfo_data();
    void afcFileInfo();
    void afcFolders();
    void afcStaysInsideItsRoot();
    void afc2ShowsWholeDevice();
    void mediaPrefsHoldEstimatedTotals();
    void hostPairsAgainAfterPairRecordDeleted();
    void hotPlugEventsReachSubscribers();
    void detachCutsOpenConnections();
    void stateSurvivesRestart();
    void failingServiceRefusesToStart_data();
    void failingServiceRefusesToStart();
    void afcWriteKeepsOnlyPartOfEachWrite();
    void serviceConnectionDroppedAfterBytes();

private:
    DevSim mSim;
};

void TestDevsimApi::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone", "ipad-jailbroken"}, &error), qPrintable(error));
}

void TestDevsimApi::cleanupTestCase()
{
    mSim.stop();
}

void TestDevsimApi::handshakeOpensTlsSession()
{
    Session session(kPhone);
    QVERIFY2(session.ok(), qPrintable(QString::number(session.error)));
    char* type = nullptr;
    QCOMPARE(lockdownd_query_type(session.lockdown, &type), LOCKDOWN_E_SUCCESS);
    QCOMPARE(QString(type), QString("com.apple.mobile.lockdown"));
    free(type);
    // Values read inside the session travel through TLS.
    plist_t value = nullptr;
    QCOMPARE(lockdownd_get_value(session.lockdown, nullptr, "UniqueDeviceID", &value),
             LOCKDOWN_E_SUCCESS);
    QCOMPARE(stringValue(value), kPhone);
    plist_free(value);
    // A second, independent session to the same device.
    Session second(kPhone);
    QVERIFY(second.ok());

    // Leaving TLS and entering it again on the same connection.
    char* hostId = nullptr;
    char* record = nullptr;
    uint32_t size = 0;
    QCOMPARE(usbmuxd_read_pair_record(kPhone.toLatin1().constData(), &record, &size), 0);
    plist_t pairRecord = nullptr;
    plist_from_bin(record, size, &pairRecord);
    free(record);
    plist_get_string_val(plist_dict_get_item(pairRecord, "HostID"), &hostId);
    plist_free(pairRecord);
    for (int round = 0; round < 2; ++round) {
        type = nullptr;
        QCOMPARE(lockdownd_query_type(second.lockdown, &type), LOCKDOWN_E_SUCCESS);
        free(type);
        char* sessionId = nullptr;
        int ssl = 0;
        QCOMPARE(lockdownd_start_session(second.lockdown, hostId, &sessionId, &ssl),
                 LOCKDOWN_E_SUCCESS);
        QCOMPARE(ssl, 1);
        value = nullptr;
        QCOMPARE(lockdownd_get_value(second.lockdown, nullptr, "ProductType", &value),
                 LOCKDOWN_E_SUCCESS);
        QCOMPARE(stringValue(value), QString("iPhone12,3"));
        plist_free(value);
        QCOMPARE(lockdownd_stop_session(second.lockdown, sessionId), LOCKDOWN_E_SUCCESS);
        free(sessionId);
    }
    // An unknown host id is refused.
    QCOMPARE(lockdownd_start_session(second.lockdown, "00000000-0000-0000-0000-000000000000",
                                     nullptr, nullptr),
             LOCKDOWN_E_INVALID_HOST_ID);
    free(hostId);
}

void TestDevsimApi::valuesReadAndWritten()
{
    Session session(kPad);
    QVERIFY(session.ok());
    QCOMPARE(lockdownd_set_value(session.lockdown, nullptr, "DeviceName",
                                 plist_new_string("Renamed iPad")),
             LOCKDOWN_E_SUCCESS);
    plist_t value = nullptr;
    QCOMPARE(lockdownd_get_value(session.lockdown, nullptr, "DeviceName", &value),
             LOCKDOWN_E_SUCCESS);
    QCOMPARE(stringValue(value), QString("Renamed iPad"));
    plist_free(value);

    value = nullptr;
    QCOMPARE(
        lockdownd_set_value(session.lockdown, nullptr, "ProductType", plist_new_string("iPad99,1")),
        LOCKDOWN_E_SET_PROHIBITED);
    QCOMPARE(lockdownd_get_value(session.lockdown, nullptr, "NoSuchKey", &value),
             LOCKDOWN_E_MISSING_VALUE);
    QCOMPARE(lockdownd_get_value(session.lockdown, "com.apple.no.such.domain", nullptr, &value),
             LOCKDOWN_E_MISSING_VALUE);

    // Named domains: a whole domain as a dictionary.
    QCOMPARE(lockdownd_get_value(session.lockdown, "com.apple.mobile.battery", nullptr, &value),
             LOCKDOWN_E_SUCCESS);
    QCOMPARE(plist_get_node_type(value), PLIST_DICT);
    uint64_t capacity = 0;
    plist_get_uint_val(plist_dict_get_item(value, "BatteryCurrentCapacity"), &capacity);
    QCOMPARE(capacity, uint64_t(54));
    plist_free(value);

    // The change is seen by a new session, as on a device.
    Session other(kPad);
    value = nullptr;
    QCOMPARE(lockdownd_get_value(other.lockdown, nullptr, "DeviceName", &value),
             LOCKDOWN_E_SUCCESS);
    QCOMPARE(stringValue(value), QString("Renamed iPad"));
    plist_free(value);
}

void TestDevsimApi::startServiceAnswers_data()
{
    QTest::addColumn<QString>("udid");
    QTest::addColumn<QString>("service");
    QTest::addColumn<int>("expected");
    QTest::newRow("afc") << kPhone << "com.apple.afc" << int(LOCKDOWN_E_SUCCESS);
    QTest::newRow("afc2 on a stock device")
        << kPhone << "com.apple.afc2" << int(LOCKDOWN_E_INVALID_SERVICE);
    QTest::newRow("afc2 when jailbroken") << kPad << "com.apple.afc2" << int(LOCKDOWN_E_SUCCESS);
    QTest::newRow("unknown service")
        << kPhone << "com.example.nothing" << int(LOCKDOWN_E_INVALID_SERVICE);
}

void TestDevsimApi::startServiceAnswers()
{
    QFETCH(QString, udid);
    QFETCH(QString, service);
    QFETCH(int, expected);
    Session session(udid);
    QVERIFY(session.ok());
    QSet<int> ports;
    for (int i = 0; i < 3; ++i) {
        lockdownd_service_descriptor_t descriptor = nullptr;
        lockdownd_error_t rc =
            lockdownd_start_service(session.lockdown, service.toLatin1().constData(), &descriptor);
        QCOMPARE(int(rc), expected);
        if (rc == LOCKDOWN_E_SUCCESS) {
            QVERIFY(descriptor->port != 0);
            QCOMPARE(int(descriptor->ssl_enabled), 0);
            ports.insert(descriptor->port);
        }
        lockdownd_service_descriptor_free(descriptor);
    }
    // Every start opens a fresh port.
    QCOMPARE(ports.size(), expected == LOCKDOWN_E_SUCCESS ? 3 : 0);
}

void TestDevsimApi::afcRoundTripOf50MB()
{
    Session session(kPhone);
    QVERIFY(session.ok());
    Afc afc(session.afc());
    QVERIFY(afc);
    const QByteArray bytes = patternBytes(50 * 1024 * 1024, 7);
    QVERIFY(writeAfcFile(afc.get(), "/Downloads/big.bin", bytes, 1024 * 1024));

    afc_error_t error = AFC_E_UNKNOWN_ERROR;
    auto info = fileInfo(afc.get(), "/Downloads/big.bin", &error);
    QCOMPARE(error, AFC_E_SUCCESS);
    QCOMPARE(info.value("st_size"), QString::number(bytes.size()));
    QCOMPARE(info.value("st_ifmt"), QString("S_IFREG"));

    // The bytes landed in the device's media folder and come back unchanged.
    QFile host(mSim.mediaDir(kPhone) + "/Downloads/big.bin");
    QVERIFY(host.open(QIODevice::ReadOnly));
    const QByteArray expectedHash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha1);
    QCOMPARE(QCryptographicHash::hash(host.readAll(), QCryptographicHash::Sha1), expectedHash);
    const QByteArray back = readAfcFile(afc.get(), "/Downloads/big.bin", 65536);
    QCOMPARE(back.size(), bytes.size());
    QCOMPARE(QCryptographicHash::hash(back, QCryptographicHash::Sha1), expectedHash);
}

void TestDevsimApi::afcFileInfo_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("size");
    QTest::newRow("file above 4 GiB")
        << "/DCIM/100APPLE/IMG_0002.MOV" << int(AFC_E_SUCCESS) << "S_IFREG"
        << "5368709120";
    QTest::newRow("small file") << "/DCIM/100APPLE/IMG_0001.JPG" << int(AFC_E_SUCCESS) << "S_IFREG"
                                << "2457600";
    QTest::newRow("folder") << "/DCIM" << int(AFC_E_SUCCESS) << "S_IFDIR" << QString();
    QTest::newRow("symbolic link")
        << "/Books/latest.epub" << int(AFC_E_SUCCESS) << "S_IFLNK" << QString();
    QTest::newRow("relative path") << "Books/Sample.epub" << int(AFC_E_SUCCESS) << "S_IFREG"
                                   << "524288";
    QTest::newRow("missing") << "/DCIM/none.jpg" << int(AFC_E_OBJECT_NOT_FOUND) << QString()
                             << QString();
}

void TestDevsimApi::afcFileInfo()
{
    QFETCH(QString, path);
    QFETCH(int, error);
    QFETCH(QString, kind);
    QFETCH(QString, size);
    Session session(kPhone);
    Afc afc(session.afc());
    QVERIFY(afc);
    afc_error_t rc = AFC_E_UNKNOWN_ERROR;
    auto info = fileInfo(afc.get(), path, &rc);
    QCOMPARE(int(rc), error);
    QCOMPARE(info.value("st_ifmt"), kind);
    if (!size.isEmpty())
        QCOMPARE(info.value("st_size"), size);
    if (kind == "S_IFLNK")
        QCOMPARE(info.value("LinkTarget"), QString("Sample.epub"));
}

void TestDevsimApi::afcFolders()
{
    Session session(kPhone);
    Afc afc(session.afc());
    QVERIFY(afc);
    afc_error_t rc = AFC_E_UNKNOWN_ERROR;
    QCOMPARE(afc_make_directory(afc.get(), "/Scratch/a/b"), AFC_E_SUCCESS);
    QVERIFY(writeAfcFile(afc.get(), "/Scratch/a/b/note.txt", "hello", 8192));
    QCOMPARE(readDirectory(afc.get(), "/Scratch/a/b", &rc), QStringList({".", "..", "note.txt"}));
    QCOMPARE(afc_remove_path(afc.get(), "/Scratch/a"), AFC_E_DIR_NOT_EMPTY);
    QCOMPARE(afc_rename_path(afc.get(), "/Scratch/a/b/note.txt", "/Scratch/moved.txt"),
             AFC_E_SUCCESS);
    QCOMPARE(readAfcFile(afc.get(), "/Scratch/moved.txt", 3), QByteArray("hello"));
    QCOMPARE(afc_remove_path(afc.get(), "/Scratch/a/b"), AFC_E_SUCCESS);
    QCOMPARE(afc_remove_path(afc.get(), "/Scratch/a/b"), AFC_E_OBJECT_NOT_FOUND);
    QCOMPARE(readDirectory(afc.get(), "/Scratch", &rc), QStringList({".", "..", "a", "moved.txt"}));
    QCOMPARE(afc_remove_path_and_contents(afc.get(), "/Scratch"), AFC_E_SUCCESS);
    QVERIFY(!QFileInfo::exists(mSim.mediaDir(kPhone) + "/Scratch"));
    uint64_t handle = 0;
    QCOMPARE(afc_file_open(afc.get(), "/DCIM", AFC_FOPEN_RDONLY, &handle), AFC_E_OBJECT_IS_DIR);
}

void TestDevsimApi::afcStaysInsideItsRoot()
{
    Session session(kPhone);
    Afc afc(session.afc());
    QVERIFY(afc);
    afc_error_t rc = AFC_E_UNKNOWN_ERROR;
    const QStringList root = readDirectory(afc.get(), "/", &rc);
    QCOMPARE(rc, AFC_E_SUCCESS);
    QVERIFY(root.contains("DCIM") && root.contains("iTunes_Control"));
    QCOMPARE(readDirectory(afc.get(), "/../../..", &rc), root);
    // A link pointing out of the media folder is not followed.
    QCOMPARE(afc_make_link(afc.get(), AFC_SYMLINK, "/etc/passwd", "/escape"), AFC_E_SUCCESS);
    uint64_t handle = 0;
    QCOMPARE(afc_file_open(afc.get(), "/escape", AFC_FOPEN_RDONLY, &handle), AFC_E_PERM_DENIED);
    QCOMPARE(afc_remove_path(afc.get(), "/escape"), AFC_E_SUCCESS);
}

void TestDevsimApi::afc2ShowsWholeDevice()
{
    Session session(kPad);
    Afc afc(session.afc("com.apple.afc2"));
    QVERIFY(afc);
    afc_error_t rc = AFC_E_UNKNOWN_ERROR;
    auto info = fileInfo(afc.get(), "/private/var/mobile/Media/DCIM", &rc);
    QCOMPARE(rc, AFC_E_SUCCESS);
    QCOMPARE(info.value("st_ifmt"), QString("S_IFDIR"));
    QVERIFY(readDirectory(afc.get(), "/private/var/mobile/Applications", &rc).size() == 4);
}

void TestDevsimApi::mediaPrefsHoldEstimatedTotals()
{
    Session session(kPhone);
    Afc afc(session.afc());
    QVERIFY(afc);
    QByteArray bytes = readAfcFile(afc.get(), "/iTunes_Control/iTunes/iTunesPrefs.plist", 65536);
    QVERIFY(bytes.startsWith("bplist00"));
    plist_t prefs = nullptr;
    plist_from_bin(bytes.constData(), uint32_t(bytes.size()), &prefs);
    QVERIFY(prefs);
    plist_t totals = plist_dict_get_item(prefs, "EstimatedDeviceTotals");
    QVERIFY(totals && plist_get_node_type(totals) == PLIST_DICT);
    uint64_t video = 0, books = 0;
    plist_get_uint_val(plist_dict_get_item(totals, "totalVideoBytes"), &video);
    plist_get_uint_val(plist_dict_get_item(totals, "totalBookBytes"), &books);
    QCOMPARE(video, uint64_t(5368709120ull));
    QCOMPARE(books, uint64_t(157286400));
    plist_free(prefs);

    // The bare iPad was never synced: no preferences file.
    Session pad(kPad);
    Afc padAfc(pad.afc());
    afc_error_t rc = AFC_E_UNKNOWN_ERROR;
    fileInfo(padAfc.get(), "/iTunes_Control/iTunes/iTunesPrefs.plist", &rc);
    QCOMPARE(rc, AFC_E_OBJECT_NOT_FOUND);
}

void TestDevsimApi::hostPairsAgainAfterPairRecordDeleted()
{
    const QString udid = DevSim::makeUdid(5);
    QVERIFY(mSim.attach(mSim.writeProfile(DevSim::minimalProfile(udid))));
    char* record = nullptr;
    uint32_t size = 0;
    QCOMPARE(usbmuxd_read_pair_record(udid.toLatin1().constData(), &record, &size), 0);
    plist_t original = nullptr;
    plist_from_bin(record, size, &original);
    free(record);
    QVERIFY(original);
    const QString originalHost = stringValue(plist_dict_get_item(original, "HostID"));
    plist_free(original);
    QVERIFY(!originalHost.isEmpty());

    QCOMPARE(usbmuxd_delete_pair_record(udid.toLatin1().constData()), 0);
    QVERIFY(usbmuxd_read_pair_record(udid.toLatin1().constData(), &record, &size) < 0);

    // The handshake pairs anew (the host generates and saves a record), then opens TLS
    // with the new keys.
    {
        Session session(udid);
        QVERIFY2(session.ok(), qPrintable(QString::number(session.error)));
    }
    QCOMPARE(usbmuxd_read_pair_record(udid.toLatin1().constData(), &record, &size), 0);
    plist_t fresh = nullptr;
    plist_from_xml(record, size, &fresh);
    if (!fresh)
        plist_from_bin(record, size, &fresh);
    free(record);
    QVERIFY(fresh);
    const QString newHost = stringValue(plist_dict_get_item(fresh, "HostID"));
    plist_free(fresh);
    QVERIFY(!newHost.isEmpty());
    QVERIFY(newHost != originalHost);
    QVERIFY(mSim.detach(udid));
}

void TestDevsimApi::hotPlugEventsReachSubscribers()
{
    {
        QMutexLocker lock(&gEventLock);
        gEvents.clear();
    }
    char* raw = nullptr;
    uint32_t rawSize = 0;
    QCOMPARE(usbmuxd_read_pair_record(kPad.toLatin1().constData(), &raw, &rawSize), 0);
    const QByteArray record(raw, int(rawSize));
    free(raw);
    QCOMPARE(idevice_event_subscribe(recordEvent, nullptr), IDEVICE_E_SUCCESS);
    // Devices already attached are announced first.
    QVERIFY(waitForEvent("add " + kPhone));
    QVERIFY(waitForEvent("add " + kPad));

    const QString udid = DevSim::makeUdid(9);
    QVERIFY(mSim.attach(mSim.writeProfile(DevSim::minimalProfile(udid))));
    QVERIFY(waitForEvent("add " + udid));
    QVERIFY(mSim.detach(udid));
    QVERIFY(waitForEvent("remove " + udid));
    // A host saving the pair record of an attached device makes usbmuxd announce it.
    QCOMPARE(usbmuxd_save_pair_record_with_device_id(kPad.toLatin1().constData(), 2,
                                                     record.constData(), uint32_t(record.size())),
             0);
    QVERIFY(waitForEvent("paired " + kPad));
    idevice_event_unsubscribe();
    QMutexLocker lock(&gEventLock);
    QCOMPARE(gEvents.count("add " + udid), 1);
    QCOMPARE(gEvents.count("remove " + udid), 1);
    QVERIFY(!gEvents.contains("remove " + kPhone));
}

void TestDevsimApi::detachCutsOpenConnections()
{
    const QString udid = DevSim::makeUdid(11);
    QVERIFY(mSim.attach(mSim.writeProfile(DevSim::minimalProfile(udid))));
    Session session(udid);
    QVERIFY(session.ok());
    QVERIFY(mSim.detach(udid));
    plist_t value = nullptr;
    QVERIFY(lockdownd_get_value(session.lockdown, nullptr, "DeviceName", &value) !=
            LOCKDOWN_E_SUCCESS);
    QVERIFY(!value);
    idevice_t device = nullptr;
    QVERIFY(idevice_new(&device, udid.toLatin1().constData()) != IDEVICE_E_SUCCESS);
    // Attached again, it answers again (and keeps what it had).
    QVERIFY(mSim.attach(mSim.tempDir() + "/profiles/" + udid + ".json"));
    Session again(udid);
    QVERIFY(again.ok());
}

void TestDevsimApi::stateSurvivesRestart()
{
    QTemporaryDir state;
    const QString udid = DevSim::makeUdid(21);
    {
        DevSim sim;
        QString profile = sim.writeProfile(DevSim::minimalProfile(udid, "Before"));
        QVERIFY(sim.start({profile}, nullptr, {"--state", state.path()}));
        Session session(udid);
        QVERIFY(session.ok());
        QCOMPARE(
            lockdownd_set_value(session.lockdown, nullptr, "DeviceName", plist_new_string("After")),
            LOCKDOWN_E_SUCCESS);
        Afc afc(session.afc());
        QVERIFY(writeAfcFile(afc.get(), "/kept.txt", "still here", 8192));
    }
    DevSim sim;
    QString profile = sim.writeProfile(DevSim::minimalProfile(udid, "Before"));
    QVERIFY(sim.start({profile}, nullptr, {"--state", state.path()}));
    Session session(udid);
    QVERIFY(session.ok());
    plist_t value = nullptr;
    QCOMPARE(lockdownd_get_value(session.lockdown, nullptr, "DeviceName", &value),
             LOCKDOWN_E_SUCCESS);
    QCOMPARE(stringValue(value), QString("After"));
    plist_free(value);
    Afc afc(session.afc());
    QCOMPARE(readAfcFile(afc.get(), "/kept.txt", 100), QByteArray("still here"));
    sim.stop();
    // mSim's environment comes back when the inner simulator stops.
    QVERIFY(qgetenv("USBMUXD_SOCKET_ADDRESS").contains(mSim.socketPath().toUtf8()) ||
            !qEnvironmentVariableIsSet("USBMUXD_SOCKET_ADDRESS"));
}

void TestDevsimApi::failingServiceRefusesToStart_data()
{
    QTest::addColumn<QJsonValue>("failServices");
    QTest::addColumn<QString>("service");
    QTest::addColumn<int>("expected");
    QTest::newRow("named error") << QJsonValue(QJsonObject{{"com.apple.afc", "ServiceLimit"}})
                                 << "com.apple.afc" << int(LOCKDOWN_E_SERVICE_LIMIT);
    QTest::newRow("list: prohibited") << QJsonValue(QJsonArray{"com.apple.afc"}) << "com.apple.afc"
                                      << int(LOCKDOWN_E_SERVICE_PROHIBITED);
    QTest::newRow("other services still start")
        << QJsonValue(QJsonArray{"com.apple.mobile.installation_proxy"}) << "com.apple.afc"
        << int(LOCKDOWN_E_SUCCESS);
}

void TestDevsimApi::failingServiceRefusesToStart()
{
    QFETCH(QJsonValue, failServices);
    QFETCH(QString, service);
    QFETCH(int, expected);
    static int seed = 100;
    const QString udid = DevSim::makeUdid(++seed);
    QJsonObject profile = DevSim::minimalProfile(udid);
    profile["faults"] = QJsonObject{{"failServices", failServices}};
    QVERIFY(mSim.attach(mSim.writeProfile(profile)));
    {
        Session session(udid);
        QVERIFY(session.ok());
        lockdownd_service_descriptor_t descriptor = nullptr;
        QCOMPARE(int(lockdownd_start_service(session.lockdown, service.toLatin1().constData(),
                                             &descriptor)),
                 expected);
        lockdownd_service_descriptor_free(descriptor);
    }
    QVERIFY(mSim.detach(udid));
}

void TestDevsimApi::afcWriteKeepsOnlyPartOfEachWrite()
{
    const QString udid = DevSim::makeUdid(31);
    QJsonObject profile = DevSim::minimalProfile(udid);
    profile["faults"] = QJsonObject{{"afcWriteLimit", 1000}};
    QVERIFY(mSim.attach(mSim.writeProfile(profile)));
    {
        Session session(udid);
        Afc afc(session.afc());
        QVERIFY(afc);
        // The host is told every write succeeded...
        const QByteArray bytes = patternBytes(3 * 4096, 3);
        QVERIFY(writeAfcFile(afc.get(), "/partial.bin", bytes, 4096));
        // ...but the device kept only the first 1000 bytes of each.
        QByteArray expected = bytes.mid(0, 1000) + bytes.mid(4096, 1000) + bytes.mid(8192, 1000);
        QCOMPARE(readAfcFile(afc.get(), "/partial.bin", 65536), expected);
    }
    QVERIFY(mSim.detach(udid));
}

void TestDevsimApi::serviceConnectionDroppedAfterBytes()
{
    const QString udid = DevSim::makeUdid(32);
    QJsonObject profile = DevSim::minimalProfile(udid);
    profile["media"] = QJsonArray{QJsonObject{{"path", "/big.bin"}, {"size", 1 << 20}}};
    profile["faults"] = QJsonObject{{"dropAfterBytes", 100000}, {"dropService", "com.apple.afc"}};
    QVERIFY(mSim.attach(mSim.writeProfile(profile)));
    {
        Session session(udid);
        Afc afc(session.afc());
        QVERIFY(afc);
        // The connection ends inside the file: the host gets the first reads, then the
        // connection fails (libimobiledevice does not notice the cut inside a packet, so
        // the packet that was cut may still count as whole).
        const QByteArray got = readAfcFile(afc.get(), "/big.bin", 65536);
        QVERIFY2(got.size() >= 65536 && got.size() <= 2 * 65536,
                 qPrintable(QString::number(got.size())));
        afc_error_t rc = AFC_E_SUCCESS;
        fileInfo(afc.get(), "/big.bin", &rc);
        QVERIFY(rc != AFC_E_SUCCESS);
        // Lockdown itself is not affected.
        plist_t value = nullptr;
        QCOMPARE(lockdownd_get_value(session.lockdown, nullptr, "DeviceName", &value),
                 LOCKDOWN_E_SUCCESS);
        plist_free(value);
    }
    QVERIFY(mSim.detach(udid));
}

KAVREL_TEST_MAIN(TestDevsimApi)
#include "tst_devsim_api.moc"
