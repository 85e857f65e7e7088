#pragma once

#include <QWidget>

class CProcCheckAMD;
class CProcStartAMD;
class QLabel;
class QToolButton;

// Whether the "Apple Mobile Device" service runs, as a coloured dot and a word, with
// buttons to check again and to start it.
class ServiceIndicator : public QWidget
{
    Q_OBJECT
public:
    enum State
    {
        Unknown,
        Checking,
        Running,
        Stopped,
        Unavailable
    };

    explicit ServiceIndicator(QWidget* parent = nullptr);
    State state() const { return mState; }

public slots:
    void check();
    void startService();

private:
    void setState(State state, const QString& detail = QString());
    // The wrappers answer nothing when the service-control program cannot be run at all.
    void watchForStartFailure(QObject* wrapper);

    CProcCheckAMD* mCheck;
    CProcStartAMD* mStart;
    QLabel* mDot;
    QLabel* mText;
    QToolButton* mCheckButton;
    QToolButton* mStartButton;
    State mState = Unknown;
};
