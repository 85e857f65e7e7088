// kavrel-devsim under hostile use: malformed usbmuxd, lockdown and service input gets an
// error answer or a closed connection, never a crash.

#include "DevSim.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <arpa/inet.h>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kavreltest;

namespace {

QByteArray le32(quint32 v)
{
    v = qToLittleEndian(v);
    return QByteArray(reinterpret_cast<const char*>(&v), sizeof v);
}

QByteArray muxPacket(const QByteArray& body)
{
    return le32(quint32(16 + body.size())) + le32(1) + le32(8) + le32(1) + body;
}

QByteArray muxRequest(const char* messageType, quint64 deviceId = 0, int port = -1)
{
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "MessageType", plist_new_string(messageType));
    if (deviceId)
        plist_dict_set_item(dict, "DeviceID", plist_new_uint(deviceId));
    if (port >= 0)
        plist_dict_set_item(dict, "PortNumber", plist_new_uint(htons(quint16(port))));
    return muxPacket(plistBytes(dict, false));
}

// A raw client of the simulator's usbmuxd socket.
class RawClient
{
public:
    explicit RawClient(const QString& path)
    {
        mFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.toLocal8Bit().constData(), sizeof(addr.sun_path) - 1);
        if (::connect(mFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            ::close(mFd);
            mFd = -1;
        }
    }
    ~RawClient()
    {
        if (mFd >= 0)
            ::close(mFd);
    }
    bool ok() const { return mFd >= 0; }
    bool send(const QByteArray& bytes)
    {
        return ::send(mFd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL) == bytes.size();
    }
    // Exactly size bytes, or fewer when the peer closes or the time runs out.
    QByteArray read(int size, int timeoutMs = 5000)
    {
        QByteArray out;
        QElapsedTimer timer;
        timer.start();
        while (out.size() < size && timer.elapsed() < timeoutMs) {
            pollfd p{mFd, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0)
                continue;
            char buffer[65536];
            ssize_t n = ::recv(mFd, buffer, size_t(qMin(size - out.size(), int(sizeof buffer))), 0);
            if (n <= 0) {
                mClosed = true;
                break;
            }
            out.append(buffer, int(n));
        }
        return out;
    }
    bool closedByPeer()
    {
        read(1 << 20);
        return mClosed;
    }
    bool closed() const { return mClosed; }
    // One lockdown or service message (32-bit big-endian length, then a property list);
    // null when none comes in time.
    plist_t message(int timeoutMs)
    {
        const QByteArray length = read(4, timeoutMs);
        if (length.size() < 4)
            return nullptr;
        const QByteArray body = read(int(qFromBigEndian<quint32>(length.constData())));
        plist_t dict = nullptr;
        plist_from_memory(body.constData(), uint32_t(body.size()), &dict);
        return dict;
    }
    // One usbmuxd answer: the Result number, or -1 for a plist without one, -2 for none.
    qint64 muxResult()
    {
        QByteArray header = read(16);
        if (header.size() < 16)
            return -2;
        const QByteArray body = read(int(qFromLittleEndian<quint32>(header.constData())) - 16);
        plist_t dict = nullptr;
        plist_from_xml(body.constData(), uint32_t(body.size()), &dict);
        uint64_t result = 0;
        plist_t number = dict ? plist_dict_get_item(dict, "Number") : nullptr;
        if (number)
            plist_get_uint_val(number, &result);
        const qint64 out = number ? qint64(result) : -1;
        plist_free(dict);
        return out;
    }

private:
    int mFd = -1;
    bool mClosed = false;
};

// A lockdown or service message around body.
QByteArray framed(const QByteArray& body)
{
    const quint32 n = qToBigEndian(quint32(body.size()));
    return QByteArray(reinterpret_cast<const char*>(&n), 4) + body;
}

QByteArray request(const char* key, const char* name, const char* service = nullptr)
{
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, key, plist_new_string(name));
    if (service)
        plist_dict_set_item(dict, "Service", plist_new_string(service));
    return framed(plistBytes(dict, false));
}

} // namespace

class TestDevsimRobust : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanup();
    void malformedUsbmuxInput_data();
    void malformedUsbmuxInput();
    void malformedServiceInput_data();
    void malformedServiceInput();

private:
    DevSim mSim;
};

void TestDevsimRobust::initTestCase()
{
    QString error;
    QVERIFY2(mSim.start({"iphone"}, &error), qPrintable(error));
}

void TestDevsimRobust::cleanup()
{
    // Whatever a test sent, the simulator still runs and still serves.
    QVERIFY2(mSim.isRunning(), qPrintable(mSim.log()));
    QVERIFY(Session(kPhone).ok());
    QVERIFY2(!mSim.log().contains("Sanitizer"), qPrintable(mSim.log()));
}

void TestDevsimRobust::malformedUsbmuxInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<qint64>("expectedResult"); // -2: no answer
    QTest::addColumn<bool>("closed");

    QTest::newRow("truncated header") << QByteArray("\x20\0\0\0\x01\0", 6) << qint64(-2) << true;
    QTest::newRow("oversized length")
        << le32(0x7fffffff) + le32(1) + le32(8) + le32(1) << qint64(1) << true;
    QTest::newRow("invalid plist")
        << muxPacket("<plist><dict><key>MessageType") << qint64(1) << false;
    QTest::newRow("unknown command") << muxRequest("Explode") << qint64(1) << false;
    QTest::newRow("connect, unknown device")
        << muxRequest("Connect", 999, 62078) << qint64(2) << false;
    QTest::newRow("missing pair record") << muxRequest("ReadPairRecord") << qint64(22) << false;
}

void TestDevsimRobust::malformedUsbmuxInput()
{
    QFETCH(QByteArray, bytes);
    QFETCH(qint64, expectedResult);
    QFETCH(bool, closed);
    RawClient client(mSim.socketPath());
    QVERIFY(client.ok());
    QVERIFY(client.send(bytes));
    if (expectedResult == -2) {
        // Half a packet and then silence: no answer comes, and closing our side must not
        // hurt the simulator (checked in cleanup()).
        QCOMPARE(client.read(1, 300).size(), 0);
        return;
    }
    QCOMPARE(client.muxResult(), expectedResult);
    if (closed) {
        QVERIFY(client.closedByPeer());
    } else {
        // The connection still answers (a BUID, no result number).
        QVERIFY(client.send(muxRequest("ReadBUID")));
        QCOMPARE(client.muxResult(), qint64(-1));
    }
}

void TestDevsimRobust::malformedServiceInput_data()
{
    QTest::addColumn<QString>("service"); // "lockdown" or the service started for the test
    QTest::addColumn<QByteArray>("bytes");
    // "Key=Value" of the answer, "<closed>" when the service hangs up, "<silent>" when it
    // waits for the rest
    QTest::addColumn<QString>("expected");
    const QByteArray notPlist = framed("this is no property list");
    const QByteArray huge = QByteArray("\x7f\xff\xff\xff") + "abc";
    const char* ld = "lockdown";
    QTest::newRow("lockdown: huge length") << ld << QByteArray("\xff\xff\xff\xff", 4) << "<closed>";
    QTest::newRow("lockdown: truncated")
        << ld << framed(QByteArray(100, 'x')).left(30) << "<silent>";
    QTest::newRow("lockdown: not a plist") << ld << notPlist << "Error=InvalidRequest";
    QTest::newRow("lockdown: service without session")
        << ld << request("Request", "StartService", "com.apple.afc") << "Error=SessionInactive";
    const char* ip = "com.apple.mobile.installation_proxy";
    QTest::newRow("instproxy: unknown command")
        << ip << request("Command", "Explode") << "Error=UnknownCommand";
    QTest::newRow("instproxy: oversized") << ip << huge << "<closed>";
    QTest::newRow("house_arrest: no identifier")
        << "com.apple.mobile.house_arrest" << request("Command", "VendContainer")
        << "Error=MissingIdentifier";
    QTest::newRow("springboard: unknown command")
        << "com.apple.springboardservices" << request("command", "explode")
        << "Error=UnknownCommand";
    QTest::newRow("notification_proxy: junk, then shutdown")
        << "com.apple.mobile.notification_proxy"
        << notPlist + framed(plistBytes(plist_new_array(), false)) + request("Command", "Explode") +
               request("Command", "Shutdown")
        << "Command=ProxyDeath";
}

void TestDevsimRobust::malformedServiceInput()
{
    QFETCH(QString, service);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, expected);
    Session session(kPhone);
    uint32_t deviceId = 0;
    QVERIFY(session.ok() && idevice_get_handle(session.device, &deviceId) == IDEVICE_E_SUCCESS);
    quint16 port = 62078;
    if (service != "lockdown") {
        lockdownd_service_descriptor_t descriptor = nullptr;
        QCOMPARE(lockdownd_start_service(session.lockdown, qPrintable(service), &descriptor),
                 LOCKDOWN_E_SUCCESS);
        port = descriptor->port;
        lockdownd_service_descriptor_free(descriptor);
    }
    RawClient client(mSim.socketPath());
    QVERIFY(client.send(muxRequest("Connect", deviceId, port)) && client.muxResult() == 0);
    QVERIFY(client.send(bytes));
    if (expected == "<closed>") {
        QVERIFY(client.closedByPeer());
        return;
    }
    plist_t answer = client.message(expected == "<silent>" ? 1000 : 5000);
    if (expected == "<silent>") {
        QVERIFY(!answer && !client.closed());
        return;
    }
    QVERIFY(answer);
    char* text = nullptr;
    if (plist_t node = plist_dict_get_item(answer, qPrintable(expected.section('=', 0, 0))))
        plist_get_string_val(node, &text);
    QCOMPARE(QString::fromUtf8(text), expected.section('=', 1));
    free(text);
    plist_free(answer);
}

KAVREL_TEST_MAIN(TestDevsimRobust)
#include "tst_devsim_robust.moc"
