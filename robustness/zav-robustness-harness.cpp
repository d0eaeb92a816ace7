/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A host like a lock screen, reduced to what a robustness run needs: it loads
// the built plug-in through Qt's plug-in loader, casts its root object through
// the shared interface, shows the screensaver in a window with the settings
// given on the command line, lets a few slides switch while forcing paints,
// resizes the window, destroys everything and exits 0. On standard output it
// reports what it saw, one "name: value" per line:
//
//   switches: <fades started>        fades: <fades finished>
//   paints: <forced grabs>           destroy-ms: <time to delete the window>
//   run-ms: <time from start() to the end of the run>
//   peak-rss-kib: <VmHWM at exit>
//   log: <debug|info|warning|critical> <text of a message of the plug-in's category>
//
// Log texts are escaped so that each stays on one line: a backslash becomes
// "\\", a line feed "\n" and a carriage return "\r".
//
// Anything else Qt says goes to standard error as usual.

#include "host/screensaverinterface.h"
#include "screensaverplugin.h"
#include "testutils.h"

#include <QAbstractAnimation>
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QPointer>
#include <QSize>
#include <QTimer>
#include <QVBoxLayout>
#include <QVariantAnimation>
#include <QWidget>

#include <cstdio>
#include <mutex>

namespace
{
struct LogLine {
    QtMsgType type;
    QString text;
};

// Messages arrive from the GUI thread and from the plug-in's cache thread.
std::mutex logMutex;
QList<LogLine> logLines;
QtMessageHandler previousHandler = nullptr;
bool keepDebugLines = false;
// Requests the worker queued, and queued requests it has finished with, as
// its debug lines tell: the cache thread runs at idle priority, and on a
// busy machine the host waits for it before it tears the show down.
int requestsQueued = 0;
int requestsFinished = 0;

void countRequest(const QString &message)
{
    if (message.startsWith(QLatin1String(LogText::queued))) {
        ++requestsQueued;
        return;
    }
    for (const char *prefix : {LogText::cacheSize, LogText::nullImage, LogText::skippedCleaned, LogText::droppedCleaned, LogText::fromOtherPath}) {
        if (message.startsWith(QLatin1String(prefix))) {
            ++requestsFinished;
            return;
        }
    }
}

void recordMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (context.category && qstrcmp(context.category, LogText::category) == 0) {
        std::lock_guard<std::mutex> locker(logMutex);
        countRequest(message);
        if (type != QtDebugMsg || keepDebugLines) {
            logLines.append(LogLine{type, message});
        }
        if (type == QtDebugMsg && !keepDebugLines) {
            // Counted only, neither kept nor passed on.
            return;
        }
    }
    if (previousHandler) {
        previousHandler(type, context, message);
    }
}

QString escaped(QString text)
{
    text.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    text.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    text.replace(QLatin1Char('\r'), QLatin1String("\\r"));
    return text;
}

const char *typeName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "debug";
    case QtInfoMsg:
        return "info";
    case QtWarningMsg:
        return "warning";
    case QtCriticalMsg:
        return "critical";
    case QtFatalMsg:
        return "fatal";
    }
    return "unknown";
}

int fail(const QString &message)
{
    std::fprintf(stderr, "zav-robustness-harness: %s\n", qUtf8Printable(message));
    return 2;
}

// "KEY=TYPE:VALUE", TYPE one of int, longlong, double, string, list (a
// string list of VALUE) or invalid (an invalid QVariant, VALUE ignored).
bool parseSetting(const QString &argument, QString *key, QVariant *value)
{
    const int equals = argument.indexOf(QLatin1Char('='));
    const int colon = argument.indexOf(QLatin1Char(':'), equals + 1);
    if (equals <= 0 || colon < 0) {
        return false;
    }
    *key = argument.left(equals);
    const QString type = argument.mid(equals + 1, colon - equals - 1);
    const QString text = argument.mid(colon + 1);
    bool ok = true;
    if (type == QLatin1String("int")) {
        *value = text.toInt(&ok);
    } else if (type == QLatin1String("longlong")) {
        *value = text.toLongLong(&ok);
    } else if (type == QLatin1String("double")) {
        *value = text.toDouble(&ok);
    } else if (type == QLatin1String("string")) {
        *value = text;
    } else if (type == QLatin1String("list")) {
        *value = QStringList{text};
    } else if (type == QLatin1String("invalid")) {
        *value = QVariant();
    } else {
        return false;
    }
    return ok;
}

QSize parseSize(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char('x'));
    if (parts.size() != 2) {
        return QSize();
    }
    return QSize(parts.at(0).toInt(), parts.at(1).toInt());
}
}

int main(int argc, char **argv)
{
    previousHandler = qInstallMessageHandler(recordMessage);
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zav-robustness-harness"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Runs the slide-show plug-in the way a lock screen does and reports what happened."));
    parser.addHelpOption();
    const QCommandLineOption pluginDirOption(QStringLiteral("plugin-dir"),
                                             QStringLiteral("Folder of the plug-in."),
                                             QStringLiteral("dir"),
                                             QStringLiteral(ZAV_PLUGIN_DIR));
    const QCommandLineOption setOption(QStringLiteral("set"),
                                       QStringLiteral("A setting, KEY=TYPE:VALUE with TYPE int, longlong, double, string, list or invalid (repeatable)."),
                                       QStringLiteral("setting"));
    const QCommandLineOption switchesOption(QStringLiteral("switches"),
                                            QStringLiteral("Slide switches to wait for before the resize."),
                                            QStringLiteral("n"),
                                            QStringLiteral("3"));
    const QCommandLineOption timeoutOption(QStringLiteral("wait-ms"),
                                           QStringLiteral("Longest wait for those switches, and for one more after the resize."),
                                           QStringLiteral("ms"),
                                           QStringLiteral("3000"));
    const QCommandLineOption sizeOption(QStringLiteral("size"), QStringLiteral("Window size at the start."), QStringLiteral("WxH"), QStringLiteral("400x300"));
    const QCommandLineOption resizeOption(QStringLiteral("resize"),
                                          QStringLiteral("Window size after the switches."),
                                          QStringLiteral("WxH"),
                                          QStringLiteral("480x360"));
    const QCommandLineOption debugOption(QStringLiteral("debug"), QStringLiteral("Turn on the plug-in's debug messages."));
    parser.addOptions({pluginDirOption, setOption, switchesOption, timeoutOption, sizeOption, resizeOption, debugOption});
    parser.process(app);

    // The worker's debug lines are always on, to follow its requests; they
    // are reported only when asked for.
    keepDebugLines = parser.isSet(debugOption);
    QLoggingCategory::setFilterRules(QStringLiteral("zav-tev.screensaver.slideshow.debug=true"));

    // A short interval and fade unless the run sets them.
    QVariantMap settings{{QStringLiteral("AutoSwitch"), 0}, {QStringLiteral("Effect"), 50}};
    const QStringList settingArguments = parser.values(setOption);
    for (const QString &argument : settingArguments) {
        QString key;
        QVariant value;
        if (!parseSetting(argument, &key, &value)) {
            return fail(QStringLiteral("cannot read the setting %1").arg(argument));
        }
        settings.insert(key, value);
    }
    const int wantedSwitches = parser.value(switchesOption).toInt();
    const int waitMs = parser.value(timeoutOption).toInt();
    const QSize size = parseSize(parser.value(sizeOption));
    const QSize resized = parseSize(parser.value(resizeOption));
    if (size.isEmpty() || resized.isEmpty()) {
        return fail(QStringLiteral("cannot read the window sizes"));
    }

    const QString pluginPath = QDir(parser.value(pluginDirOption)).filePath(pluginFileNameTemplate.arg(QStringLiteral("slideshow")));
    // Like a lock screen, the host keeps the library loaded until it exits.
    QPluginLoader loader(pluginPath);
    QString error;
    AbstractPluginScreenSaverLoader *factory = loadScreenSaverFactory(loader, &error);
    if (!factory) {
        return fail(error);
    }

    auto *window = new QWidget;
    auto *layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    QPointer<AbstractScreenSaver> screenSaver = factory->createScreenSaver(window);
    if (!screenSaver) {
        return fail(QStringLiteral("the plug-in made no screensaver"));
    }
    layout->addWidget(screenSaver);
    window->resize(size);
    window->show();
    QCoreApplication::processEvents();

    // The fade is the only part of the show a host can see from outside (a
    // child animation of the screensaver): each start is a slide switch.
    int switches = 0;
    int fades = 0;
    if (auto *animation = screenSaver->findChild<QVariantAnimation *>()) {
        QObject::connect(animation, &QAbstractAnimation::stateChanged, window, [&switches](QAbstractAnimation::State state) {
            if (state == QAbstractAnimation::Running) {
                ++switches;
            }
        });
        QObject::connect(animation, &QAbstractAnimation::finished, window, [&fades]() {
            ++fades;
        });
    }

    screenSaver->setProperty(settings);
    screenSaver->start();
    QElapsedTimer runTimer;
    runTimer.start();

    // Paints are forced through grab(), which renders the widgets at once:
    // the offscreen platform would otherwise paint only when it is asked to.
    int paints = 0;
    auto runUntil = [&](int switchTarget) {
        QElapsedTimer waited;
        waited.start();
        qint64 lastPaint = -1000;
        while (switches < switchTarget && waited.elapsed() < waitMs) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
            // About one frame at 40 per second.
            if (waited.elapsed() - lastPaint >= 25) {
                lastPaint = waited.elapsed();
                window->grab();
                ++paints;
            }
        }
    };
    runUntil(wantedSwitches);
    window->resize(resized);
    QCoreApplication::processEvents();
    window->grab();
    ++paints;
    runUntil(switches + 1);
    screenSaver->stop();
    // Until the worker has finished with every request, so that what it says
    // about the files is in the report. Its thread runs at idle priority and
    // may get next to nothing of a busy machine for a while; a minute is
    // enough for any preparation to end by its own budget.
    {
        QElapsedTimer waited;
        waited.start();
        const auto busy = [] {
            std::lock_guard<std::mutex> locker(logMutex);
            return requestsFinished < requestsQueued;
        };
        while (busy() && waited.elapsed() < qMax(waitMs, 60000)) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        }
    }
    const qint64 runMs = runTimer.elapsed();

    QElapsedTimer destroyTimer;
    destroyTimer.start();
    delete window;
    const qint64 destroyMs = destroyTimer.elapsed();
    // Deferred deletions of the destroyed widgets.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::processEvents();

    std::printf("switches: %d\nfades: %d\npaints: %d\nrun-ms: %lld\ndestroy-ms: %lld\n", switches, fades, paints, runMs, destroyMs);
    {
        std::lock_guard<std::mutex> locker(logMutex);
        for (const LogLine &line : qAsConst(logLines)) {
            std::printf("log: %s %s\n", typeName(line.type), qUtf8Printable(escaped(line.text)));
        }
    }
    std::printf("peak-rss-kib: %lld\n", TestUtils::peakResidentKiB());
    std::fflush(stdout);
    return 0;
}
