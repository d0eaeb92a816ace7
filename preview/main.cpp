/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A host for screensaver plug-ins, written only against the interface that
// lock screens share with them: it finds plug-ins by file name, loads one,
// keeps its settings the way a host does, and shows it in a window or full
// screen, or captures its frames without a screen.

#include "host/screensaverinterface.h"
#include "previewoptions.h"
#include "screensaverplugin.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEvent>
#include <QFileInfo>
#include <QImage>
#include <QJsonObject>
#include <QPalette>
#include <QPluginLoader>
#include <QScreen>
#include <QSettings>
#include <QTextStream>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

#include <cstdio>
#include <vector>

namespace
{
int fail(const QString &message, int code = 1)
{
    std::fprintf(stderr, "zav-screensaver-preview: %s\n", qUtf8Printable(message));
    return code;
}

QStringList pluginSearchDirs(const PreviewOptions &options)
{
    if (!options.pluginDirs.isEmpty()) {
        return options.pluginDirs;
    }
    // In the build tree the plug-ins are built into a folder beside the one
    // of this program; installed, they are where the installation put them,
    // seen from the program's folder, or failing that where it was meant to.
    const QDir programDir(QCoreApplication::applicationDirPath());
    for (const QString &candidate : {QStringLiteral("../plugins"), QStringLiteral(ZAV_PLUGIN_DIR_FROM_BIN)}) {
        const QString dir = programDir.absoluteFilePath(candidate);
        if (QFileInfo(dir).isDir()) {
            return {QDir::cleanPath(dir)};
        }
    }
    return {QStringLiteral(ZAV_INSTALLED_PLUGIN_DIR)};
}

// Stops the screensaver and quits on any key or mouse button, like a
// screensaver does.
class WakeUpFilter : public QObject
{
public:
    explicit WakeUpFilter(AbstractScreenSaver *screenSaver)
        : QObject(screenSaver)
        , m_screenSaver(screenSaver)
    {
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        Q_UNUSED(watched)
        if (event->type() == QEvent::KeyPress || event->type() == QEvent::MouseButtonPress) {
            m_screenSaver->stop();
            QCoreApplication::quit();
            return true;
        }
        return false;
    }

private:
    AbstractScreenSaver *m_screenSaver;
};

void printSettings(const QVariantMap &settings)
{
    QTextStream out(stdout);
    for (auto it = settings.cbegin(); it != settings.cend(); ++it) {
        out << it.key() << '=' << it.value().toString() << '\n';
    }
}
}

// Stores what the screensaver reports after its dialog committed a change.
// The dialog's signal is reached by its signature: this program has its own
// copy of the interface's meta-object code.
class ChangeListener : public QObject
{
    Q_OBJECT
public:
    ChangeListener(AbstractScreenSaver *screenSaver, QSettings *settings)
        : m_screenSaver(screenSaver)
        , m_settings(settings)
    {
    }

public Q_SLOTS:
    void store()
    {
        const QVariantMap property = m_screenSaver->property();
        for (auto it = property.cbegin(); it != property.cend(); ++it) {
            m_settings->setValue(it.key(), it.value());
        }
        m_settings->sync();
        printSettings(property);
    }

private:
    AbstractScreenSaver *m_screenSaver;
    QSettings *m_settings;
};

namespace
{
// QGuiApplication takes "-plugin NAME" (and "--plugin NAME") as its own
// option for generic input plug-ins. This program's --plugin must not reach
// it, so the toolkit gets the arguments without it.
std::vector<char *> toolkitArguments(int argc, char **argv)
{
    std::vector<char *> kept;
    for (int i = 0; i < argc; ++i) {
        const QByteArray argument(argv[i]);
        if (i > 0 && (argument == "--plugin" || argument == "-plugin")) {
            ++i;
            continue;
        }
        if (i > 0 && (argument.startsWith("--plugin=") || argument.startsWith("-plugin="))) {
            continue;
        }
        kept.push_back(argv[i]);
    }
    return kept;
}
}

int main(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
    std::vector<char *> toolkitArgv = toolkitArguments(argc, argv);
    int toolkitArgc = int(toolkitArgv.size());
    toolkitArgv.push_back(nullptr);
    // Nothing here draws with OpenGL, but Qt's X11 platform would load its
    // GLX integration anyway, and with it the whole OpenGL stack (tens of
    // megabytes resident). A user who asks for an integration still gets it.
    if (!qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION")) {
        qputenv("QT_XCB_GL_INTEGRATION", "none");
    }
    QApplication app(toolkitArgc, toolkitArgv.data());
    QCoreApplication::setOrganizationName(QStringLiteral("zav"));
    QCoreApplication::setApplicationName(QStringLiteral("zav-screensaver-preview"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ZAV_VERSION));

    PreviewOptions options;
    QString error;
    if (!parsePreviewOptions(arguments, &options, &error)) {
        return fail(error, 2);
    }

    const QStringList dirs = pluginSearchDirs(options);
    const QList<ScreenSaverPluginFile> plugins = discoverScreenSaverPlugins(dirs);
    if (plugins.isEmpty()) {
        return fail(QStringLiteral("no screensaver plug-in found in %1").arg(dirs.join(QStringLiteral(", "))));
    }
    if (options.list) {
        QTextStream out(stdout);
        for (const ScreenSaverPluginFile &plugin : plugins) {
            const QJsonObject metaData = QPluginLoader(plugin.path).metaData();
            out << plugin.name << '\t' << plugin.path << "\tIID " << metaData.value(QStringLiteral("IID")).toString() << "\tclass "
                << metaData.value(QStringLiteral("className")).toString() << '\n';
        }
        return 0;
    }

    QString path;
    for (const ScreenSaverPluginFile &plugin : plugins) {
        if (plugin.name == options.plugin) {
            path = plugin.path;
            break;
        }
    }
    if (path.isEmpty()) {
        return fail(QStringLiteral("no plug-in named \"%1\" in %2").arg(options.plugin, dirs.join(QStringLiteral(", "))));
    }

    QPluginLoader loader(path);
    AbstractPluginScreenSaverLoader *factory = loadScreenSaverFactory(loader, &error);
    if (!factory) {
        return fail(error);
    }

    QWidget window;
    window.setWindowTitle(QStringLiteral("Screensaver preview"));
    // Black, as a screensaver's screen is: before the first slide is ready,
    // around a slide that does not cover it, and behind a plug-in's white
    // text.
    QPalette black = window.palette();
    black.setColor(QPalette::Window, Qt::black);
    window.setPalette(black);
    window.setAutoFillBackground(true);
    auto *layout = new QVBoxLayout(&window);
    layout->setContentsMargins(0, 0, 0, 0);
    AbstractScreenSaver *screenSaver = factory->createScreenSaver(&window);
    layout->addWidget(screenSaver);

    QSettings settings = options.settingsFile.isEmpty() ? QSettings() : QSettings(options.settingsFile, QSettings::IniFormat);
    settings.beginGroup(screenSaver->settingGroupName());
    QVariantMap property = screenSaver->defaultProperty();
    const QStringList storedKeys = settings.childKeys();
    for (const QString &key : storedKeys) {
        property.insert(key, settings.value(key));
    }
    for (auto it = options.overrides.cbegin(); it != options.overrides.cend(); ++it) {
        property.insert(it.key(), it.value());
    }
    screenSaver->setProperty(property);

    if (options.configure) {
        AbstractSettingDialog *dialog = screenSaver->settingWidget();
        if (!dialog) {
            return fail(QStringLiteral("the plug-in \"%1\" has no settings").arg(options.plugin));
        }
        ChangeListener listener(screenSaver, &settings);
        QObject::connect(dialog, SIGNAL(changed()), &listener, SLOT(store()));
        dialog->exec();
        return 0;
    }

    if (options.window.isValid()) {
        window.resize(options.window);
        window.show();
    } else {
        // Without a window manager (a bare X server, a greeter's display)
        // nobody resizes a full-screen window: give it the screen's size.
        window.setGeometry(window.screen()->geometry());
        window.showFullScreen();
    }
    app.installEventFilter(new WakeUpFilter(screenSaver));
    screenSaver->start();

    int saved = 0;
    bool captureFailed = false;
    auto saveFrame = [&](const QString &file) {
        if (!window.grab().toImage().save(file)) {
            fail(QStringLiteral("cannot write %1").arg(file));
            captureFailed = true;
            QCoreApplication::quit();
            return;
        }
        ++saved;
    };

    QTimer recorder;
    QElapsedTimer clock;
    if (!options.snapshot.isEmpty()) {
        QTimer::singleShot(qRound(options.at * 1000), &window, [&]() {
            saveFrame(options.snapshot);
            QCoreApplication::quit();
        });
    } else if (!options.record.isEmpty()) {
        if (!QDir().mkpath(options.record)) {
            return fail(QStringLiteral("cannot create %1").arg(options.record));
        }
        recorder.setTimerType(Qt::PreciseTimer);
        recorder.setInterval(1000 / options.fps);
        QObject::connect(&recorder, &QTimer::timeout, &window, [&]() {
            if (clock.elapsed() > qRound64(options.duration * 1000)) {
                recorder.stop();
                QCoreApplication::quit();
                return;
            }
            saveFrame(QDir(options.record).filePath(QStringLiteral("frame-%1.png").arg(saved + 1, 4, 10, QLatin1Char('0'))));
        });
        clock.start();
        recorder.start();
    }

    const int code = app.exec();
    screenSaver->stop();
    if (captureFailed) {
        return 1;
    }
    if (!options.record.isEmpty()) {
        std::printf("%d frames in %s\n", saved, qUtf8Printable(QDir(options.record).absolutePath()));
    }
    return code;
}

#include "main.moc"
