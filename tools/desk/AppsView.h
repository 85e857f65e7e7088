#pragma once

#include <QStringList>
#include <QWidget>

class QComboBox;
class QLineEdit;
class QListView;
class QSortFilterProxyModel;
class QStackedWidget;
class QStandardItem;
class QStandardItemModel;
class QToolButton;
class QTreeView;

// The apps installed on the selected device, as a list (icon, name, version, bundle id,
// app size, Documents size) or as a grid of icons, narrowed by a search text and by
// user or system apps.
class AppsView : public QWidget
{
    Q_OBJECT
public:
    enum Column
    {
        NameColumn,
        VersionColumn,
        BundleColumn,
        AppSizeColumn,
        DocSizeColumn,
        ColumnCount
    };
    enum Kind
    {
        AllApps,
        UserApps,
        SystemApps
    };

    explicit AppsView(QWidget* parent = nullptr);

    void clear();
    // Adds the apps of one app-list answer (the manager's JSON array), or updates them.
    void addApps(const QString& json, bool system);
    void setIcon(const QString& appid, const QByteArray& png);
    // Sets the sizes of one batch of measured apps (the manager's JSON object).
    void setSizes(const QString& json);
    void removeApp(const QString& appid);

    bool contains(const QString& appid) const;
    QStringList appIds() const;
    // The apps the view shows now, after the search and kind filters.
    QStringList visibleAppIds() const;
    QStringList selectedAppIds() const;
    // Makes the app the only selected one.
    void selectApp(const QString& appid);
    bool hasIcon(const QString& appid) const;
    // The shown text of one column of an app, "" when the app is not listed.
    QString text(const QString& appid, Column column) const;

    void setSearchText(const QString& text);
    void setKind(Kind kind);
    void setGrid(bool grid);
    bool isGrid() const;

signals:
    void selectionChanged();

private:
    QStandardItem* findRow(const QString& appid) const;

    QStandardItemModel* mModel;
    QSortFilterProxyModel* mFilter;
    QLineEdit* mSearch;
    QComboBox* mKind;
    QToolButton* mGridButton;
    QStackedWidget* mStack;
    QTreeView* mList;
    QListView* mGrid;
};
