#pragma once

#include <QList>
#include <QString>
#include <QWidget>

class QProgressBar;
class QToolButton;
class QTreeWidget;
class QTreeWidgetItem;

// One row per device operation the window asked for, in the order asked: what it does,
// to which app, its progress bar and the status text of its latest progress line. The
// manager runs the operations one at a time in that order, so a line belongs to the
// oldest unfinished row of its app, or else to the oldest unfinished row.
class QueuePanel : public QWidget
{
    Q_OBJECT
public:
    enum State
    {
        Waiting,
        Running,
        Done,
        Failed,
        Cancelled
    };

    // One progress line split into its fields. A device text holding a colon adds fields
    // in the middle, so the status is everything between the operation and the last four.
    struct Line
    {
        bool valid = false;
        QString operation;
        QString status;
        QString appid;
        int percent = 0;
        bool ok = false;
        bool done = false;
    };
    static Line parseLine(const QString& text);

    explicit QueuePanel(QWidget* parent = nullptr);

    // Adds a waiting row; false (and no row) when the same operation already waits, as the
    // manager drops such a request too.
    bool addOperation(int type, const QString& udid, const QString& appid, const QString& title);
    // Applies one progress line; true when it matched a row.
    bool applyLine(const QString& text);
    // A device went away: its queued requests are cancelled.
    void deviceGone(const QString& udid);

    int rowCount() const { return mRows.size(); }
    State state(int row) const { return mRows.at(row).state; }
    int percent(int row) const;
    QString statusText(int row) const;
    QString appid(int row) const { return mRows.at(row).appid; }
    bool hasUnfinished() const;
    // Only a request still in the manager's queue can be taken back: a waiting row that
    // is not the oldest open one.
    bool isCancellable(int row) const;
    // Cancels a waiting row as its cancel button does.
    void cancel(int row, const QString& text = QString());

signals:
    void cancelRequested(int type, const QString& udid, const QString& appid);
    void operationEnded(int type, const QString& appid, bool ok);

private:
    struct Row
    {
        int type;
        QString udid;
        QString appid;
        State state;
        QTreeWidgetItem* item;
        QProgressBar* bar;
        QToolButton* cancel;
    };
    int rowForLine(const Line& line) const;
    int oldestUnfinished() const;
    void setState(Row& row, State state, const QString& text);

    QTreeWidget* mTree;
    QList<Row> mRows;
};
