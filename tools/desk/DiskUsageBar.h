#pragma once

#include <QColor>
#include <QList>
#include <QString>
#include <QWidget>

// A horizontal bar of the device's storage: one coloured segment per kind of content,
// in proportion to the capacity, with a legend line below.
class DiskUsageBar : public QWidget
{
    Q_OBJECT
public:
    struct Segment
    {
        QString label;
        quint64 bytes;
        QColor color;
    };

    explicit DiskUsageBar(QWidget* parent = nullptr);

    // capacity 0 hides the bar.
    void setUsage(const QList<Segment>& segments, quint64 capacity);
    QList<Segment> segments() const { return mSegments; }
    quint64 capacity() const { return mCapacity; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QList<Segment> mSegments;
    quint64 mCapacity = 0;
};
