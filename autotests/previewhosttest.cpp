/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The preview host as a user runs it: command line, errors, settings, frames.
// Run under a real X server too (xcb through xvfb-run) for the capture.

#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>

namespace
{
struct Result {
    int exitCode;
    QProcess::ExitStatus exitStatus;
    QString out;
    QString err;
};

const QString hostPrefix = QStringLiteral("zav-screensaver-preview: ");
const QString pluginDir = QStringLiteral(ZAV_PLUGIN_DIR);
const QColor red(220, 20, 30);
const QColor green(20, 200, 40);

// The one line the host writes on an error, without what Qt itself may print.
QString hostLine(const QString &err)
{
    const QStringList own = err.split(QLatin1Char('\n'), Qt::SkipEmptyParts).filter(QRegularExpression(QLatin1Char('^') + hostPrefix));
    return own.size() == 1 ? own.constFirst() : QStringLiteral("<%1 lines from the host>").arg(own.size());
}

// When a snapshot shows the first slide: milliseconds of work, but on a
// thread of idle priority, which a busy machine serves last.
const QString slideReady = QStringLiteral("2.5");

Result run(const QStringList &arguments, int timeout = 60000)
{
    QProcess process;
    process.start(QStringLiteral(ZAV_PREVIEW_PROGRAM), arguments);
    if (!process.waitForFinished(timeout)) {
        process.kill();
        process.waitForFinished();
        return Result{-1, QProcess::CrashExit, QString(), QStringLiteral("timed out")};
    }
    return Result{process.exitCode(),
                  process.exitStatus(),
                  QString::fromUtf8(process.readAllStandardOutput()),
                  QString::fromUtf8(process.readAllStandardError())};
}
}

class PreviewHostTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_red;
    QString m_green;
    // Holds neither images nor plug-ins.
    QString m_empty;
    QString m_broken;

    // The host in its 320 x 200 window, with its settings in the named file.
    QStringList showArguments(const QString &settingsName) const
    {
        const QStringList window{QStringLiteral("--window"), QStringLiteral("320x200")};
        return QStringList{QStringLiteral("--settings"), m_dir.filePath(settingsName), QStringLiteral("--plugin-dir"), pluginDir} + window;
    }

    // The host's capture at the given second (in name.png); null if it failed.
    QImage snapshot(QStringList arguments, const QString &name, const QString &at = slideReady) const
    {
        const QString file = m_dir.filePath(name + QStringLiteral(".png"));
        const Result result = run(arguments << QStringLiteral("--snapshot") << file << QStringLiteral("--at") << at);
        if (result.exitStatus != QProcess::NormalExit || result.exitCode != 0) {
            qWarning("the host failed: %s", qPrintable(result.err));
            return QImage();
        }
        return QImage(file);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_red = m_dir.filePath(QStringLiteral("red"));
        m_green = m_dir.filePath(QStringLiteral("green"));
        m_empty = m_dir.filePath(QStringLiteral("empty"));
        for (const QString &folder : {m_red, m_green, m_empty, m_dir.filePath(QStringLiteral("broken"))}) {
            QVERIFY(QDir().mkpath(folder));
        }
        TestUtils::writeSolidImage(m_red, QStringLiteral("red.png"), QSize(400, 300), red);
        TestUtils::writeSolidImage(m_green, QStringLiteral("green.png"), QSize(400, 300), green);
        QFile broken(m_dir.filePath(QStringLiteral("broken/libzav-screensaver_broken.so")));
        QVERIFY(broken.open(QIODevice::WriteOnly));
        broken.write("not a shared object\n");
        m_broken = broken.fileName();
        QSettings stored(m_dir.filePath(QStringLiteral("stored.ini")), QSettings::IniFormat);
        stored.setValue(QStringLiteral("SlideShow/ImageDirectory"), m_green);
    }

    // Cropped, a solid image fills the frame; stored settings apply, the command
    // line overrides; with no images the label is transparent: the window's black.
    void snapshotShows_data()
    {
        QTest::addColumn<QString>("settingsName");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("at");
        QTest::addColumn<QColor>("colour");
        QTest::newRow("the slide") << QStringLiteral("snapshot.ini") << QStringList{QStringLiteral("--dir"), m_red} << slideReady << red;
        QTest::newRow("stored settings") << QStringLiteral("stored.ini") << QStringList() << slideReady << green;
        QTest::newRow("overridden") << QStringLiteral("stored.ini") << QStringList{QStringLiteral("--set"), QStringLiteral("ImageDirectory=") + m_red}
                                    << slideReady << red;
        QTest::newRow("background") << QStringLiteral("background.ini") << QStringList{QStringLiteral("--dir"), m_empty} << QStringLiteral("0.5")
                                    << QColor(Qt::black);
    }

    void snapshotShows()
    {
        QFETCH(QString, settingsName);
        QFETCH(QStringList, options);
        QFETCH(QString, at);
        QFETCH(QColor, colour);
        const QImage image = snapshot(showArguments(settingsName) + options, QString::fromLatin1(QTest::currentDataTag()), at);
        QCOMPARE(image.size(), QSize(320, 200));
        QList<QPoint> points{QPoint(0, 0), QPoint(319, 0), QPoint(0, 199), QPoint(319, 199)};
        if (colour != Qt::black) {
            points.append(QPoint(160, 100));
        }
        for (const QPoint &point : points) {
            // The background exactly, a slide within the drawing's rounding.
            QVERIFY2(TestUtils::fuzzyColor(image.pixel(point), colour, colour == Qt::black ? 0 : 2), qPrintable(QColor(image.pixel(point)).name()));
        }
    }

    void openGlIsNotLoaded_data()
    {
        QTest::addColumn<QByteArray>("integration");
        QTest::addColumn<bool>("loaded");
        QTest::newRow("by default") << QByteArray() << false;
        // The check itself can fail: asked for, the integration is loaded.
        QTest::newRow("asked for") << QByteArray("xcb_glx") << true;
    }

    void openGlIsNotLoaded()
    {
        QFETCH(QByteArray, integration);
        QFETCH(bool, loaded);
        if (qgetenv("QT_QPA_PLATFORM") != "xcb") {
            QSKIP("only the X11 platform loads an OpenGL integration");
        }
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("QT_XCB_GL_INTEGRATION"));
        if (!integration.isEmpty()) {
            environment.insert(QStringLiteral("QT_XCB_GL_INTEGRATION"), QString::fromLatin1(integration));
        }
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(ZAV_PREVIEW_PROGRAM),
                      showArguments(QStringLiteral("gl.ini")) << QStringLiteral("--dir") << m_red << QStringLiteral("--snapshot")
                                                              << m_dir.filePath(QStringLiteral("gl.png")) << QStringLiteral("--at") << QStringLiteral("30"));
        QVERIFY(process.waitForStarted());
        // Once the plug-in is mapped, the platform and its integration (first) are too.
        const QString maps = QStringLiteral("/proc/%1/maps").arg(process.processId());
        QString mapped;
        const bool started = QTest::qWaitFor(
            [&maps, &mapped] {
                QFile file(maps);
                mapped = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
                return mapped.contains(QLatin1String("libzav-screensaver_slideshow"));
            },
            30000);
        process.kill();
        process.waitForFinished();
        QVERIFY(started);
        // Qt's GUI links the OpenGL dispatcher (libGL.so.1) itself; the
        // integration brings the GLX plug-in, Mesa's GLX and DRI drivers, LLVM.
        const bool openGl = mapped.contains(QLatin1String("libqxcb-glx-integration")) || mapped.contains(QLatin1String("libGLX_mesa"))
            || mapped.contains(QLatin1String("_dri.so")) || mapped.contains(QLatin1String("/libLLVM"));
        if (loaded && !openGl) {
            QSKIP("no OpenGL libraries are installed here, so the check cannot show them");
        }
        QCOMPARE(openGl, loaded);
    }

    void recordWritesNumberedFrames()
    {
        const QString frames = m_dir.filePath(QStringLiteral("frames"));
        const Result result = run(showArguments(QStringLiteral("record.ini"))
                                  << QStringLiteral("--dir") << m_red << QStringLiteral("--record") << frames << QStringLiteral("--duration")
                                  << QStringLiteral("1.2") << QStringLiteral("--fps") << QStringLiteral("5"));
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        const QStringList written = QDir(frames).entryList({QStringLiteral("frame-*.png")}, QDir::Files, QDir::Name);
        QVERIFY2(written.size() >= 3, qPrintable(written.join(QLatin1Char(' '))));
        QCOMPARE(written.constFirst(), QStringLiteral("frame-0001.png"));
        QVERIFY(result.out.contains(QStringLiteral("%1 frames in ").arg(written.size())));
        QCOMPARE(QImage(QDir(frames).filePath(written.constLast())).size(), QSize(320, 200));
    }

    void listShowsNameFileAndMetadata()
    {
        const Result result = run({QStringLiteral("--plugin-dir"), pluginDir, QStringLiteral("--list")});
        QCOMPARE(result.exitCode, 0);
        const QString expected = QStringLiteral("slideshow\t%1\tIID zav-screensaver/0.0\tclass PluginSlideShowLoader\n")
                                     .arg(QDir(pluginDir).absoluteFilePath(QStringLiteral("libzav-screensaver_slideshow.so")));
        QCOMPARE(result.out, expected);
    }

    void refusals_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        // The host's line after its name; for a broken file its start (Qt's reason follows).
        QTest::addColumn<QString>("message");

        const QString pluginDirOption = QStringLiteral("--plugin-dir");
        const QString pluginOption = QStringLiteral("--plugin");
        const QString wrongDir = QStringLiteral(ZAV_WRONG_PLUGIN_DIR);
        QTest::newRow("no plug-in found") << QStringList{pluginDirOption, m_empty} << 1 << QStringLiteral("no screensaver plug-in found in %1").arg(m_empty);
        QTest::newRow("unknown plug-in name") << QStringList{pluginDirOption, pluginDir, pluginOption, QStringLiteral("clock")} << 1
                                              << QStringLiteral("no plug-in named \"clock\" in %1").arg(pluginDir);
        QTest::newRow("wrong interface") << QStringList{pluginDirOption, wrongDir, pluginOption, QStringLiteral("wrongiid")} << 1
                                         << QStringLiteral("%1 has the interface \"zav-screensaver/9.9\", not \"zav-screensaver/0.0\"")
                                                .arg(QDir(wrongDir).absoluteFilePath(QStringLiteral("libzav-screensaver_wrongiid.so")));
        QTest::newRow("broken file") << QStringList{pluginDirOption, QFileInfo(m_broken).path(), pluginOption, QStringLiteral("broken")} << 1
                                     << QStringLiteral("%1 is not a Qt plug-in: ").arg(m_broken);

        // Bad option values, the arguments separated by blanks. Fit, the
        // fifth mode, is 4: the first unknown number is 5.
        const auto badOption = [](const char *name, const char *arguments, const char *message) {
            QTest::newRow(name) << QString::fromLatin1(arguments).split(QLatin1Char(' ')) << 2 << QString::fromLatin1(message);
        };
        badOption("position name", "--position Zoom", "--position takes Stretch, Crop, Tile, Center, Fit or 0 to 4, not \"Zoom\"");
        badOption("position number", "--position 5", "--position takes Stretch, Crop, Tile, Center, Fit or 0 to 4, not \"5\"");
        badOption("window", "--window 0x10", "--window takes a size like 960x540, not \"0x10\"");
        badOption("interval", "--interval -1", "--interval takes whole seconds, not \"-1\"");
        badOption("effect", "--effect fast", "--effect takes milliseconds, not \"fast\"");
        badOption("fps", "--record x --duration 1 --fps 0", "--fps takes a whole number from 1 to 1000, not \"0\"");
        badOption("record without duration", "--record x", "--record needs --duration");
        badOption("set", "--set Effect", "--set takes KEY=VALUE, not \"Effect\"");
        badOption("unknown option", "--colour", "Unknown option 'colour'.");
    }

    void refusals()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        const Result result = run(arguments);
        QCOMPARE(result.exitStatus, QProcess::NormalExit);
        QCOMPARE(result.exitCode, exitCode);
        const QString line = hostLine(result.err);
        if (QLatin1String(QTest::currentDataTag()) == QLatin1String("broken file")) {
            QVERIFY2(line.startsWith(hostPrefix + message), qPrintable(result.err));
        } else {
            QCOMPARE(line, hostPrefix + message);
        }
    }
};

QTEST_GUILESS_MAIN(PreviewHostTest)

#include "previewhosttest.moc"
