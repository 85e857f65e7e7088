#pragma once

#include "kavrel_export.h"

#include <QThread>

#include <libimobiledevice/libimobiledevice.h>

// Tells the host when a device is attached or detached. Device events arrive on the
// device library's own event thread from construction on, whether or not this thread
// has been started; the thread itself only runs an idle event loop.
//
// The udid handed to the signals belongs to the device library and is only valid
// during the emission: a receiver copies it (direct connection) before returning.
class KAVREL_EXPORT DeviceListener : public QThread
{
    Q_OBJECT
public:
    DeviceListener();
    // Ends the event subscription, so the device library never calls back into a
    // destroyed listener.
    ~DeviceListener() override;

    static void EventCallback(const idevice_event_t* event, void* user_data);
    void DeviceAddedCallback(const char* uuid);
    void DeviceRemovedCallback(const char* uuid);

signals:
    void DeviceAdded(const char* uuid);
    void DeviceRemoved(const char* uuid);

public slots:
    void run() override;
};
