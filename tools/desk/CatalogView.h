#pragma once

#include <QStringList>
#include <QWidget>

class QPushButton;
class QTreeWidget;

// The local catalog of .ipa files (the same one `kavrel ipa` adds to): icon, name,
// version, bundle id, file size and path; files can be added and installed from here.
class CatalogView : public QWidget
{
    Q_OBJECT
public:
    explicit CatalogView(QWidget* parent = nullptr);

    // Parses the files and keeps them in the catalog; returns why each refused file was
    // refused ("file: reason"), empty when all were added.
    QStringList addFiles(const QStringList& paths);
    // The .ipa paths of the listed apps, in the shown order.
    QStringList paths() const;

public slots:
    void reload();

signals:
    void installRequested(const QStringList& paths);
    void message(const QString& text);

private:
    void chooseFiles();

    QTreeWidget* mTree;
    QPushButton* mInstall;
};
