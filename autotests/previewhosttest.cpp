/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The preview host as a user runs it: its command line, its errors, its
// settings and its captured frames. Run under a real X server too (the xcb
// platform through xvfb-run), where only the capture is checked.

#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace
{
struct Result {
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    QString out;
    QString err;
};

// The one line the host writes on an error, without what Qt itself may print.
QString hostLine(const QString &err)
{
    const QStringList lines = err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QStringList own;
    for (const QString &line : lines) {
        if (line.startsWith(QLatin1String("zav-screensaver-preview: "))) {
            own.append(line);
        }
    }
    return own.size() == 1 ? own.constFirst() : QStringLiteral("<%1 lines from the host>").arg(own.size());
}

// When a snapshot shows the first slide: its preparation takes milliseconds,
// but the plug-in prepares it on a thread of the scheduler's idle priority,
// which a busy machine serves last.
const QString slideReady = QStringLiteral("2.5");

QColor centreColour(const QString &file)
{
    const QImage image(file);
    return image.isNull() ? QColor() : QColor(image.pixel(image.width() / 2, image.height() / 2));
}
}

class PreviewHostTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_red;
    QString m_green;

    Result run(const QStringList &arguments, int timeout = 60000)
    {
        QProcess process;
        process.start(QStringLiteral(ZAV_PREVIEW_PROGRAM), arguments);
        Result result;
        if (!process.waitForFinished(timeout)) {
            process.kill();
            process.waitForFinished();
            result.err = QStringLiteral("timed out");
            return result;
        }
        result.exitCode = process.exitCode();
        result.exitStatus = process.exitStatus();
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err = QString::fromUtf8(process.readAllStandardError());
        return result;
    }

    QStringList showArguments(const QString &settingsName)
    {
        return {QStringLiteral("--settings"),
                m_dir.filePath(settingsName),
                QStringLiteral("--plugin-dir"),
                QStringLiteral(ZAV_PLUGIN_DIR),
                QStringLiteral("--window"),
                QStringLiteral("320x200")};
    }

    // Runs the host on dir in its 320 x 200 window and captures it at the
    // given second into name.png, with its settings in name.ini.
    bool snapshotOf(const QString &dir, const QString &name, const QString &at, QImage *image)
    {
        const QString snapshot = m_dir.filePath(name + QStringLiteral(".png"));
        const Result result = run(showArguments(name + QStringLiteral(".ini"))
                                  << QStringLiteral("--dir") << dir << QStringLiteral("--snapshot") << snapshot << QStringLiteral("--at") << at);
        if (result.exitStatus != QProcess::NormalExit || result.exitCode != 0) {
            qWarning("the host failed: %s", qPrintable(result.err));
            return false;
        }
        *image = QImage(snapshot);
        return image->size() == QSize(320, 200);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_red = m_dir.filePath(QStringLiteral("red"));
        m_green = m_dir.filePath(QStringLiteral("green"));
        QVERIFY(QDir().mkpath(m_red));
        QVERIFY(QDir().mkpath(m_green));
        TestUtils::writeSolidImage(m_red, QStringLiteral("red.png"), QSize(400, 300), QColor(220, 20, 30));
        TestUtils::writeSolidImage(m_green, QStringLiteral("green.png"), QSize(400, 300), QColor(20, 200, 40));
    }

    void snapshotShowsTheSlide()
    {
        QImage image;
        QVERIFY(snapshotOf(m_red, QStringLiteral("snapshot"), slideReady, &image));
        // Crop of a solid image: the whole frame is the image's colour.
        for (const QPoint &point : {QPoint(0, 0), QPoint(160, 100), QPoint(319, 199)}) {
            QVERIFY2(TestUtils::fuzzyColor(image.pixel(point), QColor(220, 20, 30), 2), qPrintable(QColor(image.pixel(point)).name()));
        }
    }

    void storedSettingsApplyAndTheCommandLineOverrides()
    {
        const QString settingsFile = m_dir.filePath(QStringLiteral("stored.ini"));
        {
            QSettings settings(settingsFile, QSettings::IniFormat);
            settings.beginGroup(QStringLiteral("SlideShow"));
            settings.setValue(QStringLiteral("ImageDirectory"), m_green);
        }
        const QString stored = m_dir.filePath(QStringLiteral("stored.png"));
        Result result = run(showArguments(QStringLiteral("stored.ini")) << QStringLiteral("--snapshot") << stored << QStringLiteral("--at") << slideReady);
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QVERIFY(TestUtils::fuzzyColor(centreColour(stored).rgba(), QColor(20, 200, 40), 2));

        const QString overridden = m_dir.filePath(QStringLiteral("overridden.png"));
        result = run(showArguments(QStringLiteral("stored.ini")) << QStringLiteral("--set") << QStringLiteral("ImageDirectory=") + m_red
                                                                 << QStringLiteral("--snapshot") << overridden << QStringLiteral("--at") << slideReady);
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QVERIFY(TestUtils::fuzzyColor(centreColour(overridden).rgba(), QColor(220, 20, 30), 2));
    }

    void backgroundIsBlack()
    {
        // An empty folder: the plug-in paints only its white message on a
        // transparent label, so everything else is the window's own colour.
        const QString empty = m_dir.filePath(QStringLiteral("empty"));
        QVERIFY(QDir().mkpath(empty));
        QImage image;
        QVERIFY(snapshotOf(empty, QStringLiteral("background"), QStringLiteral("0.5"), &image));
        for (const QPoint &point : {QPoint(0, 0), QPoint(319, 0), QPoint(0, 199), QPoint(319, 199)}) {
            QCOMPARE(QColor(image.pixel(point)), QColor(Qt::black));
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
        // Once the plug-in is mapped, the platform and its integration are
        // too (they come first).
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
        // Qt's GUI library links the small OpenGL dispatcher (libGL.so.1)
        // itself; what the integration brings is the GLX plug-in, Mesa's
        // GLX and DRI drivers and with them LLVM.
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
        const Result result = run({QStringLiteral("--plugin-dir"), QStringLiteral(ZAV_PLUGIN_DIR), QStringLiteral("--list")});
        QCOMPARE(result.exitCode, 0);
        const QString expected = QStringLiteral("slideshow\t%1\tIID zav-screensaver/0.0\tclass PluginSlideShowLoader\n")
                                     .arg(QDir(QStringLiteral(ZAV_PLUGIN_DIR)).absoluteFilePath(QStringLiteral("libzav-screensaver_slideshow.so")));
        QCOMPARE(result.out, expected);
    }

    void noPluginFound()
    {
        QTemporaryDir empty;
        const Result result = run({QStringLiteral("--plugin-dir"), empty.path()});
        QCOMPARE(result.exitStatus, QProcess::NormalExit);
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(hostLine(result.err), QStringLiteral("zav-screensaver-preview: no screensaver plug-in found in %1").arg(empty.path()));
    }

    void unknownPluginName()
    {
        const Result result = run({QStringLiteral("--plugin-dir"), QStringLiteral(ZAV_PLUGIN_DIR), QStringLiteral("--plugin"), QStringLiteral("clock")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(hostLine(result.err), QStringLiteral("zav-screensaver-preview: no plug-in named \"clock\" in %1").arg(QStringLiteral(ZAV_PLUGIN_DIR)));
    }

    void wrongInterfaceIsRefused()
    {
        const Result result =
            run({QStringLiteral("--plugin-dir"), QStringLiteral(ZAV_WRONG_PLUGIN_DIR), QStringLiteral("--plugin"), QStringLiteral("wrongiid")});
        QCOMPARE(result.exitCode, 1);
        const QString file = QDir(QStringLiteral(ZAV_WRONG_PLUGIN_DIR)).absoluteFilePath(QStringLiteral("libzav-screensaver_wrongiid.so"));
        QCOMPARE(hostLine(result.err),
                 QStringLiteral("zav-screensaver-preview: %1 has the interface \"zav-screensaver/9.9\", not \"zav-screensaver/0.0\"").arg(file));
    }

    void brokenFileIsRefused()
    {
        QTemporaryDir dir;
        QFile broken(dir.filePath(QStringLiteral("libzav-screensaver_broken.so")));
        QVERIFY(broken.open(QIODevice::WriteOnly));
        broken.write("not a shared object\n");
        broken.close();
        const Result result = run({QStringLiteral("--plugin-dir"), dir.path(), QStringLiteral("--plugin"), QStringLiteral("broken")});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(hostLine(result.err).startsWith(QStringLiteral("zav-screensaver-preview: %1 is not a Qt plug-in: ").arg(broken.fileName())),
                 qPrintable(result.err));
    }

    void badOptionValues_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        // Fit, the fifth mode, is 4: the first unknown number is 5.
        QTest::newRow("position name") << QStringList{QStringLiteral("--position"), QStringLiteral("Zoom")}
                                       << QStringLiteral("--position takes Stretch, Crop, Tile, Center, Fit or 0 to 4, not \"Zoom\"");
        QTest::newRow("position number") << QStringList{QStringLiteral("--position"), QStringLiteral("5")}
                                         << QStringLiteral("--position takes Stretch, Crop, Tile, Center, Fit or 0 to 4, not \"5\"");
        QTest::newRow("window") << QStringList{QStringLiteral("--window"), QStringLiteral("0x10")}
                                << QStringLiteral("--window takes a size like 960x540, not \"0x10\"");
        QTest::newRow("interval") << QStringList{QStringLiteral("--interval"), QStringLiteral("-1")}
                                  << QStringLiteral("--interval takes whole seconds, not \"-1\"");
        QTest::newRow("effect") << QStringList{QStringLiteral("--effect"), QStringLiteral("fast")}
                                << QStringLiteral("--effect takes milliseconds, not \"fast\"");
        QTest::newRow("fps") << QStringList{QStringLiteral("--record"),
                                            QStringLiteral("x"),
                                            QStringLiteral("--duration"),
                                            QStringLiteral("1"),
                                            QStringLiteral("--fps"),
                                            QStringLiteral("0")}
                             << QStringLiteral("--fps takes a whole number from 1 to 1000, not \"0\"");
        QTest::newRow("record without duration") << QStringList{QStringLiteral("--record"), QStringLiteral("x")} << QStringLiteral("--record needs --duration");
        QTest::newRow("set") << QStringList{QStringLiteral("--set"), QStringLiteral("Effect")} << QStringLiteral("--set takes KEY=VALUE, not \"Effect\"");
        QTest::newRow("unknown option") << QStringList{QStringLiteral("--colour")} << QStringLiteral("Unknown option 'colour'.");
    }

    void badOptionValues()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        const Result result = run(arguments);
        QCOMPARE(result.exitStatus, QProcess::NormalExit);
        QCOMPARE(result.exitCode, 2);
        QCOMPARE(hostLine(result.err), QStringLiteral("zav-screensaver-preview: ") + message);
    }
};

QTEST_GUILESS_MAIN(PreviewHostTest)

#include "previewhosttest.moc"
