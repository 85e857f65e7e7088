#include "DevicePanel.h"

#include "DeskFormat.h"
#include "DiskUsageBar.h"

#include <QFormLayout>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QProgressBar>
#include <QRegularExpression>
#include <QVBoxLayout>

namespace {

struct MediaKind
{
    const char* key;
    const char* label;
    QRgb color;
};

// The media library's totals, in the report's order, and how the bar shows them.
const MediaKind kMediaKinds[] = {
    {"totalApplicationBytes", "Apps", 0x4e79a7},   {"totalAudioBytes", "Audio", 0xf28e2b},
    {"totalBookBytes", "Books", 0x76b7b2},         {"totalMovieBytes", "Movies", 0xe15759},
    {"totalMusicBytes", "Music", 0x59a14f},        {"totalPhotoBytes", "Photos", 0xedc948},
    {"totalRingtoneBytes", "Ringtones", 0xb07aa1}, {"totalVideoBytes", "Videos", 0xff9da7},
};

QLabel* valueLabel()
{
    auto* label = new QLabel;
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

} // namespace

DevicePanel::DevicePanel(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    mMessage = new QLabel;
    mMessage->setWordWrap(true);
    layout->addWidget(mMessage);

    mDetails = new QWidget;
    auto* form = new QFormLayout(mDetails);
    form->setContentsMargins(0, 0, 0, 0);
    const QList<QPair<QString, QString>> rows = {
        {"name", tr("Name")},     {"model", tr("Model")},         {"ios", tr("iOS")},
        {"serial", tr("Serial")}, {"jailbreak", tr("Jailbreak")}, {"storage", tr("Storage")}};
    for (const auto& row : rows) {
        mFields[row.first] = valueLabel();
        form->addRow(row.second + QLatin1Char(':'), mFields[row.first]);
        if (row.first == QLatin1String("serial")) {
            mBattery = new QProgressBar;
            mBattery->setRange(0, 100);
            mBattery->setMaximumHeight(16);
            mFields[QStringLiteral("battery")] = valueLabel();
            auto* battery = new QWidget;
            auto* line = new QHBoxLayout(battery);
            line->setContentsMargins(0, 0, 0, 0);
            line->addWidget(mBattery, 1);
            line->addWidget(mFields[QStringLiteral("battery")]);
            form->addRow(tr("Battery:"), battery);
        }
    }
    mDisk = new DiskUsageBar;
    form->addRow(mDisk);
    layout->addWidget(mDetails);
    layout->addStretch(1);
    showMessage(tr("No device selected."));
}

QString DevicePanel::reportValue(const QString& report, const QString& key)
{
    const QRegularExpression pattern(
        QStringLiteral("\"%1\":(\"([^\"]*)\"|([-0-9.e+]+))").arg(QRegularExpression::escape(key)));
    const QRegularExpressionMatch match = pattern.match(report);
    if (!match.hasMatch())
        return QString();
    return match.capturedStart(2) >= 0 ? match.captured(2) : match.captured(3);
}

bool DevicePanel::showReport(const QString& report)
{
    const QString name = reportValue(report, QStringLiteral("DeviceName"));
    if (name.isEmpty()) {
        showMessage(tr("The device's information could not be read."));
        return false;
    }
    mMessage->hide();
    mDetails->show();
    mFields[QStringLiteral("name")]->setText(name);
    mFields[QStringLiteral("model")]->setText(
        QStringLiteral("%1 (%2)")
            .arg(reportValue(report, QStringLiteral("ProductType")),
                 reportValue(report, QStringLiteral("ModelNumber")))
            .remove(QStringLiteral(" ()")));
    mFields[QStringLiteral("ios")]->setText(reportValue(report, QStringLiteral("ProductVersion")));
    mFields[QStringLiteral("serial")]->setText(reportValue(report, QStringLiteral("SerialNumber")));
    const int battery = reportValue(report, QStringLiteral("BatteryCurrentCapacity")).toInt();
    const bool charging =
        reportValue(report, QStringLiteral("BatteryIsCharging")) == QLatin1String("true");
    mBattery->setValue(battery);
    mFields[QStringLiteral("battery")]->setText(charging ? tr("%1% charging").arg(battery)
                                                         : tr("%1%").arg(battery));
    mFields[QStringLiteral("jailbreak")]->setText(
        reportValue(report, QStringLiteral("IsJailed")) == QLatin1String("true") ? tr("yes")
                                                                                 : tr("no"));

    const quint64 capacity = reportValue(report, QStringLiteral("TotalDataCapacity")).toULongLong();
    const quint64 available =
        reportValue(report, QStringLiteral("TotalDataAvailable")).toULongLong();
    mFields[QStringLiteral("storage")]->setText(
        capacity
            ? tr("%1 free of %2").arg(DeskFormat::bytes(available), DeskFormat::bytes(capacity))
            : tr("unknown"));
    // The disk-usage summary is a plain JSON object; a device without a media library
    // has none, and then the bar shows used and free space only.
    const QRegularExpression usagePattern(QStringLiteral("\"disk_usage\":(\\{[^{}]*\\})"));
    const QJsonObject usage =
        QJsonDocument::fromJson(usagePattern.match(report).captured(1).toUtf8()).object();
    QList<DiskUsageBar::Segment> segments;
    quint64 counted = 0;
    for (const MediaKind& kind : kMediaKinds) {
        const quint64 bytes = quint64(usage.value(QLatin1String(kind.key)).toDouble());
        if (bytes == 0)
            continue;
        segments.append({tr(kind.label), bytes, QColor(kind.color)});
        counted += bytes;
    }
    const quint64 used = capacity > available ? capacity - available : 0;
    if (used > counted)
        segments.append({tr("Other"), used - counted, QColor(0xbab0ac)});
    mDisk->setUsage(segments, qMax(capacity, counted));
    return true;
}

void DevicePanel::showMessage(const QString& text)
{
    mMessage->setText(text);
    mMessage->show();
    mDetails->hide();
}

QString DevicePanel::field(const QString& key) const
{
    return mFields.value(key) ? mFields.value(key)->text() : QString();
}
