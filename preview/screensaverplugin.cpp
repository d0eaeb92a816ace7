/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "screensaverplugin.h"

#include "host/screensaverinterface.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QLibrary>
#include <QPluginLoader>

QList<ScreenSaverPluginFile> discoverScreenSaverPlugins(const QStringList &dirs)
{
    QList<ScreenSaverPluginFile> found;
    for (const QString &dir : dirs) {
        const QFileInfoList files = QDir(dir).entryInfoList(QDir::Files, QDir::Name);
        for (const QFileInfo &file : files) {
            const QRegularExpressionMatch match = pluginFileNameRegExp.match(file.fileName());
            if (match.hasMatch() && QLibrary::isLibrary(file.fileName())) {
                found.append(ScreenSaverPluginFile{match.captured(1), file.absoluteFilePath()});
            }
        }
    }
    return found;
}

AbstractPluginScreenSaverLoader *loadScreenSaverFactory(QPluginLoader &loader, QString *error)
{
    const QString path = loader.fileName();
    const QJsonObject metaData = loader.metaData();
    if (metaData.isEmpty()) {
        *error = QStringLiteral("%1 is not a Qt plug-in: %2").arg(path, loader.errorString());
        return nullptr;
    }
    const QString iid = metaData.value(QStringLiteral("IID")).toString();
    if (iid != QLatin1String(AbstractPluginScreenSaverLoader_iid)) {
        *error = QStringLiteral("%1 has the interface \"%2\", not \"%3\"").arg(path, iid, QLatin1String(AbstractPluginScreenSaverLoader_iid));
        return nullptr;
    }
    QObject *root = loader.instance();
    if (!root) {
        *error = QStringLiteral("cannot load %1: %2").arg(path, loader.errorString());
        return nullptr;
    }
    auto *factory = qobject_cast<AbstractPluginScreenSaverLoader *>(root);
    if (!factory) {
        *error = QStringLiteral("%1 does not provide a screensaver factory").arg(path);
    }
    return factory;
}
