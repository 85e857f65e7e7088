#include "DeviceListener.h"

#include <QDebug>

DeviceListener::DeviceListener() : QThread(nullptr)
{
    // Events flow from here on, independently of start(); a failed subscription
    // simply means no events.
    idevice_event_subscribe(EventCallback, this);
}

DeviceListener::~DeviceListener()
{
    // Joins the device library's event thread, so no callback is running or pending
    // once this returns.
    idevice_event_unsubscribe();
    if (isRunning()) {
        quit();
        wait();
    }
}

void DeviceListener::EventCallback(const idevice_event_t* event, void* user_data)
{
    auto* listener = static_cast<DeviceListener*>(user_data);
    if (!event || !listener)
        return;
    switch (event->event) {
    case IDEVICE_DEVICE_ADD:
        listener->DeviceAddedCallback(event->udid);
        break;
    case IDEVICE_DEVICE_REMOVE:
        listener->DeviceRemovedCallback(event->udid);
        break;
    default:
        break;
    }
}

void DeviceListener::DeviceAddedCallback(const char* uuid)
{
    qDebug("DeviceListener::DeviceAddedCallback");
    emit DeviceAdded(uuid);
}

void DeviceListener::DeviceRemovedCallback(const char* uuid)
{
    qDebug("DeviceListener::DeviceRemovedCallback");
    emit DeviceRemoved(uuid);
}

void DeviceListener::run()
{
    qDebug("DeviceListener::run");
    exec();
}
