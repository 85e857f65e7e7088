#include "DeviceAppSize.h"

#include "DeviceHelper.h"

#include <QDebug>

#include <cstdlib>
#include <cstring>

static const char* const kHouseArrestService = "com.apple.mobile.house_arrest";

DeviceAppSize::DeviceAppSize(QObject* parent, const QString& udid)
    : DeviceBase(parent, udid), mHouseArrest(nullptr)
{
}

DeviceAppSize::~DeviceAppSize()
{
    DeviceAppSize::cleanUp();
}

bool DeviceAppSize::prepare()
{
    if (!isInited())
        qDebug() << "DeviceBase wasn't inited yet.";
    return isInited();
}

void DeviceAppSize::cleanUp()
{
    if (mHouseArrest) {
        house_arrest_client_free(mHouseArrest);
        mHouseArrest = nullptr;
    }
}

bool DeviceAppSize::vendContainer(const QString& appid)
{
    lockdownd_service_descriptor_t service = nullptr;
    if (lockdownd_start_service(mLockdown, kHouseArrestService, &service) != LOCKDOWN_E_SUCCESS) {
        qDebug("could not start house_arrest service!");
        return false;
    }
    const house_arrest_error_t made = house_arrest_client_new(mDevice, service, &mHouseArrest);
    lockdownd_service_descriptor_free(service);
    if (made != HOUSE_ARREST_E_SUCCESS) {
        mHouseArrest = nullptr;
        qDebug("could not connect to house_arrest service!");
        return false;
    }
    const QByteArray id = appid.toLatin1();
    const house_arrest_error_t sent =
        house_arrest_send_command(mHouseArrest, "VendContainer", id.constData());
    if (sent != HOUSE_ARREST_E_SUCCESS) {
        qDebug("error %d when trying to get VendContainer.", sent);
        return false;
    }
    plist_t answer = nullptr;
    if (house_arrest_get_result(mHouseArrest, &answer) != HOUSE_ARREST_E_SUCCESS &&
        house_arrest_get_result(mHouseArrest, &answer) != HOUSE_ARREST_E_SUCCESS) {
        qDebug("hmmm....");
        return false;
    }
    if (plist_t error = plist_dict_get_item(answer, "Error")) {
        char* text = nullptr;
        plist_get_string_val(error, &text);
        qDebug("Error: %s\n", text ? text : "");
        free(text);
        plist_free(answer);
        return false;
    }
    if (plist_t status = plist_dict_get_item(answer, "Status")) {
        char* text = nullptr;
        plist_get_string_val(status, &text);
        if (!text || strcmp(text, "Complete") != 0)
            qDebug("Warning: Status is not 'Complete' but '%s'\n", text ? text : "");
        free(text);
    }
    plist_free(answer);
    return true;
}

void DeviceAppSize::readAppleId(afc_client_t afc, const char* path, QString* appleId)
{
    char* buffer = nullptr;
    quint64 size = 0;
    DeviceHelper::readAfcFile(afc, path, &buffer, &size);
    plist_t list = nullptr;
    if (buffer)
        DeviceHelper::plistFromBuffer(buffer, static_cast<unsigned int>(size), &list);
    if (list)
        DeviceHelper::getDictString(list, QStringLiteral("appleId"), *appleId);
    free(buffer);
    plist_free(list);
}

bool DeviceAppSize::getAppSize(const QString& appid, unsigned int* appSize, unsigned int* docSize,
                               QString* appleId)
{
    if (appid.isEmpty()) {
        qDebug() << "appid couldn't be empty.";
        return false;
    }
    // A client left from an earlier app goes first: each app gets its own container.
    cleanUp();
    bool result = false;
    afc_client_t afc = nullptr;
    if (vendContainer(appid) &&
        afc_client_new_from_house_arrest_client(mHouseArrest, &afc) == AFC_E_SUCCESS) {
        char** names = nullptr;
        afc_read_directory(afc, "/", &names);
        QByteArray appPath, docPath, metaPath;
        for (int i = 0; names && names[i]; ++i) {
            const char* name = names[i];
            if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
                continue;
            if (strcmp(name, "Documents") == 0)
                docPath = name;
            else if (strstr(name, ".app"))
                appPath = name;
            else if (strstr(name, "iTunesMetadata.plist"))
                metaPath = name;
        }
        if (appPath.isNull() || DeviceHelper::getAfcPathSize(afc, appPath.constData(), appSize))
            qDebug() << "Warning, failed to get app size";
        if (docPath.isNull() || DeviceHelper::getAfcPathSize(afc, docPath.constData(), docSize))
            qDebug() << "Warning, failed to get documents size";
        if (!metaPath.isNull())
            readAppleId(afc, metaPath.constData(), appleId);
        result = true;
        if (names)
            afc_dictionary_free(names);
    }
    // The AFC client only borrows the house-arrest connection, which cleanUp() closes.
    if (afc)
        afc_client_free(afc);
    cleanUp();
    return result;
}
