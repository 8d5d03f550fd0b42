#include "ui/InterfaceLoader.h"

#include "ui/MyMenuItem.h"

#include <QFile>
#include <QWidget>

namespace kv {

QAction* InterfaceLoader::createAction(QObject* parent, const QString& name)
{
    auto* item = new MyMenuItem(parent);
    item->setObjectName(name);
    return item;
}

std::unique_ptr<QWidget> InterfaceLoader::loadFile(const std::string& folder, const std::string& fileName,
                                                   std::string* error)
{
    const QString path = QString::fromStdString(folder) + "/" + QString::fromStdString(fileName);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = path.toStdString() + ": " + file.errorString().toStdString();
        return nullptr;
    }
    std::unique_ptr<QWidget> root(load(&file));
    if (!root && error)
        *error = path.toStdString() + ": " + errorString().toStdString();
    return root;
}

} // namespace kv
