#include "AppsView.h"

#include "DeskFormat.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QListView>
#include <QPixmap>
#include <QSortFilterProxyModel>
#include <QStackedWidget>
#include <QStandardItemModel>
#include <QToolButton>
#include <QTreeView>
#include <QVBoxLayout>

namespace {

const int kAppIdRole = Qt::UserRole;
const int kSystemRole = Qt::UserRole + 1;
const int kHasIconRole = Qt::UserRole + 2;

// Search text (name or bundle id) and kind of app.
class AppFilter : public QSortFilterProxyModel
{
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    void setSearch(const QString& text)
    {
        mSearch = text.trimmed();
        invalidateFilter();
    }
    void setKind(int kind)
    {
        mKind = kind;
        invalidateFilter();
    }

protected:
    bool filterAcceptsRow(int row, const QModelIndex& parent) const override
    {
        const QModelIndex name = sourceModel()->index(row, AppsView::NameColumn, parent);
        const bool system = name.data(kSystemRole).toBool();
        if ((mKind == AppsView::UserApps && system) || (mKind == AppsView::SystemApps && !system))
            return false;
        return mSearch.isEmpty() || name.data().toString().contains(mSearch, Qt::CaseInsensitive) ||
               name.data(kAppIdRole).toString().contains(mSearch, Qt::CaseInsensitive);
    }

private:
    QString mSearch;
    int mKind = AppsView::AllApps;
};

QIcon placeholderIcon()
{
    QPixmap pixmap(48, 48);
    pixmap.fill(QColor(0xd0d4da));
    return QIcon(pixmap);
}

} // namespace

AppsView::AppsView(QWidget* parent) : QWidget(parent)
{
    mModel = new QStandardItemModel(0, ColumnCount, this);
    mModel->setHorizontalHeaderLabels(
        {tr("Name"), tr("Version"), tr("Bundle ID"), tr("App size"), tr("Documents")});
    mFilter = new AppFilter(this);
    mFilter->setSourceModel(mModel);
    mFilter->setSortCaseSensitivity(Qt::CaseInsensitive);

    mSearch = new QLineEdit;
    mSearch->setPlaceholderText(tr("Search apps"));
    mSearch->setClearButtonEnabled(true);
    mKind = new QComboBox;
    mKind->addItems({tr("All apps"), tr("User apps"), tr("System apps")});
    mGridButton = new QToolButton;
    mGridButton->setText(tr("Grid"));
    mGridButton->setCheckable(true);
    auto* bar = new QHBoxLayout;
    bar->addWidget(mSearch, 1);
    bar->addWidget(mKind);
    bar->addWidget(mGridButton);

    mList = new QTreeView;
    mList->setModel(mFilter);
    mList->setRootIsDecorated(false);
    mList->setUniformRowHeights(true);
    mList->setIconSize(QSize(32, 32));
    mList->setSortingEnabled(true);
    mList->sortByColumn(NameColumn, Qt::AscendingOrder);
    mList->setSelectionMode(QAbstractItemView::ExtendedSelection);
    mList->header()->setStretchLastSection(false);
    mList->header()->setSectionResizeMode(BundleColumn, QHeaderView::Stretch);
    mList->setColumnWidth(NameColumn, 170);
    mList->setColumnWidth(VersionColumn, 70);
    mList->setColumnWidth(AppSizeColumn, 80);
    mList->setColumnWidth(DocSizeColumn, 100);
    mGrid = new QListView;
    mGrid->setModel(mFilter);
    mGrid->setViewMode(QListView::IconMode);
    mGrid->setIconSize(QSize(48, 48));
    mGrid->setGridSize(QSize(100, 100));
    mGrid->setResizeMode(QListView::Adjust);
    mGrid->setMovement(QListView::Static);
    mGrid->setWordWrap(true);
    mGrid->setSelectionModel(mList->selectionModel());
    mStack = new QStackedWidget;
    mStack->addWidget(mList);
    mStack->addWidget(mGrid);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addLayout(bar);
    layout->addWidget(mStack, 1);

    connect(mSearch, &QLineEdit::textChanged, this, &AppsView::setSearchText);
    connect(mKind, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            [this](int kind) { setKind(Kind(kind)); });
    connect(mGridButton, &QToolButton::toggled, this, &AppsView::setGrid);
    connect(mList->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &AppsView::selectionChanged);
}

void AppsView::clear()
{
    mModel->removeRows(0, mModel->rowCount());
}

QStandardItem* AppsView::findRow(const QString& appid) const
{
    for (int row = 0; row < mModel->rowCount(); ++row) {
        QStandardItem* item = mModel->item(row, NameColumn);
        if (item->data(kAppIdRole).toString() == appid)
            return item;
    }
    return nullptr;
}

void AppsView::addApps(const QString& json, bool system)
{
    // The list ends with an empty object, which names no app.
    const QJsonArray apps = QJsonDocument::fromJson(json.toUtf8()).array();
    for (const QJsonValue& value : apps) {
        const QJsonObject app = value.toObject();
        const QString appid = app.value(QLatin1String("bundle_id")).toString();
        if (appid.isEmpty())
            continue;
        QStandardItem* name = findRow(appid);
        if (!name) {
            QList<QStandardItem*> row;
            for (int column = 0; column < ColumnCount; ++column) {
                row << new QStandardItem;
                row.last()->setEditable(false);
            }
            name = row.first();
            name->setIcon(placeholderIcon());
            row[AppSizeColumn]->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            row[DocSizeColumn]->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            mModel->appendRow(row);
        }
        const int row = name->row();
        name->setText(app.value(QLatin1String("appname")).toString());
        name->setData(appid, kAppIdRole);
        name->setData(system, kSystemRole);
        name->setToolTip(appid);
        mModel->item(row, VersionColumn)->setText(app.value(QLatin1String("version")).toString());
        mModel->item(row, BundleColumn)->setText(appid);
    }
}

void AppsView::setIcon(const QString& appid, const QByteArray& png)
{
    QStandardItem* item = findRow(appid);
    QPixmap pixmap;
    if (!item || !pixmap.loadFromData(png))
        return;
    item->setIcon(QIcon(pixmap));
    item->setData(true, kHasIconRole);
}

void AppsView::setSizes(const QString& json)
{
    const QJsonArray apps =
        QJsonDocument::fromJson(json.toUtf8()).object().value(QLatin1String("apps")).toArray();
    for (const QJsonValue& value : apps) {
        const QJsonObject app = value.toObject();
        QStandardItem* item = findRow(app.value(QLatin1String("appid")).toString());
        if (!item)
            continue;
        const int row = item->row();
        mModel->item(row, AppSizeColumn)
            ->setText(DeskFormat::bytes(quint64(app.value(QLatin1String("appsize")).toDouble())));
        mModel->item(row, DocSizeColumn)
            ->setText(DeskFormat::bytes(quint64(app.value(QLatin1String("docsize")).toDouble())));
    }
}

void AppsView::removeApp(const QString& appid)
{
    if (QStandardItem* item = findRow(appid))
        mModel->removeRow(item->row());
}

bool AppsView::contains(const QString& appid) const
{
    return findRow(appid) != nullptr;
}

QStringList AppsView::appIds() const
{
    QStringList ids;
    for (int row = 0; row < mModel->rowCount(); ++row)
        ids << mModel->item(row, NameColumn)->data(kAppIdRole).toString();
    return ids;
}

QStringList AppsView::visibleAppIds() const
{
    QStringList ids;
    for (int row = 0; row < mFilter->rowCount(); ++row)
        ids << mFilter->index(row, NameColumn).data(kAppIdRole).toString();
    return ids;
}

QStringList AppsView::selectedAppIds() const
{
    QStringList ids;
    for (const QModelIndex& index : mList->selectionModel()->selectedRows(NameColumn))
        ids << index.data(kAppIdRole).toString();
    return ids;
}

void AppsView::selectApp(const QString& appid)
{
    QStandardItem* item = findRow(appid);
    if (!item)
        return;
    mList->selectionModel()->select(mFilter->mapFromSource(item->index()),
                                    QItemSelectionModel::ClearAndSelect |
                                        QItemSelectionModel::Rows);
}

bool AppsView::hasIcon(const QString& appid) const
{
    QStandardItem* item = findRow(appid);
    return item && item->data(kHasIconRole).toBool();
}

QString AppsView::text(const QString& appid, Column column) const
{
    QStandardItem* item = findRow(appid);
    return item ? mModel->item(item->row(), column)->text() : QString();
}

void AppsView::setSearchText(const QString& text)
{
    if (mSearch->text() != text)
        mSearch->setText(text);
    static_cast<AppFilter*>(mFilter)->setSearch(text);
}

void AppsView::setKind(Kind kind)
{
    if (mKind->currentIndex() != kind)
        mKind->setCurrentIndex(kind);
    static_cast<AppFilter*>(mFilter)->setKind(kind);
}

void AppsView::setGrid(bool grid)
{
    if (mGridButton->isChecked() != grid)
        mGridButton->setChecked(grid);
    mStack->setCurrentWidget(grid ? static_cast<QWidget*>(mGrid) : mList);
}

bool AppsView::isGrid() const
{
    return mStack->currentWidget() == mGrid;
}
