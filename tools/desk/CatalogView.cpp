#include "CatalogView.h"

#include "DBManager.h"
#include "DeskFormat.h"
#include "IpaParser.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPixmap>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

enum Column
{
    NameColumn,
    VersionColumn,
    BundleColumn,
    SizeColumn,
    PathColumn
};

// Why a file gives no record the catalog could keep; empty when it gives one.
QString parseProblem(const QString& path, IpaParser::IpaInfo& info)
{
    if (!QFileInfo(path).isFile())
        return CatalogView::tr("no such file");
    if (!IpaParser::parseIpa(path, &info))
        return CatalogView::tr("not an .ipa archive with a readable Info.plist");
    if (info.mAppId.isEmpty())
        return CatalogView::tr("the app names no bundle identifier");
    // The catalog finds rows by identifier through quoted SQL text.
    if (info.mAppId.contains(QLatin1Char('\'')))
        return CatalogView::tr("the bundle identifier holds an apostrophe");
    return QString();
}

} // namespace

CatalogView::CatalogView(QWidget* parent) : QWidget(parent)
{
    mTree = new QTreeWidget;
    mTree->setHeaderLabels({tr("Name"), tr("Version"), tr("Bundle ID"), tr("Size"), tr("File")});
    mTree->setRootIsDecorated(false);
    mTree->setIconSize(QSize(32, 32));
    mTree->setSelectionMode(QAbstractItemView::ExtendedSelection);
    mTree->header()->setSectionResizeMode(PathColumn, QHeaderView::Stretch);
    auto* add = new QPushButton(tr("Add .ipa files..."));
    mInstall = new QPushButton(tr("Install selected"));
    auto* refresh = new QPushButton(tr("Refresh"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(add);
    buttons->addWidget(mInstall);
    buttons->addStretch(1);
    buttons->addWidget(refresh);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addLayout(buttons);
    layout->addWidget(mTree, 1);

    connect(add, &QPushButton::clicked, this, &CatalogView::chooseFiles);
    connect(refresh, &QPushButton::clicked, this, &CatalogView::reload);
    connect(mInstall, &QPushButton::clicked, this, [this] {
        QStringList chosen;
        for (QTreeWidgetItem* item : mTree->selectedItems())
            chosen << item->text(PathColumn);
        if (!chosen.isEmpty())
            emit installRequested(chosen);
    });
}

void CatalogView::reload()
{
    mTree->clear();
    DBManager* db = DBManager::instance();
    const QJsonArray apps = QJsonDocument::fromJson(db->getAppsAsJson(2).toUtf8())
                                .object()
                                .value(QLatin1String("apps"))
                                .toArray();
    for (const QJsonValue& value : apps) {
        const QJsonObject app = value.toObject();
        const QString appid = app.value(QLatin1String("bundle_id")).toString();
        // The list leaves the file's path out; the record has it.
        IpaParser::IpaInfo record;
        if (!db->getAppById(appid, &record) || !QFileInfo(record.mIpaPath).isFile())
            continue;
        auto* item = new QTreeWidgetItem(mTree);
        item->setText(NameColumn, app.value(QLatin1String("appname")).toString());
        item->setText(VersionColumn, app.value(QLatin1String("version")).toString());
        item->setText(BundleColumn, appid);
        item->setText(SizeColumn,
                      DeskFormat::bytes(quint64(app.value(QLatin1String("ipasize")).toDouble())));
        item->setText(PathColumn, record.mIpaPath);
        QPixmap icon;
        if (icon.loadFromData(db->getIconByAppid(appid)))
            item->setIcon(NameColumn, QIcon(icon));
    }
    mTree->sortItems(NameColumn, Qt::AscendingOrder);
    for (int column = NameColumn; column < PathColumn; ++column)
        mTree->resizeColumnToContents(column);
}

QStringList CatalogView::addFiles(const QStringList& paths)
{
    DBManager* db = DBManager::instance();
    QStringList refused;
    for (const QString& file : paths) {
        const QString path = QFileInfo(file).absoluteFilePath();
        IpaParser::IpaInfo info;
        const QString problem = parseProblem(path, info);
        if (!problem.isEmpty()) {
            refused << QStringLiteral("%1: %2").arg(QFileInfo(file).fileName(), problem);
            continue;
        }
        // Saving writes every size column; an app the catalog knows keeps its measured
        // sizes on the device, which a file cannot tell.
        IpaParser::IpaInfo known;
        if (db->getAppById(info.mAppId, &known)) {
            info.mAppSize = known.mAppSize;
            info.mDocSize = known.mDocSize;
        }
        info.mInLocal = true;
        info.mIpaPath = path;
        if (info.mAppName.isEmpty())
            info.mAppName = QFileInfo(path).completeBaseName();
        db->saveAppinfo(&info);
        if (!info.mIcon.isEmpty())
            db->saveAppIcon(info.mAppId, info.mIcon);
    }
    reload();
    return refused;
}

QStringList CatalogView::paths() const
{
    QStringList all;
    for (int i = 0; i < mTree->topLevelItemCount(); ++i)
        all << mTree->topLevelItem(i)->text(PathColumn);
    return all;
}

void CatalogView::chooseFiles()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Add apps to the catalog"),
                                                            QString(), tr("iOS apps (*.ipa)"));
    if (files.isEmpty())
        return;
    const QStringList refused = addFiles(files);
    emit message(refused.isEmpty() ? tr("%n app(s) added to the catalog.", "", files.size())
                                   : refused.join(QStringLiteral("; ")));
}
