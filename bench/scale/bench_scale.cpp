// Load and scale through one DeviceManager against kavrel-devsim:
//   bench-scale soak CYCLES REPORTS   install/uninstall cycles, then information reports;
//                                     resident memory and open descriptors every 50
//   bench-scale many DEVICES EVENTS   information, sizes and icons on every device at
//                                     once against one device alone, and a hot-plug storm
// Every line of the result starts with "RESULT" (run.sh collects them).

#include "DevSim.h"
#include "DeviceListener.h"
#include "DeviceManager.h"
#include "ZipBuilder.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QMap>
#include <QMutex>
#include <QTextStream>
#include <QThread>

#include <cstdio>
#include <functional>

using kavreltest::DeviceProfile;
using kavreltest::DevSim;

namespace {

const QString kAppId = QStringLiteral("com.kavrel.soak");

// Pumps events until done() holds or the time is up; false on time-out.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 120000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        // A host's event loop deletes the jobs the manager let go (deleteLater) as
        // control returns to it; processEvents() alone never does, and they would
        // pile up as if the library kept them.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QThread::msleep(1);
    }
    return true;
}

long openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::System)
        .size();
}

double residentMb()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.value(1).toDouble() * 4096 / (1024 * 1024);
}

QJsonObject app(const QString& id)
{
    return QJsonObject{{"bundleId", id},
                       {"name", "Bench"},
                       {"version", "1.0"},
                       {"bundleSize", 40960},
                       {"documentsSize", 8192}};
}

bool writeIpa(const QString& path)
{
    const QByteArray info =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
        "<key>CFBundleIdentifier</key><string>com.kavrel.soak</string>"
        "<key>CFBundleName</key><string>Soak</string>"
        "<key>CFBundleExecutable</key><string>Soak</string>"
        "<key>CFBundleVersion</key><string>1.0</string></dict></plist>";
    return kavreltest::ZipBuilder()
        .add("Payload/Soak.app/Info.plist", info)
        .add("Payload/Soak.app/Soak", QByteArray(64 * 1024, 'x'))
        .write(path, true);
}

struct Sample
{
    int at;
    double mb;
    long fds;
};

void printGrowth(const char* what, const QList<Sample>& samples)
{
    for (const Sample& s : samples)
        printf("RESULT %s %d rss_mb=%.2f fds=%ld\n", what, s.at, s.mb, s.fds);
    if (samples.size() < 2)
        return;
    // From the first sample on, so one-time start-up costs are not counted as growth.
    const Sample& a = samples.first();
    const Sample& b = samples.last();
    const double per100 = 100.0 / (b.at - a.at);
    printf("RESULT %s growth_per_100 rss_mb=%.3f fds=%.2f\n", what, (b.mb - a.mb) * per100,
           (b.fds - a.fds) * per100);
}

int soak(int cycles, int reports)
{
    DevSim sim;
    DeviceProfile phone(kavreltest::testUdid(1), "Soak");
    if (!sim.start(QList<DeviceProfile>{phone}))
        return 1;
    const QString ipa = sim.tempDir() + "/soak.ipa";
    if (!writeIpa(ipa))
        return 1;
    DeviceManager manager;
    int failures = 0;
    QObject::connect(&manager, &DeviceManager::signalDevProgress, [&](const QString& line) {
        const QStringList f = line.split(':');
        if (f.size() == 6 && f[4] == "0" && f[5] == "1")
            ++failures;
    });
    QList<Sample> samples;
    for (int i = 1; i <= cycles; ++i) {
        manager.installIpa(phone.udid(), ipa, kAppId, false);
        waitFor([&] { return manager.canInstall(); });
        manager.uninstallApp(phone.udid(), kAppId);
        waitFor([&] { return manager.canInstall(); });
        if (i % 50 == 0 || i == 1)
            samples.append({i, residentMb(), openDescriptors()});
    }
    printGrowth("soak-cycles", samples);
    printf("RESULT soak-cycles failures=%d\n", failures);

    samples.clear();
    int answered = 0;
    QObject::connect(&manager, &DeviceManager::signalDevInfo,
                     [&](const QString&, const QString& info) { answered += !info.isEmpty(); });
    for (int i = 1; i <= reports; ++i) {
        const int before = answered;
        manager.getDevInfo(phone.udid());
        waitFor([&] { return answered > before; }, 30000);
        if (i % 50 == 0 || i == 1)
            samples.append({i, residentMb(), openDescriptors()});
    }
    printGrowth("soak-reports", samples);
    printf("RESULT soak-reports answered=%d of %d\n", answered, reports);
    return 0;
}

// Wall time of information, sizes and icons requested for every udid at once.
void timeQueries(DeviceManager& manager, const QStringList& udids, const char* label)
{
    QElapsedTimer timer;
    int infos = 0;
    auto c =
        QObject::connect(&manager, &DeviceManager::signalDevInfo,
                         [&](const QString&, const QString& info) { infos += !info.isEmpty(); });
    timer.start();
    for (const QString& udid : udids)
        manager.getDevInfo(udid);
    waitFor([&] { return infos == udids.size(); });
    printf("RESULT %s info devices=%d answered=%d ms=%lld\n", label, int(udids.size()), infos,
           timer.elapsed());
    QObject::disconnect(c);

    // Sizes and icons: one job of each kind at a time in the manager, so devices are
    // asked one after the other, each waiting for its done signal (its last batch).
    int sized = 0, iconed = 0;
    c = QObject::connect(&manager, &DeviceManager::signalAppSize,
                         [&](const QString&, const QString&) { ++sized; });
    auto c2 = QObject::connect(&manager, &DeviceManager::signalAppIconsReady,
                               [&](const QString&, const QString&) { ++iconed; });
    timer.restart();
    for (const QString& udid : udids) {
        const int s = sized, i = iconed;
        manager.getAppSizes(udid, {kAppId});
        manager.getAppIcons(udid, {kAppId});
        waitFor([&] { return sized > s && iconed > i; });
    }
    printf("RESULT %s sizes+icons devices=%d sized=%d iconed=%d ms=%lld\n", label,
           int(udids.size()), sized, iconed, timer.elapsed());
    QObject::disconnect(c);
    QObject::disconnect(c2);
}

int many(int devices, int events)
{
    DevSim sim;
    QList<DeviceProfile> profiles;
    for (int i = 0; i < devices; ++i)
        profiles.append(
            DeviceProfile(kavreltest::testUdid(100 + i), "Lab").apps(QJsonArray{app(kAppId)}));
    if (!sim.start(profiles))
        return 1;
    QStringList udids;
    for (const DeviceProfile& p : profiles)
        udids.append(p.udid());

    DeviceManager manager;
    timeQueries(manager, udids.mid(0, 1), "one");
    timeQueries(manager, udids, "many");

    // Hot-plug storm: detach and attach devices in turn; each event must reach the
    // listener once, and each device's events must alternate, detach first.
    QMutex lock;
    QMap<QString, QString> seen; // udid -> "-+-+..."
    DeviceListener listener;
    QObject::connect(
        &listener, &DeviceListener::DeviceAdded, &listener,
        [&](const char* u) {
            QMutexLocker g(&lock);
            seen[u] += '+';
        },
        Qt::DirectConnection);
    QObject::connect(
        &listener, &DeviceListener::DeviceRemoved, &listener,
        [&](const char* u) {
            QMutexLocker g(&lock);
            seen[u] += '-';
        },
        Qt::DirectConnection);
    // The initial attach events of the devices already present come first; skip them.
    waitFor(
        [&] {
            QMutexLocker g(&lock);
            return seen.size() == devices;
        },
        10000);
    {
        QMutexLocker g(&lock);
        seen.clear();
    }
    QElapsedTimer timer;
    timer.start();
    QMap<QString, QString> expected;
    for (int e = 0; e < events; ++e) {
        const DeviceProfile& p = profiles[(e / 2) % devices];
        const bool detach = e % 2 == 0;
        const bool ok = detach ? sim.detach(p.udid()) : sim.attach(p);
        if (ok)
            expected[p.udid()] += detach ? '-' : '+';
    }
    int total = 0;
    for (const QString& s : qAsConst(expected))
        total += s.size();
    waitFor(
        [&] {
            QMutexLocker g(&lock);
            int n = 0;
            for (const QString& s : qAsConst(seen))
                n += s.size();
            return n >= total;
        },
        30000);
    QMutexLocker g(&lock);
    int got = 0;
    for (const QString& s : qAsConst(seen))
        got += s.size();
    printf("RESULT storm events=%d delivered=%d in_order=%s ms=%lld\n", total, got,
           seen == expected ? "yes" : "no", timer.elapsed());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const QStringList args = app.arguments();
    if (args.value(1) == "soak")
        return soak(args.value(2, "200").toInt(), args.value(3, "500").toInt());
    if (args.value(1) == "many")
        return many(args.value(2, "32").toInt(), args.value(3, "500").toInt());
    fprintf(stderr, "usage: bench-scale soak [CYCLES] [REPORTS] | many [DEVICES] [EVENTS]\n");
    return 2;
}
