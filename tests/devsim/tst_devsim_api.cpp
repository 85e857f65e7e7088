// kavrel-devsim through the libimobiledevice C API: a TLS lockdown session, service
// starts, AFC (a 50 MB round trip, file kinds, folders), hot-plug events, state kept
// across restarts and injected AFC faults.

#include "DevSim.h"
#include "TestSupport.h"

#include <usbmuxd.h>

#include <QCryptographicHash>
#include <QMutex>
#include <QSet>

using namespace kavreltest;

namespace {

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

QString globalValue(lockdownd_client_t lockdown, const char* key)
{
    plist_t value = nullptr;
    if (lockdownd_get_value(lockdown, nullptr, key, &value) != LOCKDOWN_E_SUCCESS)
        return QStringLiteral("<failed>");
    char* text = nullptr;
    plist_get_string_val(value, &text);
    const QString out = QString::fromUtf8(text);
    free(text);
    plist_free(value);
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

QStringList events()
{
    QMutexLocker lock(&gEventLock);
    return gEvents;
}

} // namespace

class TestDevsimApi : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void handshakeOpensTlsSession();
    void startServiceAnswers_data();
    void startServiceAnswers();
    void afcRoundTripOf50MB();
    void afcFileKinds_data();
    void afcFileKinds();
    void afcFolders();
    void afcStaysInsideItsRoot();
    void afc2ShowsWholeDevice();
    void hotPlugEventsReachSubscribers();
    void detachCutsOpenConnections();
    void stateSurvivesRestart();
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

void TestDevsimApi::handshakeOpensTlsSession()
{
    Session session(kPhone);
    QVERIFY2(session.ok(), qPrintable(QString::number(session.error)));
    // Values read inside the session travel through TLS.
    QCOMPARE(globalValue(session.lockdown, "UniqueDeviceID"), kPhone);

    // Leaving TLS and entering it again on the same connection.
    char* record = nullptr;
    uint32_t size = 0;
    QCOMPARE(usbmuxd_read_pair_record(kPhone.toLatin1().constData(), &record, &size), 0);
    plist_t pairRecord = nullptr;
    plist_from_bin(record, size, &pairRecord);
    free(record);
    const QByteArray hostId = stringOf(pairRecord, "HostID").toLatin1();
    plist_free(pairRecord);
    char* sessionId = nullptr;
    int ssl = 0;
    QCOMPARE(lockdownd_start_session(session.lockdown, hostId.constData(), &sessionId, &ssl),
             LOCKDOWN_E_SUCCESS);
    QCOMPARE(ssl, 1);
    QCOMPARE(globalValue(session.lockdown, "ProductType"), QString("iPhone12,3"));
    QCOMPARE(lockdownd_stop_session(session.lockdown, sessionId), LOCKDOWN_E_SUCCESS);
    free(sessionId);
    // An unknown host id is refused.
    QCOMPARE(lockdownd_start_session(session.lockdown, "00000000-0000-0000-0000-000000000000",
                                     nullptr, nullptr),
             LOCKDOWN_E_INVALID_HOST_ID);
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
        QCOMPARE(int(lockdownd_start_service(session.lockdown, service.toLatin1().constData(),
                                             &descriptor)),
                 expected);
        if (descriptor) {
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
    Afc afc(session.afc());
    QVERIFY(afc);
    const QByteArray bytes = patternBytes(50 * 1024 * 1024, 7);
    QVERIFY(writeAfcFile(afc.get(), "/Downloads/big.bin", bytes));
    afc_error_t error = AFC_E_UNKNOWN_ERROR;
    QCOMPARE(afcFileInfo(afc.get(), "/Downloads/big.bin", &error).value("st_size"),
             QString::number(bytes.size()));

    // The bytes landed in the device's media folder and come back unchanged.
    const QByteArray expectedHash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha1);
    const QByteArray host = readFile(mSim.mediaDir(kPhone) + "/Downloads/big.bin");
    QCOMPARE(QCryptographicHash::hash(host, QCryptographicHash::Sha1), expectedHash);
    const QByteArray back = readAfcFile(afc.get(), "/Downloads/big.bin");
    QCOMPARE(back.size(), bytes.size());
    QCOMPARE(QCryptographicHash::hash(back, QCryptographicHash::Sha1), expectedHash);
}

void TestDevsimApi::afcFileKinds_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("size");
    QTest::newRow("file above 4 GiB")
        << "/DCIM/100APPLE/IMG_0002.MOV" << int(AFC_E_SUCCESS) << "S_IFREG"
        << "5368709120";
    QTest::newRow("folder") << "/DCIM" << int(AFC_E_SUCCESS) << "S_IFDIR" << QString();
    QTest::newRow("symbolic link")
        << "/Books/latest.epub" << int(AFC_E_SUCCESS) << "S_IFLNK" << QString();
    QTest::newRow("relative path") << "Books/Sample.epub" << int(AFC_E_SUCCESS) << "S_IFREG"
                                   << "524288";
    QTest::newRow("missing") << "/DCIM/none.jpg" << int(AFC_E_OBJECT_NOT_FOUND) << QString()
                             << QString();
}

void TestDevsimApi::afcFileKinds()
{
    QFETCH(QString, path);
    QFETCH(int, error);
    QFETCH(QString, kind);
    QFETCH(QString, size);
    Session session(kPhone);
    Afc afc(session.afc());
    QVERIFY(afc);
    afc_error_t rc = AFC_E_UNKNOWN_ERROR;
    const QMap<QString, QString> info = afcFileInfo(afc.get(), path, &rc);
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
    QCOMPARE(afc_make_directory(afc.get(), "/Scratch/a/b"), AFC_E_SUCCESS);
    QVERIFY(writeAfcFile(afc.get(), "/Scratch/a/b/note.txt", "hello"));
    QCOMPARE(readDirectory(afc.get(), "/Scratch/a/b"), QStringList({"note.txt"}));
    QCOMPARE(afc_remove_path(afc.get(), "/Scratch/a"), AFC_E_DIR_NOT_EMPTY);
    QCOMPARE(afc_rename_path(afc.get(), "/Scratch/a/b/note.txt", "/Scratch/moved.txt"),
             AFC_E_SUCCESS);
    QCOMPARE(readAfcFile(afc.get(), "/Scratch/moved.txt", 3), QByteArray("hello"));
    QCOMPARE(afc_remove_path(afc.get(), "/Scratch/a/b"), AFC_E_SUCCESS);
    QCOMPARE(afc_remove_path(afc.get(), "/Scratch/a/b"), AFC_E_OBJECT_NOT_FOUND);
    QCOMPARE(readDirectory(afc.get(), "/Scratch"), QStringList({"a", "moved.txt"}));
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
    const QStringList root = readDirectory(afc.get(), "/");
    QVERIFY(root.contains("DCIM") && root.contains("iTunes_Control"));
    QCOMPARE(readDirectory(afc.get(), "/../../.."), root);
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
    QCOMPARE(afcFileInfo(afc.get(), "/private/var/mobile/Media/DCIM", &rc).value("st_ifmt"),
             QString("S_IFDIR"));
    QCOMPARE(readDirectory(afc.get(), "/private/var/mobile/Applications").size(), 2);
}

void TestDevsimApi::hotPlugEventsReachSubscribers()
{
    char* raw = nullptr;
    uint32_t rawSize = 0;
    QCOMPARE(usbmuxd_read_pair_record(kPad.toLatin1().constData(), &raw, &rawSize), 0);
    const QByteArray record(raw, int(rawSize));
    free(raw);
    QCOMPARE(idevice_event_subscribe(recordEvent, nullptr), IDEVICE_E_SUCCESS);
    // Devices already attached are announced first.
    QTRY_VERIFY(events().contains("add " + kPhone) && events().contains("add " + kPad));

    const DeviceProfile plugged(testUdid(9));
    QVERIFY(mSim.attach(plugged));
    QTRY_VERIFY(events().contains("add " + plugged.udid()));
    QVERIFY(mSim.detach(plugged.udid()));
    QTRY_VERIFY(events().contains("remove " + plugged.udid()));
    // A host saving the pair record of an attached device makes usbmuxd announce it.
    QCOMPARE(usbmuxd_save_pair_record_with_device_id(kPad.toLatin1().constData(), 2,
                                                     record.constData(), uint32_t(record.size())),
             0);
    QTRY_VERIFY(events().contains("paired " + kPad));
    idevice_event_unsubscribe();
    QCOMPARE(events().count("add " + plugged.udid()), 1);
    QCOMPARE(events().count("remove " + plugged.udid()), 1);
    QVERIFY(!events().contains("remove " + kPhone));
}

void TestDevsimApi::detachCutsOpenConnections()
{
    const DeviceProfile profile(testUdid(11));
    QVERIFY(mSim.attach(profile));
    Session session(profile.udid());
    QVERIFY(session.ok());
    QVERIFY(mSim.detach(profile.udid()));
    QCOMPARE(globalValue(session.lockdown, "DeviceName"), QString("<failed>"));
    idevice_t device = nullptr;
    QVERIFY(idevice_new(&device, profile.udid().toLatin1().constData()) != IDEVICE_E_SUCCESS);
    // Attached again, it answers again.
    QVERIFY(mSim.attach(profile));
    QVERIFY(Session(profile.udid()).ok());
}

void TestDevsimApi::stateSurvivesRestart()
{
    QTemporaryDir state;
    const DeviceProfile profile(testUdid(21), "Before");
    for (int run = 0; run < 2; ++run) {
        DevSim sim;
        QVERIFY(sim.start({sim.writeProfile(profile.json())}, nullptr, {"--state", state.path()}));
        Session session(profile.udid());
        Afc afc(session.afc());
        QVERIFY(afc);
        if (run == 0) {
            QCOMPARE(lockdownd_set_value(session.lockdown, nullptr, "DeviceName",
                                         plist_new_string("After")),
                     LOCKDOWN_E_SUCCESS);
            QVERIFY(writeAfcFile(afc.get(), "/kept.txt", "still here"));
        } else {
            QCOMPARE(globalValue(session.lockdown, "DeviceName"), QString("After"));
            QCOMPARE(readAfcFile(afc.get(), "/kept.txt"), QByteArray("still here"));
        }
    }
    // mSim's environment comes back when the inner simulator stops.
    QVERIFY(qgetenv("USBMUXD_SOCKET_ADDRESS").contains(mSim.socketPath().toUtf8()));
}

void TestDevsimApi::afcWriteKeepsOnlyPartOfEachWrite()
{
    const DeviceProfile profile =
        DeviceProfile(testUdid(31)).faults(QJsonObject{{"afcWriteLimit", 1000}});
    QVERIFY(mSim.attach(profile));
    Session session(profile.udid());
    Afc afc(session.afc());
    QVERIFY(afc);
    // The host is told every write succeeded...
    const QByteArray bytes = patternBytes(3 * 4096, 3);
    QVERIFY(writeAfcFile(afc.get(), "/partial.bin", bytes, 4096));
    // ...but the device kept only the first 1000 bytes of each.
    QCOMPARE(readAfcFile(afc.get(), "/partial.bin"),
             bytes.mid(0, 1000) + bytes.mid(4096, 1000) + bytes.mid(8192, 1000));
}

void TestDevsimApi::serviceConnectionDroppedAfterBytes()
{
    const DeviceProfile profile =
        DeviceProfile(testUdid(32))
            .sizedFile("/big.bin", 1 << 20)
            .faults(QJsonObject{{"dropAfterBytes", 100000}, {"dropService", "com.apple.afc"}});
    QVERIFY(mSim.attach(profile));
    Session session(profile.udid());
    Afc afc(session.afc());
    QVERIFY(afc);
    // The connection ends inside the file: the host gets the first reads, then the
    // connection fails (libimobiledevice does not notice the cut inside a packet, so
    // the packet that was cut may still count as whole).
    const QByteArray got = readAfcFile(afc.get(), "/big.bin");
    QVERIFY2(got.size() >= 65536 && got.size() <= 2 * 65536,
             qPrintable(QString::number(got.size())));
    afc_error_t rc = AFC_E_SUCCESS;
    afcFileInfo(afc.get(), "/big.bin", &rc);
    QVERIFY(rc != AFC_E_SUCCESS);
    // Lockdown itself is not affected.
    QCOMPARE(globalValue(session.lockdown, "DeviceName"), QString("Test iPhone"));
}

KAVREL_TEST_MAIN(TestDevsimApi)
#include "tst_devsim_api.moc"
