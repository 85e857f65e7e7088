#include "ServiceIndicator.h"

#include "CProcCheckAMD.h"
#include "CProcStartAMD.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProcess>
#include <QToolButton>

ServiceIndicator::ServiceIndicator(QWidget* parent)
    : QWidget(parent), mCheck(new CProcCheckAMD(this)), mStart(new CProcStartAMD(this))
{
    mDot = new QLabel;
    mDot->setFixedSize(12, 12);
    mText = new QLabel;
    mCheckButton = new QToolButton;
    mCheckButton->setText(tr("Check"));
    mStartButton = new QToolButton;
    mStartButton->setText(tr("Start"));
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(4, 0, 4, 0);
    layout->addWidget(mDot);
    layout->addWidget(mText);
    layout->addWidget(mCheckButton);
    layout->addWidget(mStartButton);

    connect(mCheck, &CProcCheckAMD::signalServiceRunning, this,
            [this](bool running) { setState(running ? Running : Stopped); });
    // A refused start may mean it already runs; the check tells.
    connect(mStart, &CProcStartAMD::signalStartAMD, this, &ServiceIndicator::check);
    connect(mCheckButton, &QToolButton::clicked, this, &ServiceIndicator::check);
    connect(mStartButton, &QToolButton::clicked, this, &ServiceIndicator::startService);
    watchForStartFailure(mCheck);
    watchForStartFailure(mStart);
    setState(Unknown);
}

void ServiceIndicator::watchForStartFailure(QObject* wrapper)
{
    if (auto* process = wrapper->findChild<QProcess*>()) {
        connect(process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
            if (error == QProcess::FailedToStart)
                setState(Unavailable, tr("the service-control program 'sc' was not found"));
        });
    }
}

void ServiceIndicator::check()
{
    setState(Checking);
    mCheck->checkIfRunning();
}

void ServiceIndicator::startService()
{
    setState(Checking);
    mStart->startAMD();
}

void ServiceIndicator::setState(State state, const QString& detail)
{
    static const struct
    {
        const char* text;
        QRgb color;
    } looks[] = {{"unknown", 0x9e9e9e},
                 {"checking...", 0x9e9e9e},
                 {"running", 0x2e9e48},
                 {"not running", 0xd04437},
                 {"cannot be checked", 0xe0a030}};
    mState = state;
    mText->setText(tr("Apple Mobile Device service: %1").arg(tr(looks[state].text)));
    mText->setToolTip(detail);
    mDot->setStyleSheet(
        QStringLiteral("background:%1;border-radius:6px;").arg(QColor(looks[state].color).name()));
    mStartButton->setEnabled(state == Stopped);
    mCheckButton->setEnabled(state != Checking);
}
