#pragma once

#include <QMap>
#include <QString>
#include <QWidget>

class DiskUsageBar;
class QFormLayout;
class QLabel;
class QProgressBar;

// What the window knows about the selected device: name, model, iOS version, serial,
// battery, jailbreak and the storage bar, all from the device's information report.
class DevicePanel : public QWidget
{
    Q_OBJECT
public:
    explicit DevicePanel(QWidget* parent = nullptr);

    // A report as the manager delivers it; false when it holds no device name (an
    // empty report: the device could not be read).
    bool showReport(const QString& report);
    // Empties the panel and shows why.
    void showMessage(const QString& text);

    // The shown value of a field ("name", "model", "ios", "serial", "battery", "jailbreak",
    // "storage").
    QString field(const QString& key) const;
    DiskUsageBar* diskBar() const { return mDisk; }

    // One value of the report: a text, a number or a quoted word, found by its key. The
    // report's rendering is JSON-like rather than strict JSON, so values are looked up
    // in the text instead of parsed from a document.
    static QString reportValue(const QString& report, const QString& key);

private:
    QLabel* mMessage;
    QWidget* mDetails;
    QMap<QString, QLabel*> mFields;
    QProgressBar* mBattery;
    DiskUsageBar* mDisk;
};
