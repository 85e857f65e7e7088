#include "DeviceInstaller.h"

#include "DeviceHelper.h"
#include "OperationInfo.h"
#include "ProgressLine.h"
#include "Utility.h"

#include <QDebug>
#include <QTextCodec>
#include <QVariantMap>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <thread>

#include <zip.h>

namespace {

// The device library calls the status and notification callbacks on threads of its
// own, without anything that leads back to an installer's state, so the running
// operation's state is process-wide. The manager runs one installer at a time.
std::atomic<int> gNotified{0};
std::atomic<int> gCommandCompleted{0};
std::atomic<int> gErrorOccurred{0};
std::atomic<int> gNotificationExpected{0};
std::atomic<int> gWaitForCommand{0};
std::atomic<bool> gFinalStage{false};
std::atomic<bool> gIsUpgrade{false};

// Texts shared with the callback threads; a null array means "none". Guarded by standard
// mutexes, which ThreadSanitizer follows (Qt's are invisible to it).
std::mutex gTextLock;
QByteArray gLastStatus;
QByteArray gAppId;
QByteArray gErrorMessage;
// The installer that prepared last: the texts are its own. A session deleted after the
// next operation has started (its worker returned after the final line) leaves them
// alone instead of clearing the running operation's app id.
const void* gTextOwner = nullptr;

// The stored failure line is written on the installer's pool thread and read by the
// manager's thread once the job has finished.
std::mutex gFailureLineLock;
QString gLastFailureLine;

// libimobiledevice runs an asynchronous command's status loop on a thread of its own and,
// when the command ends by itself, forgets that thread without joining or detaching it:
// each install, upgrade, uninstall or archive would keep a thread stack mapped for good.
// A status thread that has seen its command's last status therefore detaches itself as it
// exits, and the session waits for that exit before freeing the client, which then has
// no thread left to join. A status thread that is still waiting (the device fell silent)
// is joined by the client's free as usual.
class StatusThreadExit
{
public:
    ~StatusThreadExit()
    {
        if (!mOwner)
            return;
        pthread_detach(pthread_self());
        std::lock_guard<std::mutex> guard(sLock);
        if (--sFinishing[mOwner] == 0)
            sFinishing.erase(mOwner);
        sExited.notify_all();
    }
    // On a status thread of owner's client: a status that ends the command (an error, no
    // status name, or "Complete", as the device library decides) marks the thread as one
    // that ends by itself.
    static void note(const void* owner, plist_t status)
    {
        thread_local StatusThreadExit self;
        plist_t name = status ? plist_dict_get_item(status, "Status") : nullptr;
        char* text = nullptr;
        if (name && plist_get_node_type(name) == PLIST_STRING)
            plist_get_string_val(name, &text);
        const bool last = !status || plist_dict_get_item(status, "Error") || !text ||
                          strcmp(text, "Complete") == 0;
        free(text);
        if (last && !self.mOwner) {
            std::lock_guard<std::mutex> guard(sLock);
            self.mOwner = owner;
            ++sFinishing[owner];
        }
    }
    // Waits a little for owner's status threads that saw their last status to be gone.
    static void awaitExits(const void* owner)
    {
        std::unique_lock<std::mutex> guard(sLock);
        sExited.wait_for(guard, std::chrono::seconds(2),
                         [owner] { return sFinishing.count(owner) == 0; });
    }

private:
    const void* mOwner = nullptr; // set once the thread will end by itself
    static std::mutex sLock;
    static std::condition_variable sExited;
    static std::map<const void*, int> sFinishing;
};
std::mutex StatusThreadExit::sLock;
std::condition_variable StatusThreadExit::sExited;
std::map<const void*, int> StatusThreadExit::sFinishing;

const char* const kStagingDir = "PublicStaging";
const char* const kArchivesDir = "ApplicationArchives";
const int kCopyChunk = 8192;
const int kPathBuffer = 1024;

QByteArray readText(const QByteArray& text)
{
    std::lock_guard<std::mutex> guard(gTextLock);
    return text;
}

void writeText(QByteArray& text, const QByteArray& value)
{
    std::lock_guard<std::mutex> guard(gTextLock);
    text = value;
}

// The current app id as the lines write it: null when none is known.
QString currentAppId()
{
    const QByteArray appid = readText(gAppId);
    return appid.isNull() ? QString() : QString::fromLatin1(appid);
}

QString stringItem(plist_t dict, const char* key)
{
    plist_t node = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (!node || plist_get_node_type(node) != PLIST_STRING)
        return QString();
    char* value = DeviceHelper::copyString(node);
    const QString text = QString::fromUtf8(value);
    free(value);
    return text;
}

// Starts a lockdown service; a port of 0 counts as a failure.
bool startService(lockdownd_client_t lockdown, const char* name,
                  lockdownd_service_descriptor_t* service)
{
    *service = nullptr;
    if (lockdownd_start_service(lockdown, name, service) == LOCKDOWN_E_SUCCESS && *service &&
        (*service)->port != 0)
        return true;
    if (*service)
        lockdownd_service_descriptor_free(*service);
    *service = nullptr;
    return false;
}

QByteArray lastComponent(const QByteArray& path)
{
    const int slash = path.lastIndexOf('/');
    return slash < 0 ? path : path.mid(slash + 1);
}

void sleepStep()
{
    std::this_thread::sleep_for(std::chrono::nanoseconds(500000000));
}

} // namespace

DeviceInstaller::DeviceInstaller(QObject* manager, const OperationInfo* operation)
    : DeviceBase(nullptr, operation ? operation->mUdid : QString()),
      mOperation(const_cast<OperationInfo*>(operation)),
      mLocalPath(nullptr),
      mNpClient(nullptr),
      mInstproxyClient(nullptr),
      mAfcClient(nullptr),
      mCommand(KCommandUnknown)
{
    qDebug() << "DeviceInstaller::DeviceInstaller, udid: " << mUdid;
    // The manager lives on the host's thread, so these deliveries are queued.
    if (manager) {
        connect(this, SIGNAL(signalDevProgress(QString)), manager, SLOT(slotDevProgress(QString)));
        connect(this, SIGNAL(signalFinished(QString)), manager, SLOT(slotInstallFinished(QString)));
        connect(this, SIGNAL(signalAppUninstalled(QString)), manager,
                SLOT(slotAppUninstalled(QString)));
    }
    gNotified = 0;
    gIsUpgrade = false;
    mErrorEnum = staticMetaObject.enumerator(staticMetaObject.indexOfEnumerator("EInstError"));
    if (!prepare())
        qDebug() << "failed to prepare to get applist";
    // The operation runs even after a failed preparation: its own steps then fail on the
    // missing clients and store their own failure lines.
    start();
}

DeviceInstaller::DeviceInstaller(QObject* parent, const QString& udid)
    : DeviceBase(parent, udid),
      mOperation(nullptr),
      mLocalPath(nullptr),
      mNpClient(nullptr),
      mInstproxyClient(nullptr),
      mAfcClient(nullptr),
      mCommand(KCommandUnknown)
{
    gNotified = 0;
    if (!prepare())
        qDebug() << "failed to prepare to get applist";
}

DeviceInstaller::~DeviceInstaller()
{
    cleanUp();
}

QString DeviceInstaller::lastFailureLine()
{
    std::lock_guard<std::mutex> guard(gFailureLineLock);
    return gLastFailureLine;
}

void DeviceInstaller::storeFailureLine(const QString& line)
{
    std::lock_guard<std::mutex> guard(gFailureLineLock);
    gLastFailureLine = line;
}

bool DeviceInstaller::prepare()
{
    qDebug() << "DeviceInstaller::prepare";
    {
        std::lock_guard<std::mutex> guard(gTextLock);
        gTextOwner = this;
    }
    if (!isInited()) {
        qDebug() << "Error, not inited yet.";
        return end(KInstInitError);
    }
    lockdownd_service_descriptor_t service = nullptr;
    if (!startService(mLockdown, NP_SERVICE_NAME, &service)) {
        qDebug() << "Could not start com.apple.mobile.notification_proxy!";
        return end(KInstServiceError);
    }
    const np_error_t npError = np_client_new(mDevice, service, &mNpClient);
    lockdownd_service_descriptor_free(service);
    if (npError != NP_E_SUCCESS) {
        mNpClient = nullptr;
        qDebug() << "Could not connect to notification_proxy!";
        return end(KInstServiceError);
    }
    np_set_notify_callback(mNpClient, &DeviceInstaller::notifyCallback, nullptr);
    const char* names[] = {NP_APP_INSTALLED, NP_APP_UNINSTALLED, nullptr};
    np_observe_notifications(mNpClient, names);

    if (!startService(mLockdown, INSTPROXY_SERVICE_NAME, &service)) {
        qDebug() << "Could not start com.apple.mobile.installation_proxy!";
        return end(KInstServiceError);
    }
    const instproxy_error_t error = instproxy_client_new(mDevice, service, &mInstproxyClient);
    lockdownd_service_descriptor_free(service);
    if (error != INSTPROXY_E_SUCCESS) {
        mInstproxyClient = nullptr;
        qDebug() << "Error, could not connect to installation_proxy!";
        return end(KInstServiceError);
    }
    resetOperationState();
    return end(KInstNoError);
}

void DeviceInstaller::resetOperationState()
{
    {
        std::lock_guard<std::mutex> guard(gTextLock);
        gLastStatus = QByteArray();
        gAppId = QByteArray();
        gErrorMessage = QByteArray();
    }
    gNotified = 0;
    gCommandCompleted = 0;
    gErrorOccurred = 0;
    gNotificationExpected = 0;
    gWaitForCommand = 0;
    gFinalStage = false;
    storeFailureLine(QString());
}

void DeviceInstaller::start()
{
    if (!mOperation) {
        qDebug() << "Error, operation info couldn't be NULL.";
        emitLine(ProgressLine::noOperation(mCommand), true);
        return;
    }
    switch (mOperation->mType) {
    case KOperationListApp:
        qDebug() << "Warning, try getAppList from DeviceAppListParallel";
        break;
    case KOperationInstall:
        installIpa(mOperation->mIpaPath, false);
        break;
    case KOperationUpgrade:
        installIpa(mOperation->mIpaPath, true);
        break;
    case KOperationUninstall:
        uninstallApp(mOperation->mAppid);
        break;
    case KOperationArchive:
        archiveApp(mOperation->mAppid, mOperation->mCopyPath, mOperation->mAppOnly,
                   mOperation->mSkipUninstall);
        break;
    default:
        qDebug("Warning, invalid operation type, %d", mOperation->mType);
        emitLine(ProgressLine::wrongOperationType(mOperation->mAppid), true);
        break;
    }
}

bool DeviceInstaller::end(EInstError error)
{
    const QString key = QString::fromLatin1(mErrorEnum.valueToKey(error));
    qDebug() << "DeviceInstaller::end, success: " << key;
    if (error == KInstNoError)
        return true;
    {
        // A session whose operation the manager has already ended (by its final line)
        // can still be waiting when the next one prepares; its failure would become
        // the next operation's finish line.
        std::lock_guard<std::mutex> guard(gTextLock);
        if (gTextOwner != this)
            return true;
    }
    const QByteArray message = readText(gErrorMessage);
    storeFailureLine(ProgressLine::failure(
        mCommand, message.isNull() ? key : QString::fromUtf8(message), currentAppId()));
    return true;
}

void DeviceInstaller::emitLine(const QString& line, bool final)
{
    const QString shown = ProgressLine::forEmission(line);
    if (final)
        emit signalFinished(shown);
    else
        emit signalDevProgress(shown);
}

void DeviceInstaller::notifyCallback(const char* notification, void* userData)
{
    Q_UNUSED(notification);
    Q_UNUSED(userData);
    gNotified = 1;
}

void DeviceInstaller::statusCallback(plist_t command, plist_t status, void* installer)
{
    StatusThreadExit::note(installer, status);
    auto* self = static_cast<DeviceInstaller*>(installer);
    const QString appid = currentAppId();
    const QString operation =
        gIsUpgrade ? QStringLiteral("Upgrade") : stringItem(command, "Command");
    if (!status || operation.isNull() || gErrorOccurred) {
        qDebug("%s: called with invalid data!\n", "status_cb");
        qDebug() << "status: " << status << "operation: " << operation
                 << "mError_occured: " << int(gErrorOccurred);
        self->emitLine(ProgressLine::wrongState(operation, appid), true);
        return;
    }

    plist_t percentNode = plist_dict_get_item(status, "PercentComplete");
    uint64_t percent = 0;
    if (percentNode && plist_get_node_type(percentNode) == PLIST_UINT)
        plist_get_uint_val(percentNode, &percent);
    else
        percentNode = nullptr;
    const QString statusText = stringItem(status, "Status");
    if (statusText == QLatin1String("Complete"))
        gCommandCompleted = 1;

    const bool finalStage = gFinalStage;
    if (!plist_dict_get_item(status, "Error")) {
        if (!percentNode && gCommandCompleted)
            self->emitLine(ProgressLine::statusComplete(operation, statusText, appid, finalStage),
                           finalStage);
        else if (!percentNode)
            self->emitLine(ProgressLine::statusPending(operation, statusText, appid, finalStage),
                           false);
        else
            self->emitLine(
                ProgressLine::statusPercent(operation, statusText, appid, percent, finalStage),
                false);
    } else {
        const QString error = stringItem(status, "Error");
        writeText(gErrorMessage, error.toUtf8());
        qDebug() << "operation: " << operation << ", err_msg: " << error << ", appid: " << appid;
        self->emitLine(ProgressLine::statusError(operation, error, appid), true);
        gErrorOccurred = 1;
    }
    writeText(gLastStatus, statusText.isNull() ? QByteArray() : statusText.toUtf8());
}

void DeviceInstaller::waitForCommand()
{
    // One step counter for both phases: the notification is awaited only while fewer
    // than ten steps have passed in all.
    int steps = 0;
    while (gWaitForCommand && !gCommandCompleted && !gErrorOccurred && !gNotified && steps < 60) {
        sleepStep();
        ++steps;
    }
    while (gNotificationExpected && !gNotified && !gErrorOccurred && steps < 10) {
        sleepStep();
        ++steps;
    }
}

void DeviceInstaller::cleanUp()
{
    qDebug() << "DeviceInstaller::cleanUp";
    if (mNpClient) {
        np_client_free(mNpClient);
        mNpClient = nullptr;
    }
    if (mInstproxyClient) {
        StatusThreadExit::awaitExits(this);
        instproxy_client_free(mInstproxyClient);
        mInstproxyClient = nullptr;
    }
    if (mAfcClient) {
        afc_client_free(mAfcClient);
        mAfcClient = nullptr;
    }
    // The host hears of an uninstall whatever the device said about it.
    if (mOperation && mOperation->mType == KOperationUninstall)
        emit signalAppUninstalled(mOperation->mAppid);
    free(mLocalPath);
    mLocalPath = nullptr;
    delete mOperation;
    mOperation = nullptr;
    std::lock_guard<std::mutex> guard(gTextLock);
    if (gTextOwner != this)
        return;
    gTextOwner = nullptr;
    gAppId = QByteArray();
    gLastStatus = QByteArray();
    gErrorMessage = QByteArray();
}

bool DeviceInstaller::installIpa(const QString& ipaPath, bool upgrade)
{
    qDebug() << "DeviceInstaller::installIpa, ipa: " << ipaPath;
    mCommand = upgrade ? KCommandUpgrade : KCommandInstall;
    if (upgrade)
        gIsUpgrade = true;
    if (mOperation)
        writeText(gAppId, mOperation->mAppid.toLatin1());

    // Local paths are handed to the file functions in the GBK encoding.
    QTextCodec* gbk = QTextCodec::codecForName("GBK");
    const QByteArray local = gbk ? gbk->fromUnicode(ipaPath) : ipaPath.toLocal8Bit();
    mLocalPath = strdup(local.constData());
    qDebug() << "will install ipa: " << mLocalPath;

    lockdownd_service_descriptor_t service = nullptr;
    if (!startService(mLockdown, AFC_SERVICE_NAME, &service)) {
        qDebug() << "Error, could not start com.apple.afc!";
        return end(KInstServiceError);
    }
    lockdownd_client_free(mLockdown);
    mLockdown = nullptr;
    const afc_error_t afcError = afc_client_new(mDevice, service, &mAfcClient);
    lockdownd_service_descriptor_free(service);
    if (afcError != AFC_E_SUCCESS) {
        mAfcClient = nullptr;
        qDebug() << "Error, could not connect to AFC!";
        return end(KInstServiceError);
    }

    struct stat st;
    if (stat(mLocalPath, &st) != 0) {
        qDebug("ERROR: stat: %s: %s", mLocalPath, strerror(errno));
        return end(KInstIpaOpenError);
    }
    int zipError = 0;
    zip* archive = zip_open(mLocalPath, 0, &zipError);
    if (!archive) {
        qDebug("ERROR: zip_open: %s: %d", mLocalPath, zipError);
        return end(KInstIpaOpenError);
    }

    char* buffer = nullptr;
    unsigned int length = 0;
    plist_t metadata = nullptr;
    plist_t sinf = nullptr;
    if (DeviceHelper::readZipEntry(archive, "iTunesMetadata.plist", 0, &buffer, &length) == 0)
        metadata = plist_new_data(buffer, length);
    free(buffer);
    buffer = nullptr;

    // The first Info.plist of the archive, wherever it lies, names the app.
    plist_t info = nullptr;
    if (DeviceHelper::readZipEntry(archive, "Info.plist", ZIP_FL_NODIR, &buffer, &length) == 0) {
        DeviceHelper::plistFromBuffer(buffer, length, &info);
        free(buffer);
        buffer = nullptr;
    }
    QString bundleName;
    if (info) {
        bundleName = stringItem(info, "CFBundleName");
        plist_t idNode = plist_dict_get_item(info, "CFBundleIdentifier");
        writeText(gAppId, idNode ? stringItem(info, "CFBundleIdentifier").toUtf8() : QByteArray());
        plist_free(info);
    }
    if (!bundleName.isNull()) {
        char sinfName[kPathBuffer];
        const QByteArray name = bundleName.toUtf8();
        const int n = snprintf(sinfName, sizeof sinfName, "Payload/%s.app/SC_Info/%s.sinf",
                               name.constData(), name.constData());
        if (n < 0 || n >= kPathBuffer) {
            qDebug() << "Error, out of memory!?";
            plist_free(metadata);
            return end(KInstIpaParseError);
        }
        if (DeviceHelper::readZipEntry(archive, sinfName, 0, &buffer, &length) == 0)
            sinf = plist_new_data(buffer, length);
        else
            qDebug() << "Warning: failed to get sinfname: " << sinfName;
        free(buffer);
    }
    zip_unchange_all(archive);
    zip_close(archive);

    const QByteArray appid = readText(gAppId);
    char stagingPath[kPathBuffer];
    const int n = snprintf(stagingPath, sizeof stagingPath, "%s/%s", kStagingDir,
                           lastComponent(appid).constData());
    bool uploaded = false;
    if (n < 0 || n >= kPathBuffer)
        qDebug() << "Error, out of memory!?";
    else
        uploaded = uploadIpa(QByteArray(stagingPath), upgrade);
    if (!uploaded) {
        plist_free(metadata);
        plist_free(sinf);
        return end(KInstArchiveCopyError);
    }

    gFinalStage = true;
    plist_t options = instproxy_client_options_new();
    if (sinf)
        instproxy_client_options_add(options, "ApplicationSINF", sinf, nullptr);
    if (metadata)
        instproxy_client_options_add(options, "iTunesMetadata", metadata, nullptr);
    if (upgrade)
        instproxy_upgrade(mInstproxyClient, stagingPath, options, &DeviceInstaller::statusCallback,
                          this);
    else
        instproxy_install(mInstproxyClient, stagingPath, options, &DeviceInstaller::statusCallback,
                          this);
    instproxy_client_options_free(options);
    plist_free(metadata);
    plist_free(sinf);

    gWaitForCommand = 1;
    gNotificationExpected = 1;
    waitForCommand();
    return end(KInstNoError);
}

// Streams the local file into the staging path in chunks; false after a failure that
// has been logged (the files are closed then).
bool DeviceInstaller::uploadIpa(const QByteArray& stagingPath, bool upgrade)
{
    FILE* file = fopen(mLocalPath, "rb");
    if (!file) {
        qDebug("Error, fopen: %s: %s", mLocalPath, strerror(errno));
        return false;
    }
    const QString operation =
        OperationInfo::commandName(upgrade ? KCommandUpgrade : KCommandInstall);
    emitLine(ProgressLine::copying(operation, QString::fromLatin1(stagingPath), currentAppId()),
             false);

    char** info = nullptr;
    if (afc_get_file_info(mAfcClient, kStagingDir, &info) != AFC_E_SUCCESS) {
        const afc_error_t error = afc_make_directory(mAfcClient, kStagingDir);
        if (error != AFC_E_SUCCESS)
            qDebug("WARNING: Could not create directory '%s' on device! error code: %d",
                   kStagingDir, error);
    }
    if (info)
        afc_dictionary_free(info);

    uint64_t handle = 0;
    if (afc_file_open(mAfcClient, stagingPath.constData(), AFC_FOPEN_WRONLY, &handle) !=
            AFC_E_SUCCESS ||
        !handle) {
        fclose(file);
        qDebug("Error, afc_file_open on '%s' failed!", stagingPath.constData());
        return false;
    }
    char chunk[kCopyChunk];
    size_t read = 0;
    while ((read = fread(chunk, 1, sizeof chunk, file)) > 0) {
        // A write the device takes only in part is repeated from the chunk's start; a
        // total that does not match the chunk fails the upload either way.
        uint32_t total = 0;
        do {
            uint32_t written = 0;
            if (afc_file_write(mAfcClient, handle, chunk, uint32_t(read), &written) !=
                AFC_E_SUCCESS) {
                qDebug() << "Error, AFC Write error!";
                break;
            }
            total += written;
        } while (total < read);
        if (total != read) {
            qDebug("Error: wrote only %d of %d", int(total), int(read));
            afc_file_close(mAfcClient, handle);
            fclose(file);
            return false;
        }
    }
    afc_file_close(mAfcClient, handle);
    fclose(file);
    emitLine(ProgressLine::copyingDone(operation, currentAppId()), false);
    return true;
}

bool DeviceInstaller::uninstallApp(const QString& appId)
{
    qDebug() << "DeviceInstaller::uninstallApp, appId: " << appId;
    mCommand = KCommandUninstall;
    writeText(gAppId, appId.toLatin1());
    instproxy_uninstall(mInstproxyClient, appId.toLatin1().constData(), nullptr,
                        &DeviceInstaller::statusCallback, this);
    // Set only once the request is out: statuses that arrive before carry 0 as field 6.
    gWaitForCommand = 1;
    gNotificationExpected = 1;
    gFinalStage = true;
    return end(KInstNoError);
}

bool DeviceInstaller::archiveApp(const QString& appId, const QString& copyPath, bool appOnly,
                                 bool skipUninstall)
{
    qDebug() << "DeviceInstaller::archiveApp, appid: " << appId << ", copy_path: " << copyPath
             << ", app_only: " << (appOnly ? "true" : "false")
             << ", skip_uninstall: " << (skipUninstall ? "true" : "false");
    mCommand = KCommandArchive;
    if (copyPath.isEmpty() || appId.isEmpty()) {
        qDebug() << "Warning, copyPath or appid couldn't be empty";
        return end(KInstInvalidInput);
    }
    const QByteArray localDir = copyPath.toLatin1();
    writeText(gAppId, appId.toLatin1());

    plist_t options = nullptr;
    if (skipUninstall) {
        options = instproxy_client_options_new();
        instproxy_client_options_add(options, "SkipUninstall", 1, nullptr);
    }
    if (appOnly) {
        if (!options)
            options = instproxy_client_options_new();
        instproxy_client_options_add(options, "ArchiveType", "ApplicationOnly", nullptr);
    }

    struct stat st;
    const bool found = stat(localDir.constData(), &st) == 0;
    if (!found || !S_ISDIR(st.st_mode)) {
        if (!found)
            qDebug("ERROR: stat: %s: %s", localDir.constData(), strerror(errno));
        else
            qDebug("ERROR: '%s' is not a directory as expected.", localDir.constData());
        instproxy_client_options_free(options);
        return end(KInstInvalidInput);
    }
    lockdownd_service_descriptor_t service = nullptr;
    if (!startService(mLockdown, AFC_SERVICE_NAME, &service)) {
        qDebug() << "Error, could not start com.apple.afc!";
        instproxy_client_options_free(options);
        return end(KInstServiceError);
    }
    lockdownd_client_free(mLockdown);
    mLockdown = nullptr;
    const afc_error_t afcError = afc_client_new(mDevice, service, &mAfcClient);
    lockdownd_service_descriptor_free(service);
    if (afcError != AFC_E_SUCCESS) {
        mAfcClient = nullptr;
        qDebug() << "Error, could not connect to AFC!";
        instproxy_client_options_free(options);
        return end(KInstServiceError);
    }

    const QByteArray appid = readText(gAppId);
    instproxy_archive(mInstproxyClient, appid.constData(), options,
                      &DeviceInstaller::statusCallback, this);
    instproxy_client_options_free(options);
    gWaitForCommand = 1;
    gNotificationExpected = skipUninstall ? 0 : 1;
    waitForCommand();
    if (gErrorOccurred) {
        afc_client_free(mAfcClient);
        mAfcClient = nullptr;
        qDebug() << "mErr_occured: " << int(gErrorOccurred);
        return end(KInstInternalError);
    }
    if (!copyArchive(appId, localDir))
        return true;
    return removeArchive();
}

// Copies ApplicationArchives/<id>.zip to <copy path>/<id>.ipa. false when a step ended
// the operation (its failure line is stored); read and write errors only cut the copy
// short.
bool DeviceInstaller::copyArchive(const QString& appId, const QByteArray& copyPath)
{
    const QByteArray appid = readText(gAppId);
    char localPath[kPathBuffer];
    int n =
        snprintf(localPath, sizeof localPath, "%s/%s.ipa", copyPath.constData(), appid.constData());
    if (n < 0 || n >= kPathBuffer) {
        qDebug() << "Error, Out of memory!?";
        return !end(KInstMemoryError);
    }
    FILE* file = fopen(localPath, "wb");
    if (!file) {
        qDebug("ERROR: fopen: %s: %s", localPath, strerror(errno));
        return !end(KInstInvalidInput);
    }
    char devicePath[kPathBuffer];
    n = snprintf(devicePath, sizeof devicePath, "%s/%s.zip", kArchivesDir, appid.constData());
    if (n < 0 || n >= kPathBuffer) {
        qDebug() << "Error, out of memory!?";
        fclose(file);
        return !end(KInstMemoryError);
    }
    char** info = nullptr;
    if (afc_get_file_info(mAfcClient, devicePath, &info) != AFC_E_SUCCESS || !info) {
        qDebug("ERROR on afc_get_file_info for '%s' on device!", devicePath);
        fclose(file);
        return !end(KInstInternalError);
    }
    int deviceSize = 0;
    for (int i = 0; info[i] && info[i + 1]; i += 2) {
        if (strcmp(info[i], "st_size") == 0) {
            deviceSize = atoi(info[i + 1]);
            break;
        }
    }
    afc_dictionary_free(info);
    if (deviceSize == 0) {
        qDebug() << "Error, Hm... remote file length could not be determined. Cannot copy.";
        fclose(file);
        return !end(KInstInternalError);
    }
    uint64_t handle = 0;
    if (afc_file_open(mAfcClient, devicePath, AFC_FOPEN_RDONLY, &handle) != AFC_E_SUCCESS ||
        !handle) {
        fclose(file);
        qDebug("ERROR: could not open '%s' on device for reading!", devicePath);
        return !end(KInstInternalError);
    }
    emitLine(ProgressLine::archiveCopying(appId), false);
    char chunk[kCopyChunk];
    int copied = 0;
    while (true) {
        uint32_t read = 0;
        if (afc_file_read(mAfcClient, handle, chunk, sizeof chunk, &read) != AFC_E_SUCCESS) {
            qDebug() << "Error, AFC Read error!";
            break;
        }
        if (read == 0)
            break;
        if (fwrite(chunk, 1, read, file) != read) {
            qDebug("Error when writing %d bytes to local file!", int(read));
            break;
        }
        copied += int(read);
    }
    afc_file_close(mAfcClient, handle);
    fclose(file);
    emitLine(ProgressLine::archiveCopyingDone(appId), false);
    if (copied != deviceSize)
        qDebug("WARNING: remote and local file sizes don't match (%d != %d)", deviceSize, copied);
    return true;
}

// Asks the device to delete its archive, on a session of its own, without waiting:
// the archive phase's completion is still recorded, so the first status without a
// percentage already ends the operation.
bool DeviceInstaller::removeArchive()
{
    const QByteArray appid = readText(gAppId);
    qDebug("Removing archive, appid: '%s'\n", appid.constData());
    if (lockdownd_client_new_with_handshake(mDevice, &mLockdown, "ideviceinstaller") !=
        LOCKDOWN_E_SUCCESS) {
        mLockdown = nullptr;
        qDebug() << "Error, could not connect to lockdownd. Exiting.";
        return end(KInstServiceError);
    }
    lockdownd_service_descriptor_t service = nullptr;
    if (!startService(mLockdown, INSTPROXY_SERVICE_NAME, &service)) {
        qDebug() << "Error, Could not start com.apple.mobile.installation_proxy!";
        return end(KInstServiceError);
    }
    // The archive command's client still holds its finished status thread; the removal
    // gets a client of its own.
    instproxy_client_t client = nullptr;
    const instproxy_error_t error = instproxy_client_new(mDevice, service, &client);
    lockdownd_service_descriptor_free(service);
    if (error != INSTPROXY_E_SUCCESS) {
        qDebug() << "Error, could not connect to installation_proxy!";
        return end(KInstServiceError);
    }
    mInstproxyClient = client;
    writeText(gLastStatus, QByteArray());
    gNotificationExpected = 0;
    gFinalStage = true;
    instproxy_remove_archive(mInstproxyClient, appid.constData(), nullptr,
                             &DeviceInstaller::statusCallback, this);
    gWaitForCommand = 1;
    return end(KInstNoError);
}

bool DeviceInstaller::getAppList(QString* list, QStringList* appIds, int appType, int listFormat)
{
    qDebug() << "DeviceInstaller::getAppList";
    mCommand = KCommandListApp;
    gFinalStage = true;

    plist_t options = nullptr;
    if (appType != 0) {
        options = instproxy_client_options_new();
        if (appType == 1)
            instproxy_client_options_add(options, "ApplicationType", "System", nullptr);
        else if (appType == 2)
            instproxy_client_options_add(options, "ApplicationType", "User", nullptr);
    }
    plist_t apps = nullptr;
    const instproxy_error_t error = instproxy_browse(mInstproxyClient, options, &apps);
    instproxy_client_options_free(options);
    if (error != INSTPROXY_E_SUCCESS) {
        qDebug("ERROR: instproxy_browse returned %d", error);
        plist_free(apps);
        return end(KInstServiceError);
    }
    if (!apps || plist_get_node_type(apps) != PLIST_ARRAY) {
        qDebug() << "ERROR: instproxy_browse returnd an invalid plist!";
        plist_free(apps);
        return end(KInstInvalidPlist);
    }
    if (listFormat == 0) {
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(apps, &xml, &length);
        *list = QString::fromUtf8(xml, int(length));
        free(xml);
        plist_free(apps);
        return end(KInstNoError);
    }

    lockdownd_service_descriptor_t service = nullptr;
    if (!startService(mLockdown, AFC_SERVICE_NAME, &service)) {
        qDebug() << "Error, could not start com.apple.afc!";
        plist_free(apps);
        return end(KInstServiceError);
    }
    const afc_error_t afcError = afc_client_new(mDevice, service, &mAfcClient);
    lockdownd_service_descriptor_free(service);
    if (afcError != AFC_E_SUCCESS) {
        mAfcClient = nullptr;
        qDebug() << "Error, could not connect to AFC!\n";
        plist_free(apps);
        return end(KInstServiceError);
    }
    lockdownd_client_free(mLockdown);
    mLockdown = nullptr;

    const uint32_t count = plist_array_get_size(apps);
    qDebug("Total: %d apps.", int(count));
    QStringList objects;
    for (uint32_t i = 0; i < count; ++i) {
        plist_t app = plist_array_get_item(apps, i);
        const QString bundleId = DeviceHelper::getMetaString(app, "CFBundleIdentifier");
        if (bundleId.isEmpty()) {
            qDebug() << "ERROR: Failed to get APPID!";
            continue;
        }
        QString name = DeviceHelper::getMetaString(app, "CFBundleDisplayName");
        if (name.isEmpty())
            name = bundleId;
        QStringList platforms;
        DeviceHelper::getDictStringList(app, QStringLiteral("CFBundleSupportedPlatforms"),
                                        platforms);
        QVariantMap object;
        object["appcracked"] =
            Utility::fieldText(DeviceHelper::getMetaString(app, "SignerIdentity"), true);
        object["appname"] = Utility::fieldText(name, false);
        object["appsize"] = QStringLiteral("unknown");
        object["bundle_id"] = Utility::fieldText(bundleId, false);
        object["comp"] =
            Utility::fieldText(DeviceHelper::getMetaString(app, "MinimumOSVersion"), false);
        object["devices"] = platforms.join(QLatin1Char(','));
        object["docsize"] = QStringLiteral("unknown");
        object["version"] =
            Utility::fieldText(DeviceHelper::getMetaString(app, "CFBundleVersion"), false);
        objects.append(Utility::toJsonString(object));
        appIds->append(bundleId);
    }
    plist_free(apps);
    // The array always ends with an empty object, which hosts skip.
    list->append(QLatin1Char('['));
    for (const QString& object : objects)
        list->append(object + QLatin1Char(','));
    list->append(QStringLiteral("{}]"));
    waitForCommand();
    qDebug() << "getApplist finished";
    return end(KInstNoError);
}
