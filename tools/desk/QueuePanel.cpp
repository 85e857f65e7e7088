#include "QueuePanel.h"

#include "OperationInfo.h"

#include <QHeaderView>
#include <QProgressBar>
#include <QToolButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

enum Column
{
    OperationColumn,
    AppColumn,
    ProgressColumn,
    StatusColumn,
    CancelColumn
};

QString operationTitle(int type)
{
    switch (type) {
    case KOperationInstall:
        return QueuePanel::tr("Install");
    case KOperationUpgrade:
        return QueuePanel::tr("Upgrade");
    case KOperationUninstall:
        return QueuePanel::tr("Uninstall");
    case KOperationArchive:
        return QueuePanel::tr("Archive");
    default:
        return QueuePanel::tr("Operation");
    }
}

} // namespace

QueuePanel::Line QueuePanel::parseLine(const QString& text)
{
    Line line;
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() < 6)
        return line;
    const int n = parts.size();
    bool percentOk = false;
    line.operation = parts.first();
    line.status = parts.mid(1, n - 5).join(QLatin1Char(':'));
    line.appid = parts.at(n - 4);
    line.percent = parts.at(n - 3).toInt(&percentOk);
    line.ok = parts.at(n - 2) == QLatin1String("1");
    line.done = parts.at(n - 1) == QLatin1String("1");
    line.valid = percentOk;
    return line;
}

QueuePanel::QueuePanel(QWidget* parent) : QWidget(parent)
{
    mTree = new QTreeWidget;
    mTree->setColumnCount(5);
    mTree->setHeaderLabels({tr("Operation"), tr("App"), tr("Progress"), tr("Status"), QString()});
    mTree->setRootIsDecorated(false);
    mTree->setSelectionMode(QAbstractItemView::NoSelection);
    mTree->header()->setStretchLastSection(false);
    mTree->header()->setSectionResizeMode(AppColumn, QHeaderView::Stretch);
    mTree->header()->setSectionResizeMode(StatusColumn, QHeaderView::Stretch);
    mTree->setColumnWidth(ProgressColumn, 160);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(mTree);
}

bool QueuePanel::addOperation(int type, const QString& udid, const QString& appid,
                              const QString& title)
{
    for (const Row& row : mRows) {
        if (row.state == Waiting && row.type == type && row.udid == udid && row.appid == appid)
            return false;
    }
    Row row{type,           udid, appid, Waiting, new QTreeWidgetItem(mTree), new QProgressBar,
            new QToolButton};
    row.item->setText(OperationColumn, operationTitle(type));
    row.item->setText(AppColumn, title.isEmpty() ? appid : title);
    row.item->setToolTip(AppColumn, appid);
    row.bar->setRange(0, 100);
    row.bar->setValue(0);
    row.bar->setMaximumHeight(18);
    row.cancel->setText(tr("Cancel"));
    row.cancel->setAutoRaise(true);
    mTree->setItemWidget(row.item, ProgressColumn, row.bar);
    mTree->setItemWidget(row.item, CancelColumn, row.cancel);
    const int index = mRows.size();
    connect(row.cancel, &QToolButton::clicked, this, [this, index] { cancel(index); });
    mRows.append(row);
    setState(mRows.last(), Waiting, tr("Waiting"));
    mTree->scrollToItem(row.item);
    return true;
}

int QueuePanel::rowForLine(const Line& line) const
{
    int oldest = -1;
    for (int i = 0; i < mRows.size(); ++i) {
        if (mRows[i].state != Waiting && mRows[i].state != Running)
            continue;
        if (mRows[i].appid == line.appid)
            return i;
        if (oldest < 0)
            oldest = i;
    }
    return oldest;
}

bool QueuePanel::applyLine(const QString& text)
{
    const Line line = parseLine(text);
    const int index = line.valid ? rowForLine(line) : -1;
    if (index < 0)
        return false;
    Row& row = mRows[index];
    row.bar->setValue(qBound(0, line.percent, 100));
    // A failure clears the ok field and ends the operation; a time-out keeps the done
    // field of the line it replaces. Success is the device's completion with the
    // operation's last command (done set): installs also carry done on their steps.
    const bool failed = !line.ok && (line.done || line.status.contains(QLatin1String("Timeout")));
    const bool completed = line.ok && line.done && line.percent == 100 &&
                           line.status.startsWith(QLatin1String("Complete"));
    if (failed) {
        setState(row, Failed, tr("Failed: %1").arg(line.status));
        emit operationEnded(row.type, row.appid, false);
    } else if (completed) {
        row.bar->setValue(100);
        setState(row, Done, tr("Done"));
        emit operationEnded(row.type, row.appid, true);
    } else {
        setState(row, Running, line.status);
    }
    return true;
}

void QueuePanel::deviceGone(const QString& udid)
{
    // Requests still queued are taken back. The running one ends by its own failure
    // line (or the manager's time-out), which must still find its row, so it stays open.
    for (int i = 0; i < mRows.size(); ++i) {
        if (mRows[i].udid != udid)
            continue;
        if (isCancellable(i))
            cancel(i, tr("Cancelled: the device was detached"));
        else if (mRows[i].state == Waiting || mRows[i].state == Running)
            setState(mRows[i], mRows[i].state, tr("The device was detached"));
    }
}

int QueuePanel::oldestUnfinished() const
{
    for (int i = 0; i < mRows.size(); ++i) {
        if (mRows[i].state == Waiting || mRows[i].state == Running)
            return i;
    }
    return -1;
}

bool QueuePanel::isCancellable(int index) const
{
    // The oldest open row runs already, or starts as soon as the manager is free.
    return mRows.at(index).state == Waiting && index != oldestUnfinished();
}

void QueuePanel::cancel(int index, const QString& text)
{
    if (!isCancellable(index))
        return;
    Row& row = mRows[index];
    emit cancelRequested(row.type, row.udid, row.appid);
    setState(row, Cancelled, text.isEmpty() ? tr("Cancelled") : text);
}

void QueuePanel::setState(Row& row, State state, const QString& text)
{
    row.state = state;
    row.item->setText(StatusColumn, text);
    row.item->setToolTip(StatusColumn, text);
    row.item->setForeground(StatusColumn,
                            state == Failed ? QBrush(QColor(0xc0392b)) : mTree->palette().text());
    for (int i = 0; i < mRows.size(); ++i)
        mRows[i].cancel->setVisible(isCancellable(i));
}

int QueuePanel::percent(int row) const
{
    return mRows.at(row).bar->value();
}

QString QueuePanel::statusText(int row) const
{
    return mRows.at(row).item->text(StatusColumn);
}

bool QueuePanel::hasUnfinished() const
{
    return oldestUnfinished() >= 0;
}
